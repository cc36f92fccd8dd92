#ifndef VORN_SERVICE_SFSERVICEREQUESTRUNNABLE_H
#define VORN_SERVICE_SFSERVICEREQUESTRUNNABLE_H

#include "platform/Runnable.h"

class SFService;

class SFServiceRequestRunnable : public Runnable {
public:
    explicit SFServiceRequestRunnable(SFService* service) : m_pService(service) {}
    ~SFServiceRequestRunnable() override {}
    void Run() override;

private:
    SFService* m_pService;
};

#endif
