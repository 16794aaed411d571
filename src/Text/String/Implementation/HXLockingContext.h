#pragma once

#include <QString>

#include <functional>

class HXAttributeDictionary;

// The owner of a whole text tree: its lock, and the one told of changes made in place below it.
// A string reads and writes its nodes through it, so that one lock guards a sheet's text, nested
// strings included. Held weakly by every node and by the attributes of its elements.
class HXLockingContext {
public:
    virtual ~HXLockingContext() = default;

    virtual void read(const std::function<void()> &block) = 0;
    virtual void write(const std::function<void()> &block) = 0;
    // An attribute of an element in the tree is about to change in place, inside the write.
    virtual void attributeWillChange(const HXAttributeDictionary &attributes, const QString &key) {
        Q_UNUSED(attributes);
        Q_UNUSED(key);
    }
};
