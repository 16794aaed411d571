#pragma once

#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXError.h"

#include <QString>

#include <functional>
#include <memory>

// Something that shows a file or folder to the user and wants to hear when others read, write,
// move or delete it: an open sheet, a library, a store's folder. Registered with the file
// coordinator, which calls these on the presenter's own queue. Every callback has a neutral
// default. Completion handlers must be called exactly once, from any thread; a writer waits
// for them (up to a limit) before it writes.
//
// A presenter of a folder hears of its subitems through the subitem callbacks; a presenter of a
// package (a folder whose path extension the coordinator was told is a package's) hears of any
// change inside as a change of the item, and the presenters above it hear of a change of the
// package.
class HXFilePresenter {
public:
    using CompletionHandler = std::function<void(const HXError *error)>;
    // Called once the presenter has given way: with a block that the coordinator calls when the
    // access is over.
    using Relinquisher = std::function<void(std::function<void()> reacquirer)>;

    virtual ~HXFilePresenter() = default;

    // The path presented: may change as the item moves.
    virtual QString presentedItemURL() const = 0;
    virtual std::shared_ptr<HXDispatchQueue> presentedItemOperationQueue() const = 0;

    virtual void relinquishPresentedItemToReader(Relinquisher reader) { reader({}); }
    virtual void relinquishPresentedItemToWriter(Relinquisher writer) { writer({}); }
    virtual void savePresentedItemChangesWithCompletionHandler(CompletionHandler handler) {
        handler(nullptr);
    }
    virtual void accommodatePresentedItemDeletionWithCompletionHandler(CompletionHandler handler) {
        handler(nullptr);
    }
    virtual void presentedItemDidMoveToURL(const QString &) {}
    virtual void presentedItemDidChange() {}

    virtual void presentedSubitemDidAppearAtURL(const QString &) {}
    virtual void presentedSubitemDidChangeAtURL(const QString &) {}
    virtual void presentedSubitemAtURL(const QString &, const QString &) {}
    virtual void accommodatePresentedSubitemDeletionAtURL(const QString &,
                                                          CompletionHandler handler) {
        handler(nullptr);
    }
};

using HXFilePresenterRef = std::shared_ptr<HXFilePresenter>;
