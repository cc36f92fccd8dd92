#ifndef VORN_SERVICE_SFSERVICEMONITORRUNNABLE_H
#define VORN_SERVICE_SFSERVICEMONITORRUNNABLE_H

#include <cstdint>
#include <memory>

#include "platform/Runnable.h"

class SFService;
class ServiceCore;

class SFServiceMonitorRunnable : public Runnable {
public:
    // Takes the service's core with it: Run may outlive the service, and this object.
    explicit SFServiceMonitorRunnable(SFService* service);
    ~SFServiceMonitorRunnable() override;
    void Run() override;

private:
    SFService* m_pService;
    std::shared_ptr<ServiceCore> m_core;
};

#endif
