#include "TextSystem/Components/HXTextStorage.h"

#include "Text/String/Atoms/HXEscapeAtom.h"
#include "Text/String/Atoms/HXTextAtom.h"
#include "TextSystem/Colors/HXColorPalette.h"
#include "TextSystem/Themes/HXTheme.h"
#include "TextSystem/Themes/HXThemeItem.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDispatchQueue.h"

namespace {

// The whole chunks of a string that a range touches; an empty range the chunk at its location,
// or the last one at the end.
HXRange wholeChunks(const HXChunkString &string, HXRange range) {
    const quint64 length = string.length();
    if (length == 0)
        return HXRange{0, 0};
    if (range.location >= length)
        range = HXRange{length - 1, 1};
    else if (range.length == 0)
        range.length = 1;
    range.length = std::min(range.length, length - range.location);
    return string.chunkRangeForRange(range);
}

bool isKey(const HXChunkString &string, quint64 index) {
    return index == string.length() || string.chunkIndexGreaterThanOrEqualToIndex(index) == index;
}

QColor blend(const QColor &from, const QColor &to, double fraction) {
    const double keep = 1 - fraction;
    return QColor::fromRgbF(float(from.redF() * keep + to.redF() * fraction),
                            float(from.greenF() * keep + to.greenF() * fraction),
                            float(from.blueF() * keep + to.blueF() * fraction),
                            float(from.alphaF() * keep + to.alphaF() * fraction));
}

} // namespace

QColor HXTextColor::colorForMode(quint64 mode) const {
    const QColor &color = mode == 1 ? dark : light;
    if (fading <= 0)
        return color;
    return blend(color, mode == 1 ? darkBackground : lightBackground, fading);
}

HXTextStorage::HXTextStorage() {
    updateBaseColors();
}

HXTextStorage::~HXTextStorage() = default;

// --- Content -------------------------------------------------------------------------------

void HXTextStorage::setContent(const std::shared_ptr<HXMutableString> &content) {
    if (m_content)
        m_content->removeStringObserver(shared_from_this());
    m_content = content;
    if (!m_content) {
        rebuildCacheFromString(std::make_shared<HXString>());
        return;
    }
    m_content->addStringObserver(shared_from_this());
    rebuildCacheFromString(m_content->copy());
}

void HXTextStorage::replaceCharactersInRange(HXRange range, const QString &string) {
    replaceCharactersInRange(range, HXReplacement(string));
}

void HXTextStorage::replaceCharactersInRange(HXRange range, const HXReplacement &string) {
    if (m_content)
        m_content->replaceCharactersInRange(range, string);
}

void HXTextStorage::setAttributes(const QTextCharFormat &format, HXRange range) {
    if (!m_isFixingAttributes || !m_contentCache)
        return;
    // Fixing may only set what the runs already say, for the range's paragraphs.
    for (quint64 index = range.location; index < range.max();) {
        HXRange paragraph;
        styleRunsForParagraphAtIndex(index, &paragraph);
        auto found = m_styleCache.find(m_contentCache->chunkAtIndex(paragraph.location).object());
        if (found != m_styleCache.end()) {
            for (HXStyleRun &run : found->second.runs) {
                const HXRange runRange{paragraph.location + run.location, run.length};
                if (range.containsRange(runRange))
                    run.format = sharedFormat(format);
            }
        }
        if (paragraph.max() <= index)
            break;
        index = paragraph.max();
    }
}

void HXTextStorage::fixAttributesInRange(HXRange range) {
    m_isFixingAttributes = true;
    // The runs are whole by construction: fonts are chosen when they are built.
    Q_UNUSED(range);
    m_isFixingAttributes = false;
}

void HXTextStorage::beginEditing() {
    if (m_editingLevel++ == 0) {
        m_userEditedRange = HXNotFoundRange();
        m_userChangeInLength = 0;
    }
}

