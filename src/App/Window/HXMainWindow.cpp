#include "App/Window/HXMainWindow.h"

#include "App/Editor/HXTextView.h"
#include "App/Library/HXLibraryModel.h"
#include "App/Library/HXLibrarySidebar.h"
#include "App/Library/HXSheetListModel.h"
#include "App/Library/HXSheetListView.h"
#include "App/Window/HXStatusLine.h"
#include "AppCore/HXApplicationDelegate.h"
#include "AppCore/HXApplicationState.h"
#include "AppCore/HXWindowController.h"
#include "Model/Persistence/HXStorageController.h"
#include "Model/Sheets/HXSheet.h"
#include "Model/StorageTree/HXContainer.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXLocalizedString.h"

#include <QApplication>
#include <QCloseEvent>
#include <QMenuBar>
#include <QMessageBox>
#include <QPointer>
#include <QScrollBar>
#include <QSplitter>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace {

QString text(const char *key) {
    return HXLocalizedString(QString::fromLatin1(key), QStringLiteral("HXMainWindow"));
}

} // namespace

HXMainWindow::HXMainWindow(std::shared_ptr<HXStorageController> controller, QWidget *parent)
    : QMainWindow(parent)
    , m_controller(std::move(controller)) {
    setWindowTitle(QStringLiteral("Velmora"));
    setAttribute(Qt::WA_DeleteOnClose, false);

    m_libraryModel = new HXLibraryModel(m_controller, this);
    m_sidebar = new HXLibrarySidebar(this);
    m_sidebar->setModel(m_libraryModel);
    m_sheetListModel = new HXSheetListModel(this);
    m_sheetList = new HXSheetListView(this);
    m_sheetList->setModel(m_sheetListModel);

    auto *editorPane = new QWidget(this);
    auto *editorLayout = new QVBoxLayout(editorPane);
    editorLayout->setContentsMargins(0, 0, 0, 0);
    editorLayout->setSpacing(0);
    m_textView = new HXTextView(editorPane);
    m_statusLine = new HXStatusLine(editorPane);
    editorLayout->addWidget(m_textView, 1);
    editorLayout->addWidget(m_statusLine);

    m_splitter = new QSplitter(Qt::Horizontal, this);
    m_splitter->addWidget(m_sidebar);
    m_splitter->addWidget(m_sheetList);
    m_splitter->addWidget(editorPane);
    m_splitter->setStretchFactor(0, 0);
    m_splitter->setStretchFactor(1, 0);
    m_splitter->setStretchFactor(2, 1);
    m_splitter->setSizes({220, 280, 700});
    m_splitter->setChildrenCollapsible(false);
    setCentralWidget(m_splitter);

    connect(m_sidebar, &HXLibrarySidebar::containerSelected, this,
            [this](const std::shared_ptr<HXContainer> &container) {
                if (container != m_sheetListModel->container())
                    m_sheetListModel->setContainer(container);
            });
    connect(m_sheetList, &HXSheetListView::sheetSelected, this,
            [this](const std::shared_ptr<HXSheetHandle> &handle) {
                if (handle)
                    openSheet(handle);
            });
    connect(m_textView, &HXTextView::textDidChange, m_statusLine, &HXStatusLine::noteTextDidChange);
    // The open sheet trashed or deleted, here or by another process.
    connect(m_sheetListModel, &QAbstractItemModel::rowsRemoved, this,
            &HXMainWindow::followOpenSheet, Qt::QueuedConnection);
    connect(m_sheetListModel, &QAbstractItemModel::modelReset, this, &HXMainWindow::followOpenSheet,
            Qt::QueuedConnection);
    // The sheet's title and preview in the list follow its text once typing pauses.
    m_previewPause.setSingleShot(true);
    m_previewPause.setInterval(1000);
    connect(m_textView, &HXTextView::textDidChange, &m_previewPause, qOverload<>(&QTimer::start));
    connect(&m_previewPause, &QTimer::timeout, this, [this] {
        if (m_sheetHandle)
            m_sheetListModel->reloadPreviewOfSheetHandle(m_sheetHandle);
    });
    buildMenus();
    resize(1280, 800);
}

HXMainWindow::~HXMainWindow() {
    saveOpenSheetIfEdited();
    if (m_sheet)
        m_sheet->removePropertyObserver(this);
}

