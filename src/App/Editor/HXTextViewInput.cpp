// The input side of HXTextView: selection, keys, mouse, input methods, clipboard and undo.

#include "App/Editor/HXTextView.h"
#include "App/Editor/HXTextViewPrivate.h"
#include "Text/String/Access/HXStringXML.h"
#include "Utilities/HXLineEnds.h"
#include "Utilities/HXUndoManager.h"

#include <QApplication>
#include <QClipboard>
#include <QInputMethod>
#include <QInputMethodEvent>
#include <QMimeData>
#include <QScrollBar>
#include <QTextBoundaryFinder>

namespace {

constexpr QChar objectReplacementCharacter(0xfffc);

bool isTypedText(const QKeyEvent *event) {
    if (event->modifiers() & (Qt::ControlModifier | Qt::MetaModifier))
        return false;
    const QString text = event->text();
    if (text.isEmpty())
        return false;
    for (const QChar character : text) {
        if (character.category() == QChar::Other_Control)
            return false;
    }
    return true;
}

} // namespace

// --- Selection -----------------------------------------------------------------------------------

HXRange HXTextView::selectedRange() const {
    return d->editor->selectedRange();
}

void HXTextView::setSelectedRange(HXRange range) {
    const quint64 length = d->storage->length();
    range.location = std::min(range.location, length);
    range.length = std::min(range.length, length - range.location);
    d->editor->setSelectedRange(range);
}

void HXTextView::selectAll() {
    d->selectionAnchor = 0;
    d->extendingSelection = true;
    d->editor->setSelectedRange(HXRange{0, d->storage->length()});
    d->extendingSelection = false;
}

void HXTextView::Private::selectionDidChange() {
    const HXRange selection = editor->selectedRange();
    if (!extendingSelection)
        selectionAnchor = selection.location;
    if (paintedSelection.length > 0 || selection.length > 0) {
        updateRange(HXUnionRange(paintedSelection, selection));
    } else {
        q->viewport()->update(paintedCaretRect.adjusted(-1, -1, 1, 1));
        q->viewport()->update(
            positionForIndex(selection.location).caret.toAlignedRect().adjusted(-1, -1, 1, 1));
    }
    const HXRange automatic = editor->autoInsertedRange();
    if (automatic != paintedAutoInsertion) {
        for (const HXRange range : {automatic, paintedAutoInsertion}) {
            if (!range.isNotFound())
                updateRange(range);
        }
    }
    if (scrollBarIsStale)
        syncScrollBar();
    if (q->hasFocus())
        QGuiApplication::inputMethod()->update(Qt::ImQueryInput);
    restartBlinking();
    Q_EMIT q->selectionDidChange();
}

quint64 HXTextView::Private::selectionHead() const {
    const HXRange selection = editor->selectedRange();
    if (selection.length == 0)
        return selection.location;
    return selection.location == selectionAnchor ? selection.max() : selection.location;
}

void HXTextView::Private::moveTo(quint64 index, bool extend, bool keepGoalX) {
    if (!keepGoalX)
        goalX.reset();
    index = std::min(index, storage->length());
    if (!extend) {
        editor->setSelectedRange(HXRange{index, 0});
        return;
    }
    const quint64 fixed = selectionAnchor;
    HXRange range{std::min(fixed, index), fixed > index ? fixed - index : index - fixed};
    if (range.length > 0)
        range = editor->actor().selectionRangeForProposedRange(range, editor->selectedRange());
    extendingSelection = true;
    editor->setSelectedRange(range);
    extendingSelection = false;
}

quint64 HXTextView::Private::characterStep(quint64 index, bool forward) const {
    const HXString &text = *storage->cachedContent();
    const quint64 length = text.length();
    if (forward) {
        if (index >= length)
            return length;
        const bool pair = index + 1 < length && text.characterAtIndex(index).isHighSurrogate() &&
                          text.characterAtIndex(index + 1).isLowSurrogate();
        return index + (pair ? 2 : 1);
    }
    if (index == 0)
        return 0;
    const bool pair = index >= 2 && text.characterAtIndex(index - 1).isLowSurrogate() &&
                      text.characterAtIndex(index - 2).isHighSurrogate();
    return index - (pair ? 2 : 1);
}

