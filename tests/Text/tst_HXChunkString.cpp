// The chunk string against a model of its chunks under random changes: its text, keys and key
// queries, head and tail and copies; and the corner cases of the empty string,
// head and tail chunks, partial copies, equality, enumeration and assertions.

#include "HXTestSupport.h"
#include "Text/String/Implementation/HXChunkString.h"
#include "Utilities/HXAssert.h"

#include <QRandomGenerator>

#include <algorithm>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

// An immutable string object, standing in for the atoms of tags.
class TestAtom : public HXStringObject {
public:
    explicit TestAtom(QString text)
        : HXStringObject(HXStringObjectKind::Other)
        , m_text(std::move(text)) {}
    quint64 length() const override { return quint64(m_text.size()); }
    QChar characterAtIndex(quint64 index) const override { return m_text.at(qsizetype(index)); }
    void getCharacters(QChar *buffer, HXRange range) const override {
        std::copy_n(m_text.constData() + range.location, range.length, buffer);
    }

private:
    QString m_text;
};

HXChunk atom(const QString &text) {
    return HXChunk(HXRef<TestAtom>::make(text));
}

HXRef<HXChunkString> chunkString(const QStringList &chunks) {
    auto string = HXRef<HXChunkString>::make();
    for (const QString &chunk : chunks)
        string->appendChunk(chunk);
    return string;
}

QList<quint64> keysOf(const HXChunkString &string) {
    QList<quint64> keys{0};
    for (quint64 key = 0; (key = string.chunkIndexGreaterThanIndex(key)) != HXNotFound;)
        keys.append(key);
    return keys;
}

using HXTestSupport::assertionText;

// What the chunk string must look like: the texts of its chunks, and whether the first and last
// are the head and tail.
struct Model {
    std::vector<QString> chunks;
    bool head = false;
    bool tail = false;

    QString text() const {
        QString all;
        for (const QString &chunk : chunks)
            all += chunk;
        return all;
    }
    QList<quint64> keys() const {
        QList<quint64> keys{0};
        for (const QString &chunk : chunks)
            keys.append(keys.last() + quint64(chunk.size()));
        return keys;
    }
    size_t innerBegin() const { return head ? 1 : 0; }
    size_t innerEnd() const { return tail ? chunks.size() - 1 : chunks.size(); }
};

} // namespace

class tst_HXChunkString : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void emptyString();
    void headAndTail();
    void partialCopiesKeepHeadAndTailOnlyWhole();
    void equality();
    void enumeration();
    void assertions();
    void randomChangesAgainstPlainText();
};

void tst_HXChunkString::emptyString() {
    // The random changes start from the empty string; here is what they don't reach.
    HXChunkString string;
    string.appendChunk(QString());
    QCOMPARE(string.numberOfMapEntries(), 1);
    string.clear();
    string.recomputeIndexes();
    string.checkInvariants();
    QCOMPARE(string.copy()->length(), 0u);
}

void tst_HXChunkString::headAndTail() {
    // Setting, replacing and removing them is left to the random changes; here the inner chunks
    // are set between them, and another string's head becomes an ordinary chunk before the tail.
    HXChunkString string;
    string.setTailChunk(atom(u"**"_s));
    string.setHeadChunk(atom(u"__"_s));
    string.setInnerChunks({u"a"_s, u"b"_s});
    QCOMPARE(string.string(), u"__ab**"_s);
    HXChunkString other;
    other.setHeadChunk(atom(u"["_s));
    other.appendChunk(u"y"_s);
    string.appendChunkString(other);
    QCOMPARE(string.string(), u"__ab[y**"_s);
    QCOMPARE(string.innerChunks().size(), 4);
    string.checkInvariants();
}

