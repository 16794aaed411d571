// ZIP archives of packages: exact and deterministic round trips, the layouts an archive may have,
// and the refusal of damaged or unsafe archives, each built here with libzip itself.

#include "HXTestSupport.h"
#include "Utilities/HXZipArchive.h"

#include <QDateTime>
#include <QRandomGenerator>
#include <QtEndian>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <zip.h>

using namespace Qt::StringLiterals;

namespace {

// Writes an archive with libzip directly, so that it may hold what HXZipArchive never writes.
QByteArray makeZip(const std::function<void(zip_t *)> &fill) {
    zip_source_t *source = zip_source_buffer_create(nullptr, 0, 0, nullptr);
    zip_t *archive = zip_open_from_source(source, ZIP_TRUNCATE, nullptr);
    zip_source_keep(source);
    fill(archive);
    QByteArray data;
    zip_stat_t stat;
    if (zip_close(archive) == 0 && zip_source_stat(source, &stat) == 0 &&
        zip_source_open(source) == 0) {
        data.resize(qsizetype(stat.size));
        zip_source_read(source, data.data(), stat.size);
        zip_source_close(source);
    }
    zip_source_free(source);
    return data;
}

zip_int64_t addEntry(zip_t *archive, const char *name, const QByteArray &contents) {
    void *copy = std::malloc(size_t(contents.size()) + 1);
    std::memcpy(copy, contents.constData(), size_t(contents.size()));
    return zip_file_add(archive, name,
                        zip_source_buffer(archive, copy, zip_uint64_t(contents.size()), 1), 0);
}

QByteArray zipOf(std::initializer_list<std::pair<const char *, QByteArray>> entries) {
    return makeZip([&](zip_t *archive) {
        for (const auto &[name, contents] : entries)
            addEntry(archive, name, contents);
    });
}

// The names of the entries in the order they are stored; fails the test on a wrong mtime.
QStringList entryNames(const QByteArray &data, time_t expectedTime) {
    zip_source_t *source =
        zip_source_buffer_create(data.constData(), zip_uint64_t(data.size()), 0, nullptr);
    zip_t *archive = zip_open_from_source(source, ZIP_RDONLY, nullptr);
    QStringList names;
    for (zip_int64_t i = 0; archive && i < zip_get_num_entries(archive, 0); ++i) {
        zip_stat_t stat;
        zip_stat_index(archive, zip_uint64_t(i), 0, &stat);
        names.append(QString::fromUtf8(stat.name) +
                     (stat.mtime == expectedTime ? u""_s : u"!time"_s));
    }
    if (archive)
        zip_discard(archive);
    return names;
}

HXFileWrapperRef file(const QByteArray &contents, const QString &name) {
    return HXFileWrapper::regularFileWithContents(contents, name);
}

HXFileWrapperRef folder(std::initializer_list<HXFileWrapperRef> children,
                        const QString &name = {}) {
    QMap<QString, HXFileWrapperRef> map;
    for (const HXFileWrapperRef &child : children)
        map.insert(child->preferredFilename(), child);
    return HXFileWrapper::directoryWithFileWrappers(map, name);
}

QByteArray randomBytes(int size) {
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &byte : bytes)
        byte = char(QRandomGenerator::global()->bounded(256));
    return bytes;
}

} // namespace

class tst_HXZipArchive : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void roundTripIsExactAndDeterministic();
    void layouts();
    void refusesBadArchives_data();
    void refusesBadArchives();
};

