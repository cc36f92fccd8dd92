#include "service/ServiceThread.h"

#include "platform/LogMessage.h"
#include "service/SFService.h"
#include "service/SFServiceMonitorRunnable.h"
#include "service/SFServiceRequestRunnable.h"
#include "service/SFServiceResponseRunnable.h"
#include "service/ServiceCore.h"

int ServiceThread::Start() {
    switch (kind) {
        case RESPONSE_THREAD:
            runnable = new SFServiceResponseRunnable(service);
            break;
        case REQUEST_THREAD:
            runnable = new SFServiceRequestRunnable(service);
            break;
        case MONITOR_THREAD:
            runnable = new SFServiceMonitorRunnable(service);
            break;
        default:
            return 1001;
    }
    // Counted before it exists: the service's destruction waits until it is out again.
    ServiceCore* core = service->Core();
    core->ThreadStarting();
    thread = new Thread(runnable);
    if (thread->Start() < 0) {
        core->ThreadEnded();
        LogMessage(4, "VORN", "Start").stream()
            << service->GetServiceName() << " Fail to start Service Thread.";
        // The holder stays attached to the service, but with nothing left to delete twice.
        delete thread;
        delete runnable;
        thread = nullptr;
        runnable = nullptr;
        return 1001;
    }
    return 0;
}