quint64 HXTextView::Private::wordStep(quint64 index, bool forward) {
    const Position position = positionForIndex(index);
    const QTextLayout &layout = *layouts.at(position.paragraph)->textLayout();
    const int length = int(layout.text().size());
    if (forward) {
        if (position.offset >= length)
            return characterStep(index, true);
        return position.paragraphLocation +
               quint64(layout.nextCursorPosition(position.offset, QTextLayout::SkipWords));
    }
    if (position.offset == 0)
        return characterStep(index, false);
    return position.paragraphLocation +
           quint64(layout.previousCursorPosition(position.offset, QTextLayout::SkipWords));
}

HXRange HXTextView::Private::wordRangeAtIndex(quint64 index) {
    const Position position = positionForIndex(index);
    const QString text = layouts.at(position.paragraph)->textLayout()->text();
    if (text.isEmpty())
        return HXRange{position.paragraphLocation, 0};
    QTextBoundaryFinder finder(QTextBoundaryFinder::Word, text);
    int offset = std::min(position.offset, int(text.size()) - 1);
    finder.setPosition(offset);
    const int start = finder.isAtBoundary() ? offset : int(finder.toPreviousBoundary());
    finder.setPosition(start);
    const int end = int(finder.toNextBoundary());
    if (start < 0 || end <= start)
        return HXRange{index, 0};
    return HXRange{position.paragraphLocation + quint64(start), quint64(end - start)};
}

void HXTextView::Private::restartBlinking() {
    caretVisible = true;
    if (q->hasFocus())
        blinkTimer.start();
}

void HXTextView::Private::afterUserEdit() {
    goalX.reset();
    q->scrollRangeToVisible(HXRange{selectionHead(), 0});
    restartBlinking();
}

// --- Keys ----------------------------------------------------------------------------------------

bool HXTextView::Private::overridesShortcut(QKeyEvent *event) const {
    for (const QKeySequence::StandardKey key :
         {QKeySequence::Undo, QKeySequence::Redo, QKeySequence::Copy, QKeySequence::Cut,
          QKeySequence::Paste, QKeySequence::SelectAll}) {
        if (event->matches(key))
            return true;
    }
    switch (event->key()) {
    case Qt::Key_Left:
    case Qt::Key_Right:
    case Qt::Key_Up:
    case Qt::Key_Down:
    case Qt::Key_Home:
    case Qt::Key_End:
    case Qt::Key_Backspace:
    case Qt::Key_Delete:
        return true;
    default:
        return isTypedText(event);
    }
}

void HXTextView::Private::moveVertically(int direction, bool extend) {
    const HXRange selection = editor->selectedRange();
    quint64 head = selectionHead();
    if (!extend && selection.length > 0)
        head = direction < 0 ? selection.location : selection.max();
    const Position position = positionForIndex(head);
    const qreal x = goalX.value_or(position.caret.x());
    quint64 target = 0;
    if (direction < 0 && position.isFirstLine && position.paragraph == 0)
        target = 0;
    else if (direction > 0 && position.isLastLine && position.paragraph == heights.count() - 1)
        target = storage->length();
    else
        target = indexForPoint(QPointF(x, direction < 0 ? position.lineRect.top() - 1
                                                        : position.lineRect.bottom() + 1));
    moveTo(target, extend, true);
    goalX = x;
    q->scrollRangeToVisible(HXRange{selectionHead(), 0});
}