void tst_HXChunkString::partialCopiesKeepHeadAndTailOnlyWhole() {
    HXChunkString string;
    string.setHeadChunk(atom(u"**"_s));
    string.appendChunk(u"bold"_s);
    string.setTailChunk(atom(u"__"_s));
    const struct {
        HXRange range;
        const char *text;
        bool head, tail;
    } cases[] = {
        {{0, 8}, "**bold__", true, true}, {{0, 4}, "**bo", true, false},
        {{1, 7}, "*bold__", false, true}, {{6, 2}, "__", false, true},
        {{7, 1}, "_", false, false},      {{0, 1}, "*", false, false},
    };
    for (const auto &[range, text, head, tail] : cases) {
        const auto copy = string.copyWithRange(range);
        copy->checkInvariants();
        QCOMPARE(copy->string(), QString::fromLatin1(text));
        QCOMPARE(bool(copy->headChunk()), head);
        QCOMPARE(bool(copy->tailChunk()), tail);
    }
}

void tst_HXChunkString::equality() {
    const auto one = chunkString({u"ab"_s});
    const auto two = chunkString({u"a"_s, u"b"_s});
    QVERIFY(one->isEqualToString(two->string()));
    QVERIFY(!one->isEqualToChunkString(*two));
    QVERIFY(one->isEqual(HXChunk(u"ab"_s)));
    QVERIFY(!one->isEqual(HXChunk()));
    // A nested string is compared with structure, an atom by its characters.
    auto nested = HXRef<HXChunkString>::make();
    nested->appendChunk(one->copy());
    auto withAtom = HXRef<HXChunkString>::make();
    withAtom->appendChunk(atom(u"ab"_s));
    auto splitNested = HXRef<HXChunkString>::make();
    splitNested->appendChunk(two->copy());
    QVERIFY(nested->isEqualToChunkString(*withAtom));
    QVERIFY(!nested->isEqualToChunkString(*splitNested));
    QVERIFY(nested->isEqualToString(splitNested->string()));
}

void tst_HXChunkString::enumeration() {
    // From the chunk holding the range's first code unit to the one holding its last; clipped,
    // only their parts in the range; an empty range, nothing.
    const auto string = chunkString({u"abc"_s, u"de"_s, u"fgh"_s});
    QStringList seen;
    auto collect = [&](const HXChunk &chunk, HXRange range, bool &) {
        seen.append(u"%1@%2+%3"_s.arg(chunk.string()).arg(range.location).arg(range.length));
    };
    string->enumerateChunksInRange(HXRange{1, 5}, 0, collect);
    string->enumerateChunksInRange(HXRange{1, 5}, HXChunkEnumerationClippedToRange, collect);
    string->enumerateChunksInRange(HXRange{3, 0}, 0, collect);
    QCOMPARE(seen, (QStringList{u"abc@0+3"_s, u"de@3+2"_s, u"fgh@5+3"_s, u"bc@1+2"_s, u"de@3+2"_s,
                                u"f@5+1"_s}));

    seen.clear();
    string->enumerateChunksInRange(HXRange{0, 8}, HXChunkEnumerationReverse,
                                   [&](const HXChunk &chunk, HXRange, bool &stop) {
                                       seen.append(chunk.string());
                                       stop = true;
                                   });
    QCOMPARE(seen, (QStringList{u"fgh"_s}));
}

void tst_HXChunkString::assertions() {
    HXChunkString string;
    string.appendChunk(u"abc"_s);
    QCOMPARE(assertionText([&] {
                 string.replaceChunksInRange(HXRange{3, 0}, {QString()});
             }),
             u"Chunks must be non-zero length!"_s);
    QCOMPARE(assertionText([&] {
                 string.replaceChunksInRange(HXRange{3, 0}, {HXChunk()});
             }),
             u"Chunks must be kind of NSString (subclasses)!"_s);
    QCOMPARE(assertionText([&] {
                 string.replaceCharactersInRange(HXRange{0, 1}, u"x"_s);
             }),
             u"-replaceCharactersInRange:withString: not implemented!"_s);
    QVERIFY(!assertionText([&] { string.replaceChunksInRange(HXRange{1, 1}, {}); }).isEmpty());
    // A failed change leaves the string as it was.
    QCOMPARE(string.string(), u"abc"_s);
    string.checkInvariants();
}

