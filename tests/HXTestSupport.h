#pragma once

#include "Utilities/HXAssert.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <cstdlib>
#include <functional>
#include <memory>

// Every test program runs with HOME and the XDG folders inside a temporary folder of its own, and
// with the platform's standard paths in test mode, so that no test reads or writes a real home
// folder. The folder is removed when the program ends.
namespace HXTestSupport {

inline QTemporaryDir &homeFolder() {
    static QTemporaryDir folder(QDir::tempPath() + QStringLiteral("/velmora-test-XXXXXX"));
    return folder;
}

inline void setUpEnvironment() {
    const QByteArray home = homeFolder().path().toUtf8();
    qputenv("HOME", home);
    qputenv("XDG_DATA_HOME", home + "/.local/share");
    qputenv("XDG_CONFIG_HOME", home + "/.config");
    qputenv("XDG_CACHE_HOME", home + "/.cache");
    qputenv("XDG_STATE_HOME", home + "/.local/state");
    qputenv("XDG_DOCUMENTS_DIR", home + "/Documents");
    // Lock files of file coordination; processes the test starts share them.
    qputenv("XDG_RUNTIME_DIR", home + "/.runtime");
    QDir().mkpath(QString::fromUtf8(home + "/.runtime"));
    // Qt insists on a runtime folder that only its owner can enter.
    QFile::setPermissions(QString::fromUtf8(home + "/.runtime"),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QStandardPaths::setTestModeEnabled(true);
}

// A path in the test data folder, tests/data.
inline QString dataPath(const QString &name) {
    return QString::fromLocal8Bit(qgetenv("VELMORA_TEST_DATA")) + u'/' + name;
}

// The text of the assertion that the block raises, or a null string when it raises none.
inline QString assertionText(const std::function<void()> &block) {
    try {
        block();
    } catch (const HXAssertionFailure &failure) {
        return failure.text();
    }
    return QString();
}

} // namespace HXTestSupport

#define HX_TEST_MAIN(TestClass)                                                                    \
    int main(int argc, char *argv[]) {                                                             \
        HXTestSupport::setUpEnvironment();                                                         \
        QCoreApplication application(argc, argv);                                                  \
        TestClass test;                                                                            \
        return QTest::qExec(&test, argc, argv);                                                    \
    }