void HXTextStorage::endEditing() {
    HX_ASSERT(m_editingLevel > 0, u"Unbalanced endEditing.");
    --m_editingLevel;
}

void HXTextStorage::addEditedRange(HXRange replacement, qint64 changeInLength) {
    if (m_userEditedRange.isNotFound() || m_editingLevel == 0) {
        m_userEditedRange = replacement;
        m_userChangeInLength = changeInLength;
        return;
    }
    const HXRange old = m_userEditedRange;
    if (replacement.location > old.max()) {
        m_userEditedRange = HXUnionRange(old, replacement);
    } else if (replacement.max() < old.location) {
        const HXRange shifted{quint64(qint64(old.location) + changeInLength), old.length};
        m_userEditedRange = HXUnionRange(shifted, replacement);
    } else {
        const quint64 overlap = HXIntersectionRange(old, replacement).length;
        m_userEditedRange = HXRange{std::min(old.location, replacement.location),
                                    replacement.length + old.length - overlap};
    }
    m_userChangeInLength += changeInLength;
}

// --- Following the content -------------------------------------------------------------------

void HXTextStorage::stringChangedCharactersInRange(HXString &string, HXRange range,
                                                   const HXReplacement &replacement,
                                                   HXRange editedRange, HXRange affectedRange,
                                                   HXRange replacementRange) {
    Q_UNUSED(replacement);
    Q_UNUSED(editedRange);
    Q_UNUSED(affectedRange);
    ++m_contentChangeCount;
    const std::weak_ptr<HXTextStorage> weakSelf = weak_from_this();
    auto onMain = [&](const std::function<void(HXTextStorage &)> &work) {
        if (HXDispatchQueue::isMainThread()) {
            work(*this);
            return;
        }
        HXDispatchQueue::mainQueue()->sync([&] {
            if (const auto self = weakSelf.lock())
                work(*self);
        });
    };
    if (range.isNotFound()) {
        const std::shared_ptr<HXString> copy = string.copy();
        onMain([&](HXTextStorage &storage) { storage.rebuildCacheFromString(copy); });
        return;
    }

    // The whole paragraphs around the change, in the twin (old coordinates) and in the string
    // (new ones). The twin is changed on the main thread only, and only from here, so reading
    // it while the string's writer waits is safe.
    const HXChunkString &cache = *m_contentCache;
    const quint64 oldTotal = cache.length();
    const quint64 newTotal = string.HXChunkString::length();
    const qint64 delta = qint64(newTotal) - qint64(oldTotal);
    const HXRange oldWhole = wholeChunks(cache, range);
    const HXRange newWhole = wholeChunks(string, replacementRange);
    quint64 start = std::min(oldWhole.location, newWhole.location);
    quint64 oldEnd = std::max<qint64>(qint64(oldWhole.max()), qint64(newWhole.max()) - delta);
    oldEnd = std::min(oldEnd, oldTotal);
    for (int guard = 0; guard < 64; ++guard) {
        bool settled = true;
        if (!isKey(cache, start)) {
            start = cache.chunkIndexLessThanIndex(start);
            settled = false;
        }
        if (!isKey(string, start)) {
            start = string.chunkIndexLessThanIndex(start);
            settled = false;
        }
        if (!isKey(cache, oldEnd)) {
            oldEnd = cache.chunkIndexGreaterThanIndex(oldEnd);
            settled = false;
        }
        const quint64 newEnd = quint64(qint64(oldEnd) + delta);
        if (!isKey(string, newEnd)) {
            oldEnd = quint64(qint64(string.chunkIndexGreaterThanIndex(newEnd)) - delta);
            settled = false;
        }
        if (settled)
            break;
    }
    const HXRange oldRange{start, oldEnd - start};
    const HXRange newRange{start, quint64(qint64(oldEnd) + delta) - start};
    QList<HXChunk> paragraphs;
    string.enumerateChunksInRange(
        newRange, HXChunkEnumerationCopyingChunks,
        [&](const HXChunk &chunk, HXRange, bool &) { paragraphs.append(chunk); });
    const HXRange edited{range.location,
                         quint64(qint64(range.length) + delta)}; // what stands there now
    onMain([&](HXTextStorage &storage) {
        storage.updateCacheInRange(oldRange, newRange, paragraphs, range);
        HX_ASSERT(storage.m_contentCache->length() == newTotal,
                  u"Cache length mismatch: %lu<>%lu! Replacing %@ with %@ from \"%@.\"",
                  storage.m_contentCache->length(), newTotal, oldRange.description(),
                  newRange.description(), string.description().left(200));
        storage.addEditedRange(edited, delta);
        ++storage.m_editingLevel;
        Q_EMIT storage.edited(newRange, delta);
        --storage.m_editingLevel;
    });
}

