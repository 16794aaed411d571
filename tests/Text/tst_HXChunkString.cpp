// The chunk string: its map against a plain text of the same characters under random changes, and
// the corner cases of keys, head and tail chunks, copies, equality and enumeration.

#include "HXTestSupport.h"
#include "Text/String/Implementation/HXChunkString.h"
#include "Utilities/HXAssert.h"

#include <QRandomGenerator>

#include <vector>

namespace {

// An immutable string object, standing in for the atoms of tags.
class TestAtom : public HXStringObject {
public:
    explicit TestAtom(QString text)
        : m_text(std::move(text)) {}
    quint64 length() const override { return quint64(m_text.size()); }
    QChar characterAtIndex(quint64 index) const override { return m_text.at(qsizetype(index)); }
    void getCharacters(QChar *buffer, HXRange range) const override {
        std::copy_n(m_text.constData() + range.location, range.length, buffer);
    }

private:
    QString m_text;
};

HXChunk atom(const QString &text) {
    return HXChunk(std::make_shared<TestAtom>(text));
}

std::shared_ptr<HXChunkString> chunkString(const QStringList &chunks) {
    auto string = std::make_shared<HXChunkString>();
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
    void keyQueries();
    void chunkRanges();
    void headAndTail();
    void partialCopiesKeepHeadAndTailOnlyWhole();
    void equality();
    void enumeration();
    void assertions();
    void recomputeAfterNestedChange();
    void lockingContextReachesNestedStrings();
    void randomChangesAgainstPlainText();
};

void tst_HXChunkString::emptyString() {
    HXChunkString string;
    QCOMPARE(string.length(), 0u);
    QCOMPARE(string.numberOfMapEntries(), 1);
    QVERIFY(string.allChunks().isEmpty());
    QVERIFY(string.innerChunks().isEmpty());
    QVERIFY(string.chunkAtIndex(0).isNull());
    QVERIFY(string.lastChunk().isNull());
    QCOMPARE(string.innerChunkRange(), (HXRange{0, 0}));
    QCOMPARE(string.chunkIndexGreaterThanOrEqualToIndex(0), 0u);
    QCOMPARE(string.chunkIndexGreaterThanIndex(0), HXNotFound);
    QCOMPARE(string.chunkIndexLessThanIndex(0), HXNotFound);
    string.appendChunk(QString());
    QCOMPARE(string.numberOfMapEntries(), 1);
    string.clear();
    string.recomputeIndexes();
    string.checkInvariants();
    QCOMPARE(string.copy()->length(), 0u);
}

void tst_HXChunkString::keyQueries() {
    const auto string =
        chunkString({QStringLiteral("abc"), QStringLiteral("de"), QStringLiteral("f")});
    QCOMPARE(keysOf(*string), (QList<quint64>{0, 3, 5, 6}));
    QCOMPARE(string->chunkAtIndex(3).string(), QStringLiteral("de"));
    QVERIFY(string->chunkAtIndex(4).isNull()); // inside a chunk
    QVERIFY(string->chunkAtIndex(6).isNull()); // the end marker
    QCOMPARE(string->lastChunk().string(), QStringLiteral("f"));
    QCOMPARE(string->chunkIndexLessThanIndex(3), 0u);
    QCOMPARE(string->chunkIndexLessThanIndex(4), 3u);
    QCOMPARE(string->chunkIndexLessThanOrEqualToIndex(3), 3u);
    QCOMPARE(string->chunkIndexLessThanOrEqualToIndex(100), 6u);
    QCOMPARE(string->chunkIndexGreaterThanIndex(5), 6u); // the end marker is a key
    QCOMPARE(string->chunkIndexGreaterThanIndex(6), HXNotFound);
    QCOMPARE(string->chunkIndexGreaterThanOrEqualToIndex(4), 5u);
    QCOMPARE(string->chunkIndexGreaterThanOrEqualToIndex(7), HXNotFound);
    QCOMPARE(string->characterAtIndex(4), QLatin1Char('e'));
    QCOMPARE(string->flatSubstringWithRange(HXRange{2, 3}), QStringLiteral("cde"));
}

void tst_HXChunkString::chunkRanges() {
    const auto string =
        chunkString({QStringLiteral("abc"), QStringLiteral("de"), QStringLiteral("f")});
    QCOMPARE(string->chunkRangeForRange(HXRange{1, 1}), (HXRange{0, 3}));
    QCOMPARE(string->chunkRangeForRange(HXRange{2, 2}), (HXRange{0, 5}));
    QCOMPARE(string->chunkRangeForRange(HXRange{3, 2}), (HXRange{3, 2}));
    QCOMPARE(string->chunkRangeForRange(HXRange{3, 0}), (HXRange{3, 2}));
    QCOMPARE(string->chunkRangeForRange(HXRange{4, 0}), (HXRange{3, 2}));
    QCOMPARE(string->chunkRangeForRange(HXRange{6, 0}), (HXRange{6, 0}));
    QCOMPARE(string->chunkRangeForRange(HXRange{0, 6}), (HXRange{0, 6}));
}

void tst_HXChunkString::headAndTail() {
    HXChunkString string;
    string.setTailChunk(atom(QStringLiteral("**")));
    string.setHeadChunk(atom(QStringLiteral("__")));
    string.appendChunk(QStringLiteral("inner"));
    QCOMPARE(string.string(), QStringLiteral("__inner**"));
    QCOMPARE(string.innerChunkRange(), (HXRange{2, 5}));
    QCOMPARE(string.innerChunks().size(), 1);
    QCOMPARE(string.allChunks().size(), 3);

    // Same length, another object: replaced in place; other length: spliced.
    string.setHeadChunk(atom(QStringLiteral("~~")));
    string.setTailChunk(atom(QStringLiteral("***")));
    QCOMPARE(string.string(), QStringLiteral("~~inner***"));
    string.checkInvariants();

    string.setInnerChunks({QStringLiteral("a"), QStringLiteral("b")});
    QCOMPARE(string.string(), QStringLiteral("~~ab***"));
    string.clear();
    QCOMPARE(string.string(), QStringLiteral("~~***"));
    QCOMPARE(string.length(), 5u);
    QCOMPARE(string.innerChunkRange(), (HXRange{2, 0}));
    string.appendChunk(QStringLiteral("x"));
    QCOMPARE(string.string(), QStringLiteral("~~x***"));

    string.setHeadChunk(HXChunk());
    string.setTailChunk(HXChunk());
    QCOMPARE(string.string(), QStringLiteral("x"));
    QVERIFY(string.headChunk().isNull() && string.tailChunk().isNull());
    string.checkInvariants();

    // appendChunkString makes the other's head and tail ordinary chunks.
    HXChunkString other;
    other.setHeadChunk(atom(QStringLiteral("[")));
    other.appendChunk(QStringLiteral("y"));
    string.setTailChunk(atom(QStringLiteral("]")));
    string.appendChunkString(other);
    QCOMPARE(string.string(), QStringLiteral("x[y]"));
    QCOMPARE(string.innerChunks().size(), 3);
    string.checkInvariants();
}

void tst_HXChunkString::partialCopiesKeepHeadAndTailOnlyWhole() {
    HXChunkString string;
    string.setHeadChunk(atom(QStringLiteral("**")));
    string.appendChunk(QStringLiteral("bold"));
    string.setTailChunk(atom(QStringLiteral("__")));

    const auto whole = string.copy();
    QVERIFY(whole->headChunk() && whole->tailChunk());
    QVERIFY(whole->isEqualToChunkString(string));

    const auto fromZero = string.copyWithRange(HXRange{0, 4});
    QCOMPARE(fromZero->string(), QStringLiteral("**bo"));
    QVERIFY(fromZero->headChunk());
    QVERIFY(fromZero->tailChunk().isNull());

    const auto insideHead = string.copyWithRange(HXRange{1, 7});
    QCOMPARE(insideHead->string(), QStringLiteral("*bold__"));
    QVERIFY(insideHead->headChunk().isNull());
    QVERIFY(insideHead->tailChunk());

    const auto insideTail = string.copyWithRange(HXRange{7, 1});
    QCOMPARE(insideTail->string(), QStringLiteral("_"));
    QVERIFY(insideTail->tailChunk().isNull());

    const auto headOnly = string.copyWithRange(HXRange{0, 1});
    QVERIFY(headOnly->headChunk().isNull());
    insideHead->checkInvariants();
    headOnly->checkInvariants();
}

void tst_HXChunkString::equality() {
    const auto one = chunkString({QStringLiteral("ab")});
    const auto two = chunkString({QStringLiteral("a"), QStringLiteral("b")});
    QVERIFY(one->isEqualToString(two->string()));
    QVERIFY(!one->isEqualToChunkString(*two));
    QVERIFY(one->isEqual(HXChunk(QStringLiteral("ab"))));
    QVERIFY(!one->isEqual(HXChunk()));
    QVERIFY(two->isEqualToChunkString(*chunkString({QStringLiteral("a"), QStringLiteral("b")})));
    // A nested string is compared with structure, an atom by its characters.
    auto nested = std::make_shared<HXChunkString>();
    nested->appendChunk(one->copy());
    auto withAtom = std::make_shared<HXChunkString>();
    withAtom->appendChunk(atom(QStringLiteral("ab")));
    auto splitNested = std::make_shared<HXChunkString>();
    splitNested->appendChunk(two->copy());
    QVERIFY(nested->isEqualToChunkString(*withAtom));
    QVERIFY(!nested->isEqualToChunkString(*splitNested));
    QVERIFY(nested->isEqualToString(splitNested->string()));
    // A copy is deep: changing it leaves the original alone.
    const auto copy = nested->copy();
    copy->firstChunk().chunkString()->appendChunk(QStringLiteral("c"));
    QCOMPARE(nested->string(), QStringLiteral("ab"));
}

void tst_HXChunkString::enumeration() {
    const auto string =
        chunkString({QStringLiteral("abc"), QStringLiteral("de"), QStringLiteral("fgh")});
    QStringList seen;
    QList<HXRange> ranges;
    auto collect = [&](const HXChunk &chunk, HXRange range, bool &) {
        seen.append(chunk.string());
        ranges.append(range);
    };
    string->enumerateChunksInRange(HXRange{1, 5}, 0, collect);
    QCOMPARE(seen,
             (QStringList{QStringLiteral("abc"), QStringLiteral("de"), QStringLiteral("fgh")}));
    QCOMPARE(ranges.last(), (HXRange{5, 3}));

    seen.clear();
    ranges.clear();
    string->enumerateChunksInRange(HXRange{1, 5}, HXChunkEnumerationClippedToRange, collect);
    QCOMPARE(seen, (QStringList{QStringLiteral("bc"), QStringLiteral("de"), QStringLiteral("f")}));
    QCOMPARE(ranges, (QList<HXRange>{{1, 2}, {3, 2}, {5, 1}}));

    seen.clear();
    string->enumerateChunksInRange(HXRange{0, 8}, HXChunkEnumerationReverse,
                                   [&](const HXChunk &chunk, HXRange, bool &stop) {
                                       seen.append(chunk.string());
                                       stop = true;
                                   });
    QCOMPARE(seen, (QStringList{QStringLiteral("fgh")}));

    seen.clear();
    string->enumerateChunksInRange(HXRange{3, 0}, 0, collect);
    QVERIFY(seen.isEmpty());

    // Copying delivers nested strings as new objects.
    auto outer = std::make_shared<HXChunkString>();
    outer->appendChunk(string);
    outer->enumerateChunksInRange(HXRange{0, 8}, HXChunkEnumerationCopyingChunks,
                                  [&](const HXChunk &chunk, HXRange, bool &) {
                                      QVERIFY(chunk.chunkString() != string.get());
                                      QVERIFY(chunk.isEqual(HXChunk(string)));
                                  });
}

void tst_HXChunkString::assertions() {
    HXChunkString string;
    string.appendChunk(QStringLiteral("abc"));
    QCOMPARE(assertionText([&] {
                 string.replaceChunksInRange(HXRange{3, 0}, {QString()});
             }),
             QStringLiteral("Chunks must be non-zero length!"));
    QCOMPARE(assertionText([&] {
                 string.replaceChunksInRange(HXRange{3, 0}, {HXChunk()});
             }),
             QStringLiteral("Chunks must be kind of NSString (subclasses)!"));
    QCOMPARE(assertionText([&] {
                 string.replaceCharactersInRange(HXRange{0, 1}, QStringLiteral("x"));
             }),
             QStringLiteral("-replaceCharactersInRange:withString: not implemented!"));
    QVERIFY(!assertionText([&] { string.replaceChunksInRange(HXRange{1, 1}, {}); }).isEmpty());
    // A failed change leaves the string as it was.
    QCOMPARE(string.string(), QStringLiteral("abc"));
    string.checkInvariants();
}

void tst_HXChunkString::recomputeAfterNestedChange() {
    auto nested = chunkString({QStringLiteral("bc")});
    HXChunkString string;
    string.appendChunk(QStringLiteral("a"));
    string.appendChunk(nested);
    string.appendChunk(QStringLiteral("d"));
    nested->appendChunk(QStringLiteral("XY"));
    // Until the keys are rebuilt, enumeration goes by the old keys.
    HXRange seen;
    string.enumerateChunksInRange(HXRange{1, 1}, 0,
                                  [&](const HXChunk &, HXRange range, bool &) { seen = range; });
    QCOMPARE(seen, (HXRange{1, 2}));
    QVERIFY(!assertionText([&] { string.checkInvariants(); }).isEmpty());
    string.recomputeIndexes();
    string.checkInvariants();
    QCOMPARE(keysOf(string), (QList<quint64>{0, 1, 5, 6}));
    QCOMPARE(string.string(), QStringLiteral("abcXYd"));
}

namespace {
class TestContext : public HXLockingContext {
public:
    void read(const std::function<void()> &block) override { block(); }
    void write(const std::function<void()> &block) override { block(); }
};
} // namespace

void tst_HXChunkString::lockingContextReachesNestedStrings() {
    auto context = std::make_shared<TestContext>();
    auto inner = chunkString({QStringLiteral("x")});
    HXChunkString string;
    string.appendChunk(inner);
    string.setLockingContext(context);
    QCOMPARE(inner->lockingContext().lock(), context);
    auto late = chunkString({QStringLiteral("y")});
    string.setHeadChunk(late);
    QCOMPARE(late->lockingContext().lock(), context);
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
    auto verify = [&](int step) {
        string.checkInvariants();
        const QString expected = model.text();
        QCOMPARE(string.length(), quint64(expected.size()));
        QCOMPARE(string.string(), expected);
        QCOMPARE(keysOf(string), model.keys());
        QCOMPARE(bool(string.headChunk()), model.head);
        QCOMPARE(bool(string.tailChunk()), model.tail);
        if (!expected.isEmpty()) {
            const quint64 index = random.bounded(quint64(expected.size()));
            QCOMPARE(string.characterAtIndex(index), expected.at(qsizetype(index)));
            const quint64 location = random.bounded(quint64(expected.size()));
            const quint64 length = random.bounded(quint64(expected.size()) - location + 1);
            QCOMPARE(string.flatSubstringWithRange(HXRange{location, length}),
                     expected.mid(qsizetype(location), qsizetype(length)));
            // The covering chunk range ends on keys around the range.
            const QList<quint64> keys = model.keys();
            const HXRange cover = string.chunkRangeForRange(HXRange{location, length});
            QVERIFY2(keys.contains(cover.location) && keys.contains(cover.max()),
                     qPrintable(QString::number(step)));
            QVERIFY(cover.location <= location && cover.max() >= location + length);
        }
    };

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
        case 7: { // a partial copy has the characters of the range and a consistent map
            const quint64 length = string.length();
            const quint64 location = length ? random.bounded(length + 1) : 0;
            const HXRange range{location, random.bounded(length - location + 1)};
            const auto copy = string.copyWithRange(range);
            copy->checkInvariants();
            QCOMPARE(copy->string(),
                     model.text().mid(qsizetype(range.location), qsizetype(range.length)));
            const quint64 headLength = model.head ? quint64(model.chunks.front().size()) : 0;
            QCOMPARE(bool(copy->headChunk()),
                     model.head && range.location == 0 && headLength <= range.length);
            break;
        }
        case 8: { // a nested string grows in place, then the keys are rebuilt
            for (size_t i = 0; i < model.chunks.size(); ++i) {
                if (HXChunkString *nested = string.chunkAtIndex(keys[qsizetype(i)]).chunkString()) {
                    const QString grown = randomText();
                    nested->appendChunk(grown);
                    model.chunks[i] += grown;
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
            }
        }
        verify(step);
        largest = std::max(largest, model.chunks.size());
    }
    QVERIFY(largest > 500); // the walk reached strings of several blocks
}

HX_TEST_MAIN(tst_HXChunkString)
#include "tst_HXChunkString.moc"