void HXTextView::Private::movePage(int direction, bool extend) {
    const quint64 head = selectionHead();
    const Position position = positionForIndex(head);
    const qreal x = goalX.value_or(position.caret.x());
    const double screen = q->viewport()->height();
    scrollToContentY(viewTop() + direction * screen);
    relayoutAndRepaint();
    quint64 target = indexForPoint(QPointF(x, position.caret.center().y()));
    if (target == head)
        target = direction < 0 ? 0 : storage->length();
    moveTo(target, extend, true);
    goalX = x;
    q->scrollRangeToVisible(HXRange{selectionHead(), 0});
}

void HXTextView::keyPressEvent(QKeyEvent *event) {
    if (event->matches(QKeySequence::Undo))
        return undo();
    if (event->matches(QKeySequence::Redo))
        return redo();
    if (event->matches(QKeySequence::Copy))
        return copy();
    if (event->matches(QKeySequence::Cut))
        return cut();
    if (event->matches(QKeySequence::Paste))
        return paste();
    if (event->matches(QKeySequence::SelectAll))
        return selectAll();

    Private &p = *d;
    const bool extend = event->modifiers() & Qt::ShiftModifier;
    const bool control = event->modifiers() & Qt::ControlModifier;
    const bool editable = p.isEditable();
    const HXRange selection = p.editor->selectedRange();
    const quint64 head = p.selectionHead();
    switch (event->key()) {
    case Qt::Key_Left:
    case Qt::Key_Right: {
        const bool forward = event->key() == Qt::Key_Right;
        if (!extend && !control && selection.length > 0)
            p.moveTo(forward ? selection.max() : selection.location, false);
        else
            p.moveTo(control ? p.wordStep(head, forward) : p.characterStep(head, forward), extend);
        scrollRangeToVisible(HXRange{p.selectionHead(), 0});
        return;
    }
    case Qt::Key_Up:
    case Qt::Key_Down:
        p.moveVertically(event->key() == Qt::Key_Up ? -1 : 1, extend);
        return;
    case Qt::Key_PageUp:
    case Qt::Key_PageDown:
        p.movePage(event->key() == Qt::Key_PageUp ? -1 : 1, extend);
        return;
    case Qt::Key_Home:
    case Qt::Key_End: {
        const bool toEnd = event->key() == Qt::Key_End;
        quint64 target = toEnd ? p.storage->length() : 0;
        if (!control) {
            const Private::Position position = p.positionForIndex(head);
            const QTextLayout &layout = *p.layouts.at(position.paragraph)->textLayout();
            const QTextLine line = layout.lineAt(position.line);
            int offset = line.isValid() ? line.textStart() : 0;
            if (toEnd && line.isValid()) {
                offset += line.textLength();
                // A wrapped line ends in front of the blanks that it wraps at.
                while (!position.isLastLine && offset > line.textStart() &&
                       layout.text().at(offset - 1).isSpace())
                    --offset;
            }
            target = position.paragraphLocation + quint64(offset);
        }
        p.moveTo(target, extend);
        scrollRangeToVisible(HXRange{p.selectionHead(), 0});
        return;
    }
    case Qt::Key_Return:
    case Qt::Key_Enter:
        if (editable) {
            p.editor->insertNewline();
            p.afterUserEdit();
        }
        return;
    case Qt::Key_Backspace:
        if (editable) {
            p.editor->deleteBackward();
            p.afterUserEdit();
        }
        return;
    case Qt::Key_Delete:
        if (editable) {
            p.editor->deleteForward();
            p.afterUserEdit();
        }
        return;
    case Qt::Key_Tab:
        if (editable) {
            p.editor->insertTab();
            p.afterUserEdit();
        }
        return;
    case Qt::Key_Backtab:
        if (editable) {
            p.editor->insertBacktab();
            p.afterUserEdit();
        }
        return;
    default:
        break;
    }
    if (editable && isTypedText(event)) {
        p.editor->insertText(event->text());
        p.afterUserEdit();
        return;
    }
    QAbstractScrollArea::keyPressEvent(event);
}

// --- Input methods -------------------------------------------------------------------------------