void tst_HXZipArchive::roundTripIsExactAndDeterministic() {
    const QByteArray text = QByteArray("<markup name=\"Screenplay\"/>\n").repeated(200);
    const auto tree = folder({file(text, u"Info.xml"_s), file({}, u"empty"_s),
                              folder({file(randomBytes(5000), u"a.png"_s), folder({}, u"Nothing"_s),
                                      file("h1 {}", u"é.css"_s)},
                                     u"Styles"_s)},
                             u"Theme"_s);
    const time_t fixedTime =
        time_t(QDateTime(QDate(2001, 1, 1), QTime(0, 0), Qt::LocalTime).toSecsSinceEpoch());
    QByteArray archives[2];
    for (const bool compress : {false, true}) {
        HXError error;
        const QByteArray data = HXZipArchive::zipDataFromFileWrapper(*tree, compress, &error);
        QVERIFY2(!data.isEmpty(), qPrintable(error.localizedDescription()));
        // Depth first, in name order, folders before what they hold, all at one fixed time.
        QCOMPARE(entryNames(data, fixedTime),
                 QStringList({u"Theme/"_s, u"Theme/Info.xml"_s, u"Theme/Styles/"_s,
                              u"Theme/Styles/Nothing/"_s, u"Theme/Styles/a.png"_s,
                              u"Theme/Styles/é.css"_s, u"Theme/empty"_s}));
        const auto read = HXZipArchive::fileWrapperFromZipData(data, u"Theme.zip"_s, &error);
        QVERIFY2(read, qPrintable(error.localizedDescription()));
        QCOMPARE(read->preferredFilename(), u"Theme"_s);
        QVERIFY(read->hasSameContentsAs(*tree));
        QCOMPARE(HXZipArchive::zipDataFromFileWrapper(*read, compress, &error), data);
        archives[compress] = data;
    }
    QVERIFY(archives[true].size() < archives[false].size() - text.size() / 2);

    // A folder without a name is written at the root, a regular file as one entry.
    const auto loose = folder({file("1", u"one"_s), folder({file("2", u"two"_s)}, u"sub"_s)});
    const auto back = HXZipArchive::fileWrapperFromZipData(
        HXZipArchive::zipDataFromFileWrapper(*loose, true, nullptr), u"x.zip"_s, nullptr);
    QVERIFY(back && back->preferredFilename().isEmpty() && back->hasSameContentsAs(*loose));
    const QByteArray single =
        HXZipArchive::zipDataFromFileWrapper(*file("x", u"f.txt"_s), true, nullptr);
    QCOMPARE(entryNames(single, fixedTime), QStringList{u"f.txt"_s});

    // A name that can't be a path component is refused when writing.
    HXError error;
    QVERIFY(
        HXZipArchive::zipDataFromFileWrapper(*folder({file("x", u".."_s)}, u"P"_s), false, &error)
            .isEmpty());
    QVERIFY(error.localizedDescription().contains(u"“..”"_s));
}

void tst_HXZipArchive::layouts() {
    // Two top-level entries: a nameless directory of both.
    HXError error;
    auto read = HXZipArchive::fileWrapperFromZipData(zipOf({{"a.txt", "A"}, {"b/c", "C"}}),
                                                     u"two.zip"_s, &error);
    QVERIFY2(read, qPrintable(error.localizedDescription()));
    QVERIFY(read->isDirectory() && read->preferredFilename().isEmpty());
    QVERIFY(read->hasSameContentsAs(
        *folder({file("A", u"a.txt"_s), folder({file("C", u"c"_s)}, u"b"_s)})));

    // Finder's leftovers go; a folder's own entry after its contents is no duplicate.
    read = HXZipArchive::fileWrapperFromZipData(
        zipOf({{"Pkg/a", "A"}, {"__MACOSX/Pkg/._a", "x"}, {"Pkg/.DS_Store", "x"}, {"Pkg/", {}}}),
        u"one.zip"_s, &error);
    QVERIFY2(read, qPrintable(error.localizedDescription()));
    QCOMPARE(read->preferredFilename(), u"Pkg"_s);
    QVERIFY(read->hasSameContentsAs(*folder({file("A", u"a"_s)})));

    // No entries at all, written and read.
    const QByteArray empty = HXZipArchive::zipDataFromFileWrapper(*folder({}), true, &error);
    read = HXZipArchive::fileWrapperFromZipData(empty, u"empty.zip"_s, &error);
    QVERIFY(read && read->isDirectory() && read->fileWrappers().isEmpty());
}

