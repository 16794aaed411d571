#pragma once

#include "Model/Operations/HXStorageOperation.h"

#include <QStringList>

#include <atomic>
#include <functional>
#include <memory>

class HXContainer;
class HXSheet;
class HXSheetHandle;
class HXStorageItem;

// What a main window does that needs no widgets: opening files (those of a library become its
// nodes, the others are imported), and copying the built-in "Introduction" and "Release Notes"
// into the library. The window of the application derives from it and shows the results; this
// base shows nothing, which serves a run without a screen and the tests.
class HXWindowController : public std::enable_shared_from_this<HXWindowController>,
                           public HXContainerOperationDelegate {
public:
    using Items = QList<std::shared_ptr<HXStorageItem>>;
    // Whether all went well, the sheet to select first and the container it came with.
    using FirstSelectionHandler =
        std::function<void(bool success, const std::shared_ptr<HXStorageItem> &selection,
                           const std::shared_ptr<HXContainer> &container)>;

    HXWindowController() = default;
    ~HXWindowController() override = default;

    // The folder that holds "Introduction" and "Release Notes"; the application's resources
    // unless set (tests set it).
    static QString bundledContentFolder();
    static void setBundledContentFolder(const QString &folder);

    // --- Opening files --------------------------------------------------------------------------
    // Once the library is loaded: files inside a library are the items, the others are imported
    // into the synced library's default group when it is active, else the local library's. The
    // completion gets the items, on the main thread.
    void openFileURLs(const QStringList &urls, std::function<void(const Items &)> completion);

    // --- Built-in content -----------------------------------------------------------------------
    // On a first launch (or always when forced): release notes not yet copied and, unless copied
    // before, the introduction; then the first sheet is revealed, or the failure shown.
    void restoreIntroductionIfNeeded(bool force);
    void restoreIntroduction() { restoreIntroductionIfNeeded(true); }
    void restoreBundledDocumentsIfNeeded(bool force, FirstSelectionHandler handler);
    // Copies the release notes numbered above `version`; several go into a group of their own.
    // The handler gets the joint success, the last sheet to select and the last number copied.
    void restoreReleaseNotesStartingWithVersion(
        quint64 version,
        const std::function<void(bool, const std::shared_ptr<HXStorageItem> &, quint64)> &handler);
    bool restoreIntroductionWithFirstSelectionHandler(const FirstSelectionHandler &handler);
    // Copies the small library at `url` into `target` (its groups, then its loose sheets into the
    // library's default group); blocks until the copies are done. Not on the main thread.
    bool restoreFilesFromURL(const QString &url, const std::shared_ptr<HXContainer> &target,
                             std::shared_ptr<HXStorageItem> *selection,
                             std::shared_ptr<HXContainer> *container);
    static std::shared_ptr<HXContainer> targetContainerForBundledDocuments();

    // Operations of this window that put items into containers, still running.
    int containerOperationsCount() const { return m_containerOperationsCount.load(); }

    // --- What the window shows (nothing here) ----------------------------------------------------
    virtual void show() {}
    virtual void revealContainersAndSheetsHandles(const Items &items) { m_revealed = items; }
    virtual void selectContainer(const std::shared_ptr<HXContainer> &) {}
    // The built-in content has been dealt with: copied, found copied before, or missing.
    virtual void bundledContentDidSettle() {}
    virtual void handleWriteError(const std::shared_ptr<HXSheet> &sheet, const HXError &error);
    virtual void showIntroductionMissingAlert();
    void containerOperationFailedOnError(HXContainerOperation &operation,
                                         const HXError &error) override;

    // The items revealed last.
    Items revealedItems() const { return m_revealed; }

private:
    Items m_revealed;
    std::atomic<int> m_containerOperationsCount = 0;
};
