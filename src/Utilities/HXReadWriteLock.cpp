#include "Utilities/HXReadWriteLock.h"

#include <utility>
#include <vector>

namespace {

// This thread's marker: the locks it is inside of, with what it holds of each.
thread_local std::vector<std::pair<const HXReadWriteLock *, HXReadWriteLock::Mode>> t_held;

} // namespace

HXReadWriteLock::HXReadWriteLock()
    : m_key(QStringLiteral("HXReadWriteLock.0x%1").arg(quintptr(this), 0, 16)) {
    m_queue = HXDispatchQueue::create(m_key, HXDispatchQueue::Kind::Concurrent);
}

HXReadWriteLock::Mode HXReadWriteLock::currentMode() const {
    for (auto it = t_held.rbegin(); it != t_held.rend(); ++it) {
        if (it->first == this)
            return it->second;
    }
    return Mode::None;
}

HXReadWriteLock::Marker::Marker(const HXReadWriteLock *lock, Mode mode)
    : m_lock(lock) {
    t_held.emplace_back(lock, mode);
}

HXReadWriteLock::Marker::~Marker() {
    for (auto it = t_held.rbegin(); it != t_held.rend(); ++it) {
        if (it->first == m_lock) {
            t_held.erase(std::next(it).base());
            return;
        }
    }
}

void HXReadWriteLock::raiseWriteWithinRead() {
    HXRaiseAssertion(QStringLiteral("Recursive call to write operation within a read operation"));
}
