#ifndef VORN_SERVICE_SFSERVICERESPONSERUNNABLE_H
#define VORN_SERVICE_SFSERVICERESPONSERUNNABLE_H

#include <cstdint>
#include <memory>

#include "platform/Runnable.h"

class SFService;
class ServiceCore;

class SFServiceResponseRunnable : public Runnable {
public:
    // Takes the service's core with it: Run may outlive the service, and this object.
    explicit SFServiceResponseRunnable(SFService* service);
    ~SFServiceResponseRunnable() override;
    void Run() override;

private:
    SFService* m_pService;
    std::shared_ptr<ServiceCore> m_core;
};

#endif
