#pragma once

#include "Text/String/Access/HXMutableString.h"
#include "Utilities/HXReadWriteLock.h"

// The string a loaded sheet holds: a mutable string whose every operation runs under its
// reader-writer lock, so that the editor, the counters, the index and the exporters can use it at
// once. Readers run together, a writer alone; the lock may be taken again on a thread that holds
// it, but a write inside a read is an assertion. Its nodes, and strings nested in their
// attributes, take this string as their locking context, so one lock guards the whole tree.
// Enumeration blocks and observers run inside the lock: they must not wait for another thread
// that reads the string. `copy` gives an independent immutable tree for workers.
class HXAtomicString : public HXMutableString {
public:
    HXAtomicString() = default;

    static std::shared_ptr<HXAtomicString>
    stringWithMarkup(const std::shared_ptr<HXMarkup> &markup,
                     HXDefinitionSelector recognizedDefinitions = HXDefaultDefinitionSelector);

    void read(const std::function<void()> &block) override;
    void write(const std::function<void()> &block) override;
    HXReadWriteLock &lock() { return m_lock; }

private:
    HXReadWriteLock m_lock;
};

using HXAtomicStringRef = std::shared_ptr<HXAtomicString>;
