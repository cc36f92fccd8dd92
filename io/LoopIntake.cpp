#include "io/LoopIntake.h"

#include <utility>

#include "io/LoopHandOff.h"

namespace {
// The open intake of the calling thread (the socket loop's, during one delivery).
thread_local LoopIntake* t_intake = nullptr;
}  // namespace

LoopIntake::LoopIntake(int budgetMicros)
    : m_nBudgetMicros(budgetMicros > 0 ? budgetMicros : 0), m_pPrevious(t_intake) {
    if (m_nBudgetMicros > 0) t_intake = this;
}

LoopIntake::~LoopIntake() {
    if (t_intake == this) t_intake = m_pPrevious;
    if (m_pHeld) m_pHeld->DropFromLoop();
}

LoopIntake* LoopIntake::Current() {
    LoopIntake* intake = t_intake;
    return intake && !intake->m_pHeld ? intake : nullptr;
}

void LoopIntake::Hold(Held* request, std::shared_ptr<void> keep) {
    m_pHeld = request;
    m_keep = std::move(keep);
}

bool LoopIntake::RunHeld(const std::shared_ptr<LoopHandOff>& handOff) {
    // Closed first: what the request itself takes in (an internal request of its handler) is
    // queued as usual.
    if (t_intake == this) t_intake = m_pPrevious;
    Held* held = m_pHeld;
    m_pHeld = nullptr;
    const std::shared_ptr<void> keep = std::move(m_keep);
    return held ? held->RunOnLoop(handOff, m_nBudgetMicros) : true;
}