void HXTextStorage::updateCacheInRange(HXRange oldRange, HXRange newRange,
                                       const QList<HXChunk> &paragraphs, HXRange edit) {
    HX_ASSERT(HXDispatchQueue::isMainThread(), u"Must be called from main thread.");
    // The attachments of styled paragraphs, by where their characters stand; those of entities
    // that survive the change are handed on.
    QHash<quint64, std::shared_ptr<HXTextAttachment>> kept;
    bool wasStyled = false;
    m_contentCache->enumerateChunksInRange(
        oldRange, 0, [&](const HXChunk &chunk, HXRange chunkRange, bool &) {
            const auto found = m_styleCache.find(chunk.object());
            if (found == m_styleCache.end())
                return;
            wasStyled = true;
            for (const HXStyleRun &run : found->second.runs) {
                if (run.attachment)
                    kept.insert(chunkRange.location + run.location, run.attachment);
            }
            m_styleCache.erase(found);
        });
    m_contentCache->replaceChunksInRange(oldRange, paragraphs);
    ++m_changeCount;
    if (!wasStyled)
        return;
    // Attachments in front of the edit stay where they are, those behind it move with the text;
    // those of the edited range go.
    const qint64 delta = qint64(newRange.length) - qint64(oldRange.length);
    QHash<quint64, std::shared_ptr<HXTextAttachment>> moved;
    for (auto it = kept.cbegin(); it != kept.cend(); ++it) {
        if (edit.isNotFound() || it.key() < edit.location)
            moved.insert(it.key(), it.value());
        else if (it.key() >= edit.max())
            moved.insert(quint64(qint64(it.key()) + delta), it.value());
    }
    m_contentCache->enumerateChunksInRange(
        newRange, 0, [&](const HXChunk &chunk, HXRange chunkRange, bool &) {
            const auto *paragraph = chunk.as<HXParagraph>();
            m_styleCache.emplace(chunk.object(),
                                 buildStyle(*paragraph, chunkRange.location, moved));
        });
}

void HXTextStorage::rebuildCacheFromString(const std::shared_ptr<HXString> &string) {
    HX_ASSERT(HXDispatchQueue::isMainThread(), u"Must be called from main thread.");
    HX_ASSERT(string != nullptr, u"Invalid parameter not satisfying: %s", "string");
    m_userEditedRange = HXNotFoundRange();
    m_userChangeInLength = 0;
    m_colorMap.clear();
    m_styleCache.clear();
    m_contentCache = string;
    updateBaseColors();
    Q_EMIT textColorChanged();
    Q_EMIT backgroundColorChanged();
    m_changeCount = m_contentChangeCount.load();
    Q_EMIT edited(HXRange{0, m_contentCache->length()}, 0);
}

// --- Look ----------------------------------------------------------------------------------

void HXTextStorage::setFont(const QFont &font) {
    m_font = font;
    invalidateStyles();
}

void HXTextStorage::setTheme(const std::shared_ptr<HXTheme> &theme) {
    m_theme = theme;
    updateBaseColors();
    Q_EMIT textColorChanged();
    Q_EMIT backgroundColorChanged();
    invalidateStyles();
}

