#ifndef VORN_IO_LOOPHANDOFF_H
#define VORN_IO_LOOPHANDOFF_H

// Not exported. The socket loop's side of a request that its own thread runs (see LoopIntake):
// when the request outlives its budget, the service's monitor asks the loop to go on in a fresh
// thread, so that a slow or hung handler never holds the other clients.
class LoopHandOff {
public:
    virtual ~LoopHandOff() = default;
    // Called at most once per run, on the monitor's thread, while the loop's thread is still in
    // the request. True when the loop went on elsewhere (a fresh thread took it, or the loop was
    // being stopped and simply ends): the old thread then leaves the loop without touching it
    // once the request is over. False when no thread could be made: the old thread goes on
    // serving after the request, as if nothing had been asked.
    virtual bool HandOff() = 0;
};

#endif
