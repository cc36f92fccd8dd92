#ifndef VORN_SERVICE_SFSERVICERESPONSERUNNABLE_H
#define VORN_SERVICE_SFSERVICERESPONSERUNNABLE_H

#include "platform/Runnable.h"

class SFService;

class SFServiceResponseRunnable : public Runnable {
public:
    explicit SFServiceResponseRunnable(SFService* service) : m_pService(service) {}
    ~SFServiceResponseRunnable() override {}
    void Run() override;

private:
    SFService* m_pService;
};

#endif