void HXTextStorage::setColorMode(quint64 mode) {
    if (m_colorMode == mode)
        return;
    m_colorMode = mode;
    invalidateStyles();
}

void HXTextStorage::setFading(double fading) {
    m_fading = fading;
    updateBaseColors();
    invalidateStyles();
}

void HXTextStorage::invalidateStyles() {
    m_styleCache.clear();
    m_colorMap.clear();
    m_sharedFormats.clear();
    m_sharedFormatIndex.clear();
    Q_EMIT stylesChanged();
}

void HXTextStorage::updateBaseColors() {
    HXTextColor text, background;
    text.light = QColor(0x22, 0x22, 0x22);
    text.dark = QColor(0xdd, 0xdd, 0xdd);
    background.light = QColor(Qt::white);
    background.dark = QColor(0x1e, 0x1e, 0x1e);
    if (m_theme) {
        for (quint64 mode : {quint64(0), quint64(1)}) {
            if (const auto palette = m_theme->paletteForMode(mode)) {
                (mode ? text.dark : text.light) = palette->foregroundColor();
                (mode ? background.dark : background.light) = palette->backgroundColor();
            }
        }
    }
    text.lightBackground = background.light;
    text.darkBackground = background.dark;
    m_textColor = text;
    m_backgroundColor = background;
}

QColor HXTextStorage::colorForPart(quint64 part, const HXTextTagRef &tag) {
    if (!m_theme || !tag || !tag->definition())
        return QColor();
    const QPair<const void *, quint64> key{tag->definition().get(), part * 2 + m_colorMode};
    const auto found = m_colorMap.constFind(key);
    if (found != m_colorMap.cend())
        return found.value();
    const QColor color =
        m_theme->usedItemForDefinition(tag->definition())->colorForPart(part, m_colorMode);
    m_colorMap.insert(key, color);
    return color;
}

QTextCharFormat HXTextStorage::attributesForActiveTags(const HXOpenTags &openTags, bool isAtom) {
    quint64 traits = 0;
    QColor foreground, background;
    bool foregroundOverridden = false, backgroundOverridden = false;
    for (qsizetype i = openTags.size() - 1; i >= 0; --i) {
        const HXTextTagRef &tag = openTags.at(i);
        if (!tag || !tag->definition())
            continue;
        const bool innermost = i == openTags.size() - 1;
        const bool atomPart = isAtom && innermost;
        if (m_theme) {
            const auto item = m_theme->usedItemForDefinition(tag->definition());
            traits |= atomPart ? item->atomTraits() : item->traits();
        }
        const bool overrides = tag->definition()->overrideColors();
        const QColor text = colorForPart(atomPart ? 1 : 0, tag);
        if (text.isValid() && ((!foreground.isValid() && !foregroundOverridden) || overrides)) {
            foreground = text;
            foregroundOverridden = foregroundOverridden || overrides;
        }
        const QColor highlight = colorForPart(2, tag);
        if (highlight.isValid() &&
            ((!background.isValid() && !backgroundOverridden) || overrides)) {
            background = highlight;
            backgroundOverridden = backgroundOverridden || overrides;
        }
    }
    QTextCharFormat format;
    if (traits & 3) {
        QFont font = m_font;
        font.setBold(traits & 1);
        font.setItalic(traits & 2);
        format.setFont(font, QTextCharFormat::FontPropertiesAll);
    } else {
        format.setFont(m_font, QTextCharFormat::FontPropertiesAll);
    }
    if (traits & 4)
        format.setFontUnderline(true);
    if (traits & 8)
        format.setFontStrikeOut(true);
    format.setForeground(foreground.isValid() ? foreground : m_textColor.colorForMode(m_colorMode));
    if (background.isValid())
        format.setBackground(background);
    return sharedFormat(format);
}

