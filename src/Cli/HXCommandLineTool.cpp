#include "Cli/HXCommandLineTool.h"

#include "Utilities/HXPropertyList.h"
#include "Utilities/HXVersion.h"

#include <QFile>

#include <cstdio>

namespace {

// velmora-cli plist FILE: a property list, XML or binary, written out as XML.
int plistCommand(const QStringList &arguments) {
    if (arguments.size() != 1)
        return HXCommandLineTool::fail(
            QStringLiteral("plist: expected one file, got %1 arguments").arg(arguments.size()));
    const QString path = arguments.first();
    QByteArray bytes;
    QString failure;
    if (!HXCommandLineTool::readInput(path, &bytes, &failure))
        return HXCommandLineTool::fail(failure);
    HXError error;
    const QVariant value = HXPropertyList::fromData(
        bytes, path == u"-" ? QStringLiteral("standard input") : path, &error);
    if (!value.isValid())
        return HXCommandLineTool::fail(error.localizedDescription());
    const QByteArray xml = HXPropertyList::xmlData(value, &error);
    if (xml.isEmpty())
        return HXCommandLineTool::fail(error.localizedDescription() + u' ' +
                                       error.localizedFailureReason());
    HXCommandLineTool::writeOutput(xml);
    return 0;
}

} // namespace

HXCommandLineTool::HXCommandLineTool() {
    m_commands.append({QStringLiteral("plist"), QStringLiteral("plist FILE"),
                       QStringLiteral("Writes a property list, XML or binary, as XML ('-' reads "
                                      "standard input)."),
                       plistCommand});
}

int HXCommandLineTool::run(const QStringList &arguments) {
    if (arguments.size() < 2) {
        printHelp();
        return 1;
    }
    const QString &name = arguments.at(1);
    if (name == u"--help" || name == u"-h" || name == u"help") {
        printHelp();
        return 0;
    }
    if (name == u"--version") {
        writeOutput(QByteArray("velmora-cli " HX_VERSION_STRING "\n"));
        return 0;
    }
    for (const Command &command : m_commands) {
        if (command.name == name)
            return command.run(arguments.mid(2));
    }
    return fail(QStringLiteral("unknown command '%1'; see velmora-cli --help").arg(name));
}

void HXCommandLineTool::printHelp() const {
    QString text = QStringLiteral("Usage: velmora-cli COMMAND [ARGUMENTS]\n"
                                  "       velmora-cli --help | --version\n\n"
                                  "Commands:\n");
    for (const Command &command : m_commands)
        text += QStringLiteral("  %1\n      %2\n").arg(command.usage, command.summary);
    writeOutput(text.toUtf8());
}

void HXCommandLineTool::writeOutput(const QByteArray &bytes) {
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

int HXCommandLineTool::fail(const QString &message) {
    QString line = message;
    line.replace(u'\n', u' ');
    const QByteArray bytes = "velmora-cli: " + line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
    std::fflush(stderr);
    return 1;
}

bool HXCommandLineTool::readInput(const QString &path, QByteArray *bytes, QString *failure) {
    QFile file;
    const bool standardInput = path.isEmpty() || path == u"-";
    const bool opened = standardInput ? file.open(stdin, QIODevice::ReadOnly)
                                      : (file.setFileName(path), file.open(QIODevice::ReadOnly));
    if (!opened) {
        *failure = QStringLiteral("%1: %2").arg(
            standardInput ? QStringLiteral("standard input") : path, file.errorString());
        return false;
    }
    *bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        *failure = QStringLiteral("%1: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}
