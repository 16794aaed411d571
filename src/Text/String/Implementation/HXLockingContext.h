#pragma once

#include <functional>

// The owner of the lock of a whole text tree. A string reads and writes its nodes through it, so
// that one lock guards a sheet's text, nested strings included. Held weakly by every node.
class HXLockingContext {
public:
    virtual ~HXLockingContext() = default;

    virtual void read(const std::function<void()> &block) = 0;
    virtual void write(const std::function<void()> &block) = 0;
};
