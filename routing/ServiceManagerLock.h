#ifndef VORN_ROUTING_SERVICEMANAGERLOCK_H
#define VORN_ROUTING_SERVICEMANAGERLOCK_H

#include <shared_mutex>

// Not exported. Intake holds it shared while it uses the service manager; Release holds it
// exclusively while the manager and its services go away, so a command that arrives during
// shut-down never reaches a deleted service.
std::shared_mutex& ServiceManagerLifetimeLock();

#endif
