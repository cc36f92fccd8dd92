#ifndef VORN_SERVICE_SERVICETHREAD_H
#define VORN_SERVICE_SERVICETHREAD_H

#include "platform/Runnable.h"
#include "platform/Thread.h"

class SFService;

enum ServiceThreadKind { MONITOR_THREAD = 0, REQUEST_THREAD = 1, RESPONSE_THREAD = 2 };

// Ties one worker thread to its service.
struct ServiceThread {
    Thread* thread;
    Runnable* runnable;
    SFService* service;
    int kind;

    // 0, or 1001 when the thread cannot start.
    int Start();
};

#endif