void tst_HXZipArchive::refusesBadArchives_data() {
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<quint64>("maximumEntryCount");
    QTest::addColumn<quint64>("maximumEntrySize");
    QTest::addColumn<quint64>("maximumTotalSize");
    QTest::addColumn<QString>("problem");
    const HXZipLimits normal;
    const auto row = [&](const char *tag, const QByteArray &data, const QString &problem,
                         const HXZipLimits &limits = {}) {
        QTest::newRow(tag) << data << limits.maximumEntryCount << limits.maximumEntrySize
                           << limits.maximumTotalSize << problem;
    };
    for (const char *path : {"../evil", "/abs", "a/../../b", "a\\b", "C:/x", "C:x", "a//b", "./a"})
        row(path, zipOf({{"ok", "1"}, {path, "x"}}), u"unsafe path"_s);
    row("symbolic link", makeZip([](zip_t *archive) {
            const zip_int64_t index = addEntry(archive, "link", "/etc/passwd");
            zip_file_set_external_attributes(archive, zip_uint64_t(index), 0, ZIP_OPSYS_UNIX,
                                             0120777u << 16);
        }),
        u"link"_s);
    // libzip itself refuses two entries of one name; a folder's entry and a file differ to it.
    row("duplicate", zipOf({{"dupA", "1"}, {"dupB", "2"}}).replace("dupB", "dupA"), u"damaged"_s);
    row("folder entry and file", zipOf({{"a/", {}}, {"a", "2"}}), u"more than once"_s);
    row("file and folder", zipOf({{"a", "1"}, {"a/b/c", "2"}}), u"“a” both as a file"_s);
    row("folder and file", zipOf({{"a/b/c", "1"}, {"a/b", "2"}}), u"“a/b” both as a file"_s);
    row("bomb", zipOf({{"zeros", QByteArray(1 << 20, '\0')}}), u"too large"_s,
        {normal.maximumEntryCount, 4096, normal.maximumTotalSize});
    row("total", zipOf({{"a", QByteArray(600, 'a')}, {"b", QByteArray(600, 'b')}}), u"too large"_s,
        {normal.maximumEntryCount, normal.maximumEntrySize, 1000});
    row("too many entries", zipOf({{"a", {}}, {"b", {}}, {"c", {}}, {"d", {}}, {"e", {}}}),
        u"more than 4 entries"_s, {4, normal.maximumEntrySize, normal.maximumTotalSize});

    // 64 KiB, a whole number of any read buffer: the CRC is checked only by reading on to the end.
    const QByteArray text =
        (randomBytes(64).toHex() +
         QByteArray("The quick brown fox jumps over the lazy dog. ").repeated(2000))
            .left(1 << 16);
    const QByteArray good = zipOf({{"text", text}});
    QByteArray understated = good;
    qToLittleEndian<quint32>(10, understated.data() + 22);
    qToLittleEndian<quint32>(10, understated.data() + understated.indexOf("PK\x01\x02") + 24);
    row("understated size", understated, u"more data than it declares"_s);
    QByteArray flipped = good;
    const int start = 30 + qFromLittleEndian<quint16>(good.constData() + 26) +
                      qFromLittleEndian<quint16>(good.constData() + 28);
    flipped[start + qFromLittleEndian<qint32>(good.constData() + 18) / 2] ^= 0x5a;
    row("flipped byte", flipped, u"damaged"_s);
    row("truncated", good.left(good.size() - 30), u"damaged"_s);
    row("garbage", randomBytes(2000), u"damaged"_s);
    row("nothing", QByteArray(), u"damaged"_s);
}

void tst_HXZipArchive::refusesBadArchives() {
    QFETCH(QByteArray, data);
    QFETCH(quint64, maximumEntryCount);
    QFETCH(quint64, maximumEntrySize);
    QFETCH(quint64, maximumTotalSize);
    QFETCH(QString, problem);
    QVERIFY(!data.isEmpty() || problem == u"damaged"_s);
    HXError error;
    const auto read = HXZipArchive::fileWrapperFromZipData(
        data, u"/tmp/bad.zip"_s, &error, {maximumEntryCount, maximumEntrySize, maximumTotalSize});
    QVERIFY(!read);
    const QString text = error.localizedDescription();
    QVERIFY2(text.contains(u"“/tmp/bad.zip”"_s) && text.contains(problem), qPrintable(text));
    QCOMPARE(error.userInfo().value(HXFilePathErrorKey).toString(), u"/tmp/bad.zip"_s);
    // The same archive within generous limits still fails, unless only the limits refused it.
    if (problem == u"too large"_s || problem.startsWith(u"more than 4"_s))
        QVERIFY(HXZipArchive::fileWrapperFromZipData(data, u"bad.zip"_s, nullptr));
}

HX_TEST_MAIN(tst_HXZipArchive)
#include "tst_HXZipArchive.moc"