void tst_HXChunkString::randomChangesAgainstPlainText() {
    QRandomGenerator random(20261123);
    auto randomText = [&] {
        const int length = 1 + int(random.bounded(6));
        QString text;
        for (int i = 0; i < length; ++i)
            text += QChar(u'a' + char16_t(random.bounded(26)));
        return text;
    };
    // A plain text, an atom, or a nested chunk string of one to three plain texts.
    auto randomChunk = [&]() -> HXChunk {
        switch (random.bounded(3)) {
        case 0:
            return randomText();
        case 1:
            return atom(randomText());
        default: {
            QStringList parts;
            for (int i = int(random.bounded(3)); i >= 0; --i)
                parts.append(randomText());
            return chunkString(parts);
        }
        }
    };

    HXChunkString string;
    Model model;
    size_t largest = 0;
    auto verify = [&] {
        string.checkInvariants();
        const QString expected = model.text();
        const quint64 total = quint64(expected.size());
        const QList<quint64> keys = model.keys();
        QCOMPARE(string.string(), expected);
        QCOMPARE(keysOf(string), keys);
        QCOMPARE(bool(string.headChunk()), model.head);
        QCOMPARE(bool(string.tailChunk()), model.tail);
        const quint64 innerStart = keys[qsizetype(model.innerBegin())];
        const quint64 innerEnd = keys[qsizetype(model.innerEnd())];
        QCOMPARE(string.innerChunkRange(), (HXRange{innerStart, innerEnd - innerStart}));
        QCOMPARE(string.innerChunks().size(), qsizetype(model.innerEnd() - model.innerBegin()));
        QCOMPARE(string.lastChunk().isNull(), model.chunks.empty());
        if (total > 0) {
            const quint64 index = random.bounded(total);
            QCOMPARE(string.characterAtIndex(index), expected.at(qsizetype(index)));
            QCOMPARE(string.lastChunk().string(), model.chunks.back());
        }
        // The key queries, at a key and anywhere up to beyond the end.
        auto floorKey = [&](quint64 i) {
            return *std::prev(std::upper_bound(keys.cbegin(), keys.cend(), i));
        };
        auto ceilKey = [&](quint64 i) {
            const auto key = std::lower_bound(keys.cbegin(), keys.cend(), i);
            return key == keys.cend() ? HXNotFound : *key;
        };
        for (const quint64 index :
             {keys[qsizetype(random.bounded(quint64(keys.size())))], random.bounded(total + 2)}) {
            QCOMPARE(string.chunkIndexLessThanOrEqualToIndex(index), floorKey(index));
            QCOMPARE(string.chunkIndexLessThanIndex(index),
                     index ? floorKey(index - 1) : HXNotFound);
            QCOMPARE(string.chunkIndexGreaterThanOrEqualToIndex(index), ceilKey(index));
            QCOMPARE(string.chunkIndexGreaterThanIndex(index), ceilKey(index + 1));
            const qsizetype ordinal = keys.indexOf(index);
            const HXChunk chunk = string.chunkAtIndex(index);
            QCOMPARE(chunk.isNull(), ordinal < 0 || index == total);
            if (!chunk.isNull())
                QCOMPARE(chunk.string(), model.chunks[size_t(ordinal)]);
        }

        // A range's characters, and the smallest range of whole chunks that covers it: for an
        // empty range the chunk holding its location, or the empty range at the end.
        const quint64 location = random.bounded(total + 1);
        const quint64 length = random.bounded(total - location + 1);
        QCOMPARE(string.flatSubstringWithRange(HXRange{location, length}),
                 expected.mid(qsizetype(location), qsizetype(length)));
        const quint64 start = floorKey(location);
        const quint64 end =
            length ? ceilKey(location + length) : std::min(ceilKey(start + 1), total);
        QCOMPARE(string.chunkRangeForRange(HXRange{location, length}),
                 (HXRange{start, end - start}));
    };

    // Grows the first nested string of a copy in place: the string must not notice.
    auto growNestedOf = [&](HXChunkString &copy) {
        for (const HXChunk &chunk : copy.allChunks()) {
            if (HXChunkString *nested = chunk.chunkString()) {
                nested->appendChunk(u"x"_s);
                return;
            }
        }
    };

    verify();
    for (int step = 0; step < 4000; ++step) {
        const QList<quint64> keys = model.keys();
        const size_t innerBegin = model.innerBegin(), innerEnd = model.innerEnd();
        switch (random.bounded(10)) {
        case 0:
        case 1:
        case 2:
        case 3: { // a splice of inner chunks
            const size_t from = innerBegin + random.bounded(quint32(innerEnd - innerBegin + 1));
            const size_t to =
                from + random.bounded(quint32(std::min<size_t>(innerEnd - from, 2) + 1));
            QList<HXChunk> chunks;
            std::vector<QString> texts;
            for (int i = int(random.bounded(5)); i > 0; --i) {
                chunks.append(randomChunk());
                texts.push_back(chunks.last().string());
            }
            string.replaceChunksInRange(
                HXRange{keys[qsizetype(from)], keys[qsizetype(to)] - keys[qsizetype(from)]},
                chunks);
            model.chunks.erase(model.chunks.begin() + qsizetype(from),
                               model.chunks.begin() + qsizetype(to));
            model.chunks.insert(model.chunks.begin() + qsizetype(from), texts.begin(), texts.end());
            break;
        }
        case 4: { // head chunk set, replaced or removed
            const HXChunk chunk = random.bounded(3) == 0 ? HXChunk() : randomChunk();
            string.setHeadChunk(chunk);
            if (model.head)
                model.chunks.erase(model.chunks.begin());
            if (chunk)
                model.chunks.insert(model.chunks.begin(), chunk.string());
            model.head = bool(chunk);
            break;
        }
        case 5: { // tail chunk
            const HXChunk chunk = random.bounded(3) == 0 ? HXChunk() : randomChunk();
            string.setTailChunk(chunk);
            if (model.tail)
                model.chunks.pop_back();
            if (chunk)
                model.chunks.push_back(chunk.string());
            model.tail = bool(chunk);
            break;
        }
        case 6: { // append
            const HXChunk chunk = randomChunk();
            string.appendChunk(chunk);
            model.chunks.insert(model.chunks.begin() + qsizetype(innerEnd), chunk.string());
            break;
        }
        case 7: { // a partial copy has the characters of the range, and the head and tail whole
            const quint64 length = string.length();
            const quint64 location = random.bounded(3) ? random.bounded(length + 1) : 0;
            const quint64 end =
                random.bounded(3) ? location + random.bounded(length - location + 1) : length;
            const HXRange range{location, end - location};
            const auto copy = string.copyWithRange(range);
            copy->checkInvariants();
            QCOMPARE(copy->string(),
                     model.text().mid(qsizetype(range.location), qsizetype(range.length)));
            const quint64 headLength = model.head ? quint64(model.chunks.front().size()) : 0;
            const quint64 tailLength = model.tail ? quint64(model.chunks.back().size()) : 0;
            QCOMPARE(bool(copy->headChunk()),
                     model.head && range.location == 0 && headLength <= range.length);
            QCOMPARE(bool(copy->tailChunk()),
                     model.tail && range.max() == length && tailLength <= range.length);
            growNestedOf(*copy);
            break;
        }
        case 8: { // a nested string grows in place; the keys are stale until rebuilt
            for (size_t i = 0; i < model.chunks.size(); ++i) {
                if (HXChunkString *nested = string.chunkAtIndex(keys[qsizetype(i)]).chunkString()) {
                    const QString grown = randomText();
                    nested->appendChunk(grown);
                    model.chunks[i] += grown;
                    QVERIFY(!assertionText([&] { string.checkInvariants(); }).isEmpty());
                    break;
                }
            }
            string.recomputeIndexes();
            break;
        }
        default:
            if (model.chunks.size() > 700) {
                string.clear();
                model.chunks.erase(model.chunks.begin() + qsizetype(innerBegin),
                                   model.chunks.begin() + qsizetype(innerEnd));
            } else { // a whole copy is equal and independent
                const auto copy = string.copy();
                QVERIFY(copy->isEqualToChunkString(string));
                QVERIFY(string.isEqual(HXChunk(copy)));
                growNestedOf(*copy);
            }
        }
        verify();
        largest = std::max(largest, model.chunks.size());
    }
    QVERIFY(largest > 500); // the walk reached strings of several blocks
}

HX_TEST_MAIN(tst_HXChunkString)
#include "tst_HXChunkString.moc"
