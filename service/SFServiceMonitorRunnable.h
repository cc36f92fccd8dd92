#ifndef VORN_SERVICE_SFSERVICEMONITORRUNNABLE_H
#define VORN_SERVICE_SFSERVICEMONITORRUNNABLE_H

#include "platform/Runnable.h"

class SFService;

class SFServiceMonitorRunnable : public Runnable {
public:
    explicit SFServiceMonitorRunnable(SFService* service) : m_pService(service) {}
    ~SFServiceMonitorRunnable() override {}
    void Run() override;

private:
    SFService* m_pService;
};

#endif
