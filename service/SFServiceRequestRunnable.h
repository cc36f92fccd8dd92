#ifndef VORN_SERVICE_SFSERVICEREQUESTRUNNABLE_H
#define VORN_SERVICE_SFSERVICEREQUESTRUNNABLE_H

#include <cstdint>
#include <memory>

#include "platform/Runnable.h"

class SFService;
class ServiceCore;

class SFServiceRequestRunnable : public Runnable {
public:
    // Takes the service's core with it: Run may outlive the service, and this object.
    explicit SFServiceRequestRunnable(SFService* service);
    ~SFServiceRequestRunnable() override;
    void Run() override;

private:
    SFService* m_pService;
    std::shared_ptr<ServiceCore> m_core;
    uint64_t m_nGeneration;  // the request thread it runs; a newer one retires it
};

#endif
