#ifndef VORN_IO_LOOPINTAKE_H
#define VORN_IO_LOOPINTAKE_H

#include <memory>

class LoopHandOff;

// Not exported. Where the host lets it, the socket loop's thread runs a command for a service
// that has nothing to do, instead of waking that service's request thread: a test station that
// sends one command at a time then pays for no thread wake-up at all. The loop opens an intake
// around the delivery of each transmission; the engine, taking the command in, may hold its
// request there instead of queueing it. The loop runs what is held once it is done with the
// transmission, so that no state of the round is in use while the request runs, and hands
// itself to a fresh thread if the request outlives the budget.
class LoopIntake {
public:
    // A request held for the loop's thread, implemented by the engine. Exactly one of the two
    // is called.
    class Held {
    public:
        // Runs the request on the calling thread. False when the loop was handed on meanwhile:
        // the caller then leaves the loop at once.
        virtual bool RunOnLoop(const std::shared_ptr<LoopHandOff>& handOff, int budgetMicros) = 0;
        // The request is not run (the loop stops, say); it is dropped as a queued one would be.
        virtual void DropFromLoop() = 0;

    protected:
        ~Held() = default;
    };

    // Opens the calling thread's intake when budgetMicros > 0; otherwise nothing is held.
    explicit LoopIntake(int budgetMicros);
    ~LoopIntake();
    LoopIntake(const LoopIntake&) = delete;
    LoopIntake& operator=(const LoopIntake&) = delete;

    // The calling thread's open intake when it holds nothing yet; null elsewhere (a handler's
    // own internal requests, any other thread).
    static LoopIntake* Current();
    int BudgetMicros() const { return m_nBudgetMicros; }
    bool Holds() const { return m_pHeld != nullptr; }
    // `keep` keeps the implementation alive until the request has run or been dropped.
    void Hold(Held* request, std::shared_ptr<void> keep);
    // Closes the intake and runs what it holds. False when the loop was handed on meanwhile.
    bool RunHeld(const std::shared_ptr<LoopHandOff>& handOff);

private:
    const int m_nBudgetMicros;
    LoopIntake* m_pPrevious;
    Held* m_pHeld = nullptr;
    std::shared_ptr<void> m_keep;
};

#endif
