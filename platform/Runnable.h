#ifndef VORN_PLATFORM_RUNNABLE_H
#define VORN_PLATFORM_RUNNABLE_H

// The body of a platform Thread.
class Runnable {
public:
    virtual ~Runnable() {}
    virtual void Run() = 0;
};

#endif