QTextCharFormat HXTextStorage::sharedFormat(const QTextCharFormat &format) {
    const QFont font = format.font();
    const QByteArray key =
        font.key().toUtf8() + '|' + QByteArray::number(format.foreground().color().rgba()) + '|' +
        (format.hasProperty(QTextFormat::BackgroundBrush)
             ? QByteArray::number(format.background().color().rgba())
             : QByteArray("-")) +
        '|' + char('0' + format.fontUnderline()) + char('0' + format.fontStrikeOut());
    const auto found = m_sharedFormatIndex.constFind(key);
    if (found != m_sharedFormatIndex.cend())
        return m_sharedFormats.at(found.value());
    m_sharedFormatIndex.insert(key, m_sharedFormats.size());
    m_sharedFormats.append(format);
    return format;
}

QTextCharFormat HXTextStorage::escapeFormat(const QTextCharFormat &base) {
    QTextCharFormat format = base;
    HXTextColor faded;
    faded.light = faded.dark = base.foreground().color();
    faded.fading = m_fading;
    faded.lightBackground = base.hasProperty(QTextFormat::BackgroundBrush)
                                ? base.background().color()
                                : m_backgroundColor.light;
    faded.darkBackground = base.hasProperty(QTextFormat::BackgroundBrush)
                               ? base.background().color()
                               : m_backgroundColor.dark;
    format.setForeground(faded.colorForMode(m_colorMode));
    return sharedFormat(format);
}

HXTextStorage::ParagraphStyle
HXTextStorage::buildStyle(const HXParagraph &paragraph, quint64 location,
                          const QHash<quint64, std::shared_ptr<HXTextAttachment>> &kept) {
    ParagraphStyle style;
    auto append = [&](quint64 start, quint64 length, const QTextCharFormat &format,
                      std::shared_ptr<HXTextAttachment> attachment = nullptr) {
        if (length == 0)
            return;
        if (!attachment && !style.runs.isEmpty()) {
            HXStyleRun &last = style.runs.last();
            if (!last.attachment && last.format == format && last.location + last.length == start) {
                last.length += quint32(length);
                return;
            }
        }
        style.runs.append(HXStyleRun{quint32(start), quint32(length), format, attachment});
    };
    paragraph.enumerateStringsAndAtomsInRange(
        HXRange{0, paragraph.length()}, {}, 0,
        [&](const HXChunk &piece, bool isAtom, quint64 at, quint64 length,
            const HXOpenTags &openTags, bool &) {
            const QTextCharFormat format = attributesForActiveTags(openTags, isAtom);
            if (const auto *atom = piece.as<HXTextAtom>(); atom && atom->isEntityAtom()) {
                const HXTextTagRef tag = openTags.isEmpty() ? nullptr : openTags.last();
                std::shared_ptr<HXTextAttachment> attachment = kept.value(location + at);
                if (attachment)
                    attachment->setAtom(HXTextAtomRef(const_cast<HXTextAtom *>(atom)));
                else
                    attachment = std::make_shared<HXTextAttachment>(
                        HXTextAtomRef(const_cast<HXTextAtom *>(atom)));
                const QColor foreground = format.foreground().color();
                const QColor atomColor = colorForPart(1, tag);
                attachment->font = m_font;
                attachment->strokeColor = atomColor.isValid() ? atomColor : foreground;
                if (atomColor.isValid() && atomColor == m_textColor.colorForMode(m_colorMode)) {
                    attachment->fillColor = colorForPart(2, tag);
                    attachment->labelColor = m_textColor.colorForMode(m_colorMode);
                } else {
                    attachment->fillColor = foreground;
                    attachment->labelColor = foreground;
                }
                append(at, length, format, attachment);
                return;
            }
            if (piece.as<HXEscapeAtom>() && length > 0) {
                append(at, HXEscapeAtom::escapeLength, escapeFormat(format));
                append(at + HXEscapeAtom::escapeLength, length - HXEscapeAtom::escapeLength,
                       format);
                return;
            }
            append(at, length, format);
        });
    return style;
}

