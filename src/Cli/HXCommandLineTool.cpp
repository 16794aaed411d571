#include "Cli/HXCommandLineTool.h"

#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXMutableString.h"
#include "Text/String/Access/HXStringXML.h"
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

// A built-in markup by identifier, or a markup file by path.
std::shared_ptr<HXMarkup> markupNamed(const QString &name, QString *failure) {
    if (const auto builtIn = HXMarkup::intrinsicMarkups().value(name))
        return builtIn;
    if (!QFile::exists(name)) {
        *failure = QStringLiteral("unknown markup '%1'").arg(name);
        return nullptr;
    }
    QByteArray bytes;
    if (!HXCommandLineTool::readInput(name, &bytes, failure))
        return nullptr;
    HXError error;
    const auto markup = HXMarkup::markupWithData(bytes, &error);
    if (!markup)
        *failure = QStringLiteral("%1: %2").arg(name, error.localizedFailureReason().isEmpty()
                                                          ? error.localizedDescription()
                                                          : error.localizedFailureReason());
    return markup;
}

QString inputName(const QString &path) {
    return path.isEmpty() || path == u"-" ? QStringLiteral("standard input") : path;
}

// velmora-cli string parse|text --markup M [--definitions N] [FILE]
int stringCommand(const QStringList &arguments) {
    if (arguments.isEmpty() || (arguments.first() != u"parse" && arguments.first() != u"text"))
        return HXCommandLineTool::fail(
            QStringLiteral("string: expected 'parse' or 'text', see velmora-cli --help"));
    const bool parse = arguments.first() == u"parse";
    QString markupName, path;
    HXDefinitionSelector definitions = HXDefaultDefinitionSelector;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        if (argument == u"--markup" && i + 1 < arguments.size()) {
            markupName = arguments.at(++i);
        } else if (parse && argument == u"--definitions" && i + 1 < arguments.size()) {
            bool ok = false;
            definitions = arguments.at(++i).toLongLong(&ok, 0);
            if (!ok)
                return HXCommandLineTool::fail(
                    QStringLiteral("string: '%1' is no definition selector").arg(arguments.at(i)));
        } else if (path.isNull() && (!argument.startsWith(u'-') || argument == u"-")) {
            path = argument;
        } else {
            return HXCommandLineTool::fail(
                QStringLiteral("string: unexpected argument '%1'").arg(argument));
        }
    }
    if (markupName.isEmpty())
        return HXCommandLineTool::fail(QStringLiteral("string: --markup is required"));
    QString failure;
    const auto markup = markupNamed(markupName, &failure);
    if (!markup)
        return HXCommandLineTool::fail(failure);
    QByteArray bytes;
    if (!HXCommandLineTool::readInput(path, &bytes, &failure))
        return HXCommandLineTool::fail(failure);
    if (parse) {
        const auto string =
            HXString::stringWithString(QString::fromUtf8(bytes), markup, definitions);
        HXCommandLineTool::writeOutput(HXStringXML::XMLData(*string));
        return 0;
    }
    HXError error;
    const auto string = HXStringXML::stringWithXMLData(bytes, markup, definitions, &error);
    if (!string)
        return HXCommandLineTool::fail(
            QStringLiteral("%1: %2").arg(inputName(path), error.localizedFailureReason().isEmpty()
                                                              ? error.localizedDescription()
                                                              : error.localizedFailureReason()));
    HXCommandLineTool::writeOutput(string->string().toUtf8());
    return 0;
}

// velmora-cli markup show M
int markupCommand(const QStringList &arguments) {
    if (arguments.size() != 2 || arguments.first() != u"show")
        return HXCommandLineTool::fail(QStringLiteral("markup: expected 'show MARKUP'"));
    QString failure;
    const auto markup = markupNamed(arguments.at(1), &failure);
    if (!markup)
        return HXCommandLineTool::fail(failure);
    HXCommandLineTool::writeOutput(markup->XMLData());
    return 0;
}

} // namespace

HXCommandLineTool::HXCommandLineTool() {
    m_commands.append({QStringLiteral("plist"), QStringLiteral("plist FILE"),
                       QStringLiteral("Writes a property list, XML or binary, as XML ('-' reads "
                                      "standard input)."),
                       plistCommand});
    m_commands.append(
        {QStringLiteral("string"),
         QStringLiteral("string parse --markup M [--definitions N] [FILE]\n"
                        "  string text --markup M [FILE]"),
         QStringLiteral("Parses UTF-8 text under markup M (a built-in identifier such as "
                        "markdownqr, or a markup.xml) and writes the string as XML; 'text' reads "
                        "such XML and writes its characters. N is the definition selector "
                        "(default 63)."),
         stringCommand});
    m_commands.append({QStringLiteral("markup"), QStringLiteral("markup show M"),
                       QStringLiteral("Writes markup M as markup.xml."), markupCommand});
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
