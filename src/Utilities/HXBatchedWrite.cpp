#include "Utilities/HXBatchedWrite.h"

HXBatchedWrite::HXBatchedWrite(std::chrono::milliseconds delay, std::function<void()> write,
                               std::shared_ptr<HXDispatchQueue> queue)
    : m_state(std::make_shared<State>())
    , m_delay(delay)
    , m_queue(std::move(queue)) {
    m_state->write = std::move(write);
}

HXBatchedWrite::~HXBatchedWrite() {
    // A write running on another thread finishes before the owner goes away.
    std::lock_guard lock(m_state->writing);
    m_state->write = nullptr;
}

bool HXBatchedWrite::noteChanged() {
    int expected = 0;
    if (!m_state->needsWrite.compare_exchange_strong(expected, 1))
        return false;
    m_queue->after(m_delay, [weak = std::weak_ptr<State>(m_state)] {
        if (const auto state = weak.lock())
            writeIfNeeded(*state);
    });
    return true;
}

bool HXBatchedWrite::writeIfNeeded() {
    return writeIfNeeded(*m_state);
}

bool HXBatchedWrite::writeIfNeeded(State &state) {
    std::lock_guard lock(state.writing);
    int expected = 1;
    if (!state.needsWrite.compare_exchange_strong(expected, 0))
        return false;
    if (state.write)
        state.write();
    return true;
}

bool HXBatchedWrite::isWritePending() const {
    return m_state->needsWrite.load() == 1;
}