void HXTextView::inputMethodEvent(QInputMethodEvent *event) {
    Private &p = *d;
    if (!p.isEditable()) {
        event->ignore();
        return;
    }
    const quint64 length = p.storage->length();
    if (!event->commitString().isEmpty() || event->replacementLength() > 0) {
        HXRange range = p.editor->selectedRange();
        if (event->replacementLength() > 0 || event->replacementStart() != 0) {
            const qint64 start = std::clamp<qint64>(
                qint64(range.location) + event->replacementStart(), 0, qint64(length));
            range = HXRange{quint64(start), std::min<quint64>(quint64(event->replacementLength()),
                                                              length - quint64(start))};
            p.editor->setSelectedRange(range);
        }
        if (!event->commitString().isEmpty())
            p.editor->insertText(event->commitString());
        else if (range.length > 0)
            p.editor->actor().performReplaceCharactersInRange(range, QString());
    }
    const QRect before = p.rectForRange(HXRange{p.editor->selectedRange().location, 0});
    p.preedit = event->preeditString();
    viewport()->update(before);
    p.afterUserEdit();
    event->accept();
}

QVariant HXTextView::inputMethodQuery(Qt::InputMethodQuery query) const {
    Private &p = *d;
    const HXRange selection = p.editor->selectedRange();
    switch (query) {
    case Qt::ImEnabled:
        return p.content != nullptr;
    case Qt::ImHints:
        return int(Qt::ImhMultiLine);
    case Qt::ImFont:
        return p.storage->font();
    case Qt::ImCursorRectangle: {
        const QRectF caret = p.positionForIndex(p.selectionHead()).caret;
        return QRectF(viewport()->mapTo(this, caret.topLeft().toPoint()), caret.size()).toRect();
    }
    case Qt::ImSurroundingText:
    case Qt::ImCursorPosition:
    case Qt::ImAnchorPosition: {
        const Private::Position position = p.positionForIndex(p.selectionHead());
        const QString text = p.layouts.at(position.paragraph)->textLayout()->text();
        if (query == Qt::ImSurroundingText)
            return text;
        if (query == Qt::ImCursorPosition)
            return position.offset;
        const qint64 anchor = qint64(p.selectionAnchor) - qint64(position.paragraphLocation);
        return int(std::clamp<qint64>(anchor, 0, text.size()));
    }
    case Qt::ImCurrentSelection:
        return p.storage->cachedContent()->flatSubstringWithRange(selection);
    default:
        return QAbstractScrollArea::inputMethodQuery(query);
    }
}

// --- Mouse ---------------------------------------------------------------------------------------

void HXTextView::mousePressEvent(QMouseEvent *event) {
    if (event->button() != Qt::LeftButton)
        return QAbstractScrollArea::mousePressEvent(event);
    if (!d->preedit.isEmpty())
        QGuiApplication::inputMethod()->commit();
    d->selectingWithMouse = true;
    d->selectingWords = false;
    d->moveTo(d->indexForPoint(event->position()), event->modifiers() & Qt::ShiftModifier);
}

void HXTextView::mouseMoveEvent(QMouseEvent *event) {
    if (!d->selectingWithMouse || !(event->buttons() & Qt::LeftButton))
        return QAbstractScrollArea::mouseMoveEvent(event);
    const quint64 index = d->indexForPoint(event->position());
    if (d->selectingWords) {
        const HXRange word = d->wordRangeAtIndex(index);
        const HXRange first = d->mouseWord;
        const bool before = word.location < first.location;
        d->selectionAnchor = before ? first.max() : first.location;
        d->moveTo(before ? word.location : std::max(word.max(), first.max()), true);
    } else {
        d->moveTo(index, true);
    }
    if (event->position().y() < 0 || event->position().y() > viewport()->height())
        scrollRangeToVisible(HXRange{d->selectionHead(), 0});
}