void HXMainWindow::buildMenus() {
    QMenu *file = menuBar()->addMenu(text("FileMenu"));
    file->addAction(text("NewSheet"), QKeySequence::New, m_sheetList, &HXSheetListView::newSheet);
    file->addAction(text("NewGroup"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_N), m_sidebar,
                    &HXLibrarySidebar::newGroup);
    file->addAction(text("NewFilter"), m_sidebar, &HXLibrarySidebar::newFilter);
    file->addSeparator();
    file->addAction(text("MoveToTrash"), QKeySequence(Qt::CTRL | Qt::Key_Backspace), m_sheetList,
                    &HXSheetListView::trashSelectedSheets);
    file->addSeparator();
    file->addAction(text("Quit"), QKeySequence::Quit, this, [] {
        if (auto *delegate = HXApplicationDelegate::sharedInstance())
            delegate->requestTermination();
        else
            QApplication::quit();
    });

    QMenu *edit = menuBar()->addMenu(text("EditMenu"));
    edit->addAction(text("Undo"), QKeySequence::Undo, m_textView, &HXTextView::undo);
    edit->addAction(text("Redo"), QKeySequence::Redo, m_textView, &HXTextView::redo);
    edit->addSeparator();
    edit->addAction(text("Cut"), QKeySequence::Cut, m_textView, &HXTextView::cut);
    edit->addAction(text("Copy"), QKeySequence::Copy, m_textView, &HXTextView::copy);
    edit->addAction(text("Paste"), QKeySequence::Paste, m_textView, &HXTextView::paste);
    edit->addAction(text("SelectAll"), QKeySequence::SelectAll, m_textView, &HXTextView::selectAll);
    // The editor handles its own keys; the menu's shortcuts would steal them from it.
    for (QAction *action : edit->actions())
        action->setShortcutContext(Qt::WidgetShortcut);

    // Tags by their meaning: the open sheet's markup says how each is written.
    QMenu *format = menuBar()->addMenu(text("FormatMenu"));
    const struct {
        const char *title;
        const char *definition;
        QKeySequence shortcut;
    } tags[] = {
        {"Strong", "strong", QKeySequence::Bold},
        {"Emphasis", "emph", QKeySequence::Italic},
        {"Heading1", "heading1", QKeySequence(Qt::CTRL | Qt::Key_1)},
        {"Heading2", "heading2", QKeySequence(Qt::CTRL | Qt::Key_2)},
        {"Heading3", "heading3", QKeySequence(Qt::CTRL | Qt::Key_3)},
        {"Quote", "blockquote", QKeySequence(Qt::CTRL | Qt::Key_Apostrophe)},
        {"BulletedList", "unorderedList", QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_8)},
        {"NumberedList", "orderedList", QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_7)},
    };
    for (const auto &tag : tags) {
        const QString definition = QString::fromLatin1(tag.definition);
        QAction *action = format->addAction(text(tag.title), tag.shortcut, this,
                                            [this, definition] { toggleDefinition(definition); });
        action->setObjectName(u"format."_s + definition);
    }
    format->addSeparator();
    format->addAction(text("RemoveTags"), this, [this] {
        if (m_textView->content() && !m_textView->isReadOnly())
            m_textView->editor().actor().removeAllTagsInSelection();
    });

    QMenu *help = menuBar()->addMenu(text("HelpMenu"));
    help->addAction(text("RestoreIntroduction"), this, [] {
        if (auto *delegate = HXApplicationDelegate::sharedInstance())
            delegate->restoreIntroduction();
    });
}

bool HXMainWindow::toggleDefinition(const QString &identifier) {
    const auto content = m_textView->content();
    if (!content || m_textView->isReadOnly())
        return false;
    const auto markup = content->markup();
    HXTextTagRef tag = markup->defaultTagWithIdentifier(identifier);
    if (!tag)
        tag = markup->allTagsWithIdentifier(identifier).value(0);
    if (!tag || !m_textView->editor().toggleTag(tag)) {
        QApplication::beep();
        return false;
    }
    return true;
}

void HXMainWindow::selectContainer(const std::shared_ptr<HXContainer> &container) {
    if (!container)
        return;
    const QModelIndex index = m_libraryModel->indexForContainer(container);
    if (index.isValid()) {
        m_sidebar->scrollTo(index);
        m_sidebar->setCurrentIndex(index);
    }
    if (m_sheetListModel->container() != container)
        m_sheetListModel->setContainer(container);
}

std::shared_ptr<HXContainer> HXMainWindow::selectedContainer() const {
    return m_sheetListModel->container();
}

void HXMainWindow::revealSheet(const std::shared_ptr<HXSheetHandle> &handle) {
    if (!handle)
        return;
    // Stay in the chosen container when the sheet is shown there (a filter, a parent group).
    if (!m_sheetListModel->indexForSheetHandle(handle).isValid())
        selectContainer(handle->parent());
    const QModelIndex row = m_sheetListModel->indexForSheetHandle(handle);
    if (row.isValid()) {
        m_sheetList->setCurrentIndex(row);
        m_sheetList->scrollTo(row);
    }
    openSheet(handle);
}