const QList<HXStyleRun> &HXTextStorage::styleRunsForParagraphAtIndex(quint64 index,
                                                                     HXRange *paragraphRange) {
    static const QList<HXStyleRun> none;
    if (!m_contentCache || m_contentCache->length() == 0) {
        if (paragraphRange)
            *paragraphRange = HXRange{0, 0};
        return none;
    }
    const HXRange range = wholeChunks(*m_contentCache, HXRange{index, 0});
    if (paragraphRange)
        *paragraphRange = range;
    const HXChunk chunk = m_contentCache->chunkAtIndex(range.location);
    auto found = m_styleCache.find(chunk.object());
    if (found == m_styleCache.end())
        found =
            m_styleCache
                .emplace(chunk.object(), buildStyle(*chunk.as<HXParagraph>(), range.location, {}))
                .first;
    return found->second.runs;
}

QList<QTextLayout::FormatRange>
HXTextStorage::formatRangesForParagraphAtIndex(quint64 index, HXRange *paragraphRange) {
    QList<QTextLayout::FormatRange> ranges;
    for (const HXStyleRun &run : styleRunsForParagraphAtIndex(index, paragraphRange))
        ranges.append(QTextLayout::FormatRange{int(run.location), int(run.length), run.format});
    return ranges;
}

QTextCharFormat HXTextStorage::attributesAtIndex(quint64 index, HXRange *effectiveRange) {
    HXRange paragraph;
    for (const HXStyleRun &run : styleRunsForParagraphAtIndex(index, &paragraph)) {
        const HXRange runRange{paragraph.location + run.location, run.length};
        if (runRange.contains(index)) {
            if (effectiveRange)
                *effectiveRange = runRange;
            return run.format;
        }
    }
    if (effectiveRange)
        *effectiveRange = HXNotFoundRange();
    return QTextCharFormat();
}

std::shared_ptr<HXTextAttachment> HXTextStorage::attachmentAtIndex(quint64 index) {
    HXRange paragraph;
    for (const HXStyleRun &run : styleRunsForParagraphAtIndex(index, &paragraph)) {
        if (run.attachment && paragraph.location + run.location == index)
            return run.attachment;
    }
    return nullptr;
}

bool HXTextStorage::hasStyleForParagraphAtIndex(quint64 index) const {
    if (!m_contentCache || m_contentCache->length() == 0)
        return false;
    const HXRange range = wholeChunks(*m_contentCache, HXRange{index, 0});
    return m_styleCache.count(m_contentCache->chunkAtIndex(range.location).object()) > 0;
}

void HXTextStorage::checkInvariants() const {
    HX_ASSERT(m_contentCache != nullptr, u"No content cache.");
    m_contentCache->checkInvariants();
    if (m_content)
        HX_ASSERT(m_contentCache->isEqualToChunkString(*m_content->copy()),
                  u"Cache mismatch: the twin differs from the content.");
    // Every styled paragraph is one of the twin's, and its runs cover it exactly.
    qsizetype seen = 0;
    m_contentCache->enumerateChunksInRange(
        HXRange{0, m_contentCache->length()}, 0, [&](const HXChunk &chunk, HXRange, bool &) {
            const auto found = m_styleCache.find(chunk.object());
            if (found == m_styleCache.end())
                return;
            ++seen;
            quint64 at = 0;
            for (const HXStyleRun &run : found->second.runs) {
                HX_ASSERT(run.location == at && run.length > 0, u"Style runs leave a gap.");
                at += run.length;
            }
            HX_ASSERT(at == chunk.length(), u"Style runs cover %lu of %lu characters.", at,
                      chunk.length());
        });
    HX_ASSERT(seen == qsizetype(m_styleCache.size()), u"Style kept for a paragraph that is gone.");
}
