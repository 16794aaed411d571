#pragma once

#include <QMainWindow>
#include <QTimer>
#include <QVariantMap>

#include <memory>

class HXContainer;
class HXLibraryModel;
class HXLibrarySidebar;
class HXSheet;
class HXSheetHandle;
class HXSheetListModel;
class HXSheetListView;
class HXStatusLine;
class HXStorageController;
class HXTextView;
class QSplitter;

// The window a writer works in: the libraries with their groups, filters and trash on the left,
// the sheets of the chosen container in the middle, and the chosen sheet in the editor on the
// right with its word count and goal below. The open sheet is held here while it is shown;
// switching sheets or closing asks an edited sheet to save at once.
//
// Owned by its window controller; main thread.
class HXMainWindow : public QMainWindow {
    Q_OBJECT

public:
    explicit HXMainWindow(std::shared_ptr<HXStorageController> controller,
                          QWidget *parent = nullptr);
    ~HXMainWindow() override;

    HXLibraryModel *libraryModel() const { return m_libraryModel; }
    HXLibrarySidebar *sidebar() const { return m_sidebar; }
    HXSheetListModel *sheetListModel() const { return m_sheetListModel; }
    HXSheetListView *sheetList() const { return m_sheetList; }
    HXTextView *textView() const { return m_textView; }
    HXStatusLine *statusLine() const { return m_statusLine; }

    // Shows the container's sheets, its row selected in the sidebar.
    void selectContainer(const std::shared_ptr<HXContainer> &container);
    std::shared_ptr<HXContainer> selectedContainer() const;
    // Shows the sheet's container, selects the sheet there and opens it.
    void revealSheet(const std::shared_ptr<HXSheetHandle> &handle);
    // Opens the sheet in the editor (null closes it). False, with the reason shown, when it
    // cannot be read.
    bool openSheet(const std::shared_ptr<HXSheetHandle> &handle);
    std::shared_ptr<HXSheetHandle> openSheetHandle() const { return m_sheetHandle; }
    std::shared_ptr<HXSheet> openSheetDocument() const { return m_sheet; }
    // Sets or takes away the tag of the definition ("strong", "heading2") over the editor's
    // selection, as the open sheet's markup writes it; false (and a beep) where it has none.
    bool toggleDefinition(const QString &identifier);

    // What is restored at the next start: geometry, panes, the chosen container and sheet, the
    // selection and scroll position in the sheet.
    QVariantMap windowState() const;
    void restoreWindowState(const QVariantMap &state);

signals:
    // A sheet was opened in the editor (or the editor emptied).
    void sheetOpened();
    void closing();

protected:
    void closeEvent(QCloseEvent *event) override;

private:
    void buildMenus();
    void saveOpenSheetIfEdited();
    // The open sheet went to the trash (read-only from then on) or was deleted (closed).
    void followOpenSheet();

    std::shared_ptr<HXStorageController> m_controller;
    HXLibraryModel *m_libraryModel = nullptr;
    HXLibrarySidebar *m_sidebar = nullptr;
    HXSheetListModel *m_sheetListModel = nullptr;
    HXSheetListView *m_sheetList = nullptr;
    HXTextView *m_textView = nullptr;
    HXStatusLine *m_statusLine = nullptr;
    QSplitter *m_splitter = nullptr;
    QTimer m_previewPause;
    std::shared_ptr<HXSheetHandle> m_sheetHandle;
    std::shared_ptr<HXSheet> m_sheet;
};