bool HXMainWindow::openSheet(const std::shared_ptr<HXSheetHandle> &handle) {
    if (handle == m_sheetHandle && (m_sheet || !handle))
        return true;
    saveOpenSheetIfEdited();
    std::shared_ptr<HXSheet> sheet = handle ? handle->loadSheetIfNeeded() : nullptr;
    if (handle && !sheet) {
        const auto error = handle->lastReadError();
        // Not modal: a run without a screen must not wait for a click.
        auto *box = new QMessageBox(QMessageBox::Warning, text("OpenFailedTitle"),
                                    error ? error->localizedDescription()
                                          : text("OpenFailedText").arg(handle->URL()),
                                    QMessageBox::Ok, this);
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->open();
        return false;
    }
    if (m_sheet)
        m_sheet->removePropertyObserver(this);
    m_sheetHandle = handle;
    m_sheet = sheet;
    if (sheet) {
        // The document hears first when another process deletes or replaces its package.
        const QPointer<HXMainWindow> window(this);
        sheet->addPropertyObserver(this, [window](HXDocument::Property property) {
            if (property == HXDocument::Property::DocumentIsOpen)
                QMetaObject::invokeMethod(window, &HXMainWindow::followOpenSheet,
                                          Qt::QueuedConnection);
        });
    }
    m_textView->setContent(sheet ? sheet->text() : nullptr);
    // A sheet in the trash is read, not written.
    m_textView->setReadOnly(handle && !handle->isEditable());
    m_statusLine->setSheet(handle, sheet);
    emit sheetOpened();
    return true;
}

void HXMainWindow::followOpenSheet() {
    if (!m_sheetHandle)
        return;
    if (!m_sheetHandle->isAlive() || (m_sheet && !m_sheet->documentIsOpen())) {
        // Deleted: nothing typed now could be kept.
        openSheet(nullptr);
        return;
    }
    m_textView->setReadOnly(!m_sheetHandle->isEditable());
}

void HXMainWindow::saveOpenSheetIfEdited() {
    if (m_sheet && m_sheet->hasUnsavedChanges())
        m_sheet->autosaveWithCompletionHandler([](bool) {});
}

QVariantMap HXMainWindow::windowState() const {
    QVariantMap state;
    state.insert(QStringLiteral("geometry"), saveGeometry());
    state.insert(QStringLiteral("panes"), m_splitter->saveState());
    if (const auto container = selectedContainer())
        state.insert(QStringLiteral("container"),
                     m_controller->persistentObjectForContainer(container));
    if (m_sheetHandle) {
        state.insert(QStringLiteral("sheet"),
                     m_controller->persistentObjectForSheetHandle(m_sheetHandle));
        const HXRange selection = m_textView->selectedRange();
        state.insert(QStringLiteral("selection"),
                     QVariantList{qulonglong(selection.location), qulonglong(selection.length)});
        state.insert(QStringLiteral("scrollParagraph"),
                     qulonglong(m_textView->firstVisibleParagraphLocation()));
    }
    return state;
}

void HXMainWindow::restoreWindowState(const QVariantMap &state) {
    restoreGeometry(state.value(QStringLiteral("geometry")).toByteArray());
    m_splitter->restoreState(state.value(QStringLiteral("panes")).toByteArray());
    if (const auto container =
            m_controller->containerForPersistentObject(state.value(QStringLiteral("container"))))
        selectContainer(container);
    const auto handle =
        m_controller->sheetHandleForPersistentObject(state.value(QStringLiteral("sheet")));
    if (!handle || !handle->isAlive())
        return;
    revealSheet(handle);
    if (m_sheetHandle != handle)
        return;
    const quint64 length = m_textView->textStorage().length();
    const QVariantList selection = state.value(QStringLiteral("selection")).toList();
    if (selection.size() == 2) {
        const quint64 location = std::min<quint64>(selection.at(0).toULongLong(), length);
        const quint64 selected =
            std::min<quint64>(selection.at(1).toULongLong(), length - location);
        m_textView->setSelectedRange(HXRange{location, selected});
    }
    m_textView->scrollToParagraphLocation(
        std::min<quint64>(state.value(QStringLiteral("scrollParagraph")).toULongLong(), length));
}

void HXMainWindow::closeEvent(QCloseEvent *event) {
    saveOpenSheetIfEdited();
    emit closing();
    event->accept();
}