void HXTextView::mouseDoubleClickEvent(QMouseEvent *event) {
    if (event->button() != Qt::LeftButton)
        return QAbstractScrollArea::mouseDoubleClickEvent(event);
    const HXRange word = d->wordRangeAtIndex(d->indexForPoint(event->position()));
    d->mouseWord = word;
    d->selectingWithMouse = true;
    d->selectingWords = true;
    d->selectionAnchor = word.location;
    d->extendingSelection = true;
    d->editor->setSelectedRange(word);
    d->extendingSelection = false;
}

void HXTextView::mouseReleaseEvent(QMouseEvent *event) {
    d->selectingWithMouse = false;
    d->selectingWords = false;
    event->accept();
}

// --- Clipboard and undo --------------------------------------------------------------------------

void HXTextView::copy() {
    const HXRange selection = d->editor->selectedRange();
    if (selection.length == 0)
        return;
    const HXString &text = *d->storage->cachedContent();
    auto data = std::make_unique<QMimeData>();
    HXError error;
    const QByteArray xml = HXStringXML::pasteboardPropertyListForType(
        *text.stringWithRange(selection), stringPasteboardType, &error);
    if (!xml.isEmpty())
        data->setData(stringPasteboardType, xml);
    data->setText(text.flatSubstringWithRange(selection).remove(objectReplacementCharacter));
    QGuiApplication::clipboard()->setMimeData(data.release());
}

void HXTextView::cut() {
    const HXRange selection = d->editor->selectedRange();
    if (selection.length == 0 || !d->isEditable())
        return;
    copy();
    d->editor->commitAutomaticInsertion();
    if (d->editor->actor().performReplaceCharactersInRange(selection, QString()))
        d->editor->setSelectedRange(HXRange{selection.location, 0});
    d->afterUserEdit();
}

void HXTextView::paste() {
    if (!d->isEditable())
        return;
    const QMimeData *data = QGuiApplication::clipboard()->mimeData();
    if (!data)
        return;
    HXReplacement replacement;
    if (data->hasFormat(stringPasteboardType)) {
        HXError error;
        if (const auto string = HXStringXML::stringWithPasteboardPropertyList(
                data->data(stringPasteboardType), stringPasteboardType, d->content->markup(),
                &error))
            replacement = HXReplacement(string);
    }
    if (!replacement.string()) {
        if (!data->hasText())
            return;
        replacement = HXReplacement(HXStringByNormalizingLineEnds(data->text()));
    }
    const HXRange selection = d->editor->selectedRange();
    d->editor->commitAutomaticInsertion();
    if (d->editor->actor().performReplaceCharactersInRange(selection, replacement))
        d->editor->setSelectedRange(HXRange{selection.location + replacement.length(), 0});
    d->afterUserEdit();
}

void HXTextView::undo() {
    const auto manager = d->isEditable() ? d->content->undoManager() : nullptr;
    if (!manager || !manager->canUndo())
        return;
    d->editor->commitAutomaticInsertion();
    d->content->breakUndoCoalescing();
    d->storage->beginEditing();
    manager->undo();
    d->storage->endEditing();
    // What came back is selected; where something went, the caret stands.
    const HXRange edited = d->storage->userEditedRange();
    if (!edited.isNotFound())
        setSelectedRange(edited);
    d->afterUserEdit();
}

void HXTextView::redo() {
    const auto manager = d->isEditable() ? d->content->undoManager() : nullptr;
    if (!manager || !manager->canRedo())
        return;
    d->editor->commitAutomaticInsertion();
    d->storage->beginEditing();
    manager->redo();
    d->storage->endEditing();
    const HXRange edited = d->storage->userEditedRange();
    if (!edited.isNotFound())
        setSelectedRange(HXRange{edited.max(), 0});
    d->afterUserEdit();
}

bool HXTextView::isReadOnly() const {
    return d->readOnly;
}

void HXTextView::setReadOnly(bool readOnly) {
    d->readOnly = readOnly;
    setAttribute(Qt::WA_InputMethodEnabled, !readOnly);
}
