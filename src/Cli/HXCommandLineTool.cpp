#include "Cli/HXCommandLineTool.h"

#include "Model/Stores/HXMarkupStore.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Access/HXStringXML.h"
#include "TextSystem/Actor/HXTextEditor.h"
#include "Utilities/HXLineEnds.h"
#include "Utilities/HXPropertyList.h"
#include "Utilities/HXUndoManager.h"
#include "Utilities/HXVersion.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

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

QString inputName(const QString &path) {
    return path.isEmpty() || path == u"-" ? QStringLiteral("standard input") : path;
}

QString readerFailure(const HXError &error) {
    return error.localizedFailureReason().isEmpty() ? error.localizedDescription()
                                                    : error.localizedFailureReason();
}

// The line of an edit script as a step, or a problem in `failure`. Besides plain replacements,
// a script drives the editor as a user would: a selection, typing, keys and tags.
struct EditStep {
    enum Kind { Replace, Undo, Redo, Break, Select, Type, Key, Toggle } kind = Replace;
    HXRange range;
    QString text;
};

// A JSON string literal, read as the one element of an array.
bool readJSONString(const QString &literal, QString *text, QString *failure) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson("[" + literal.toUtf8() + "]", &error);
    if (error.error != QJsonParseError::NoError || document.array().size() != 1 ||
        !document.array().first().isString()) {
        *failure = QStringLiteral("TEXT is no JSON string literal: %1").arg(literal);
        return false;
    }
    *text = HXStringByNormalizingLineEnds(document.array().first().toString());
    return true;
}

bool readRange(const QRegularExpressionMatch &match, HXRange *range, QString *failure) {
    bool locationOk = false, lengthOk = false;
    *range = HXRange{match.captured(1).toULongLong(&locationOk),
                     match.captured(2).toULongLong(&lengthOk)};
    if (!locationOk || !lengthOk)
        *failure = QStringLiteral("location or length too large");
    return locationOk && lengthOk;
}

bool parseEditStep(const QString &line, EditStep *step, QString *failure) {
    const QString trimmed = line.trimmed();
    if (trimmed == u"undo" || trimmed == u"redo" || trimmed == u"break") {
        step->kind = trimmed == u"undo"   ? EditStep::Undo
                     : trimmed == u"redo" ? EditStep::Redo
                                          : EditStep::Break;
        return true;
    }
    static const QRegularExpression replace(
        QStringLiteral("^replace[ \\t]+(\\d+)[ \\t]+(\\d+)[ \\t]+(\".*\")$"));
    static const QRegularExpression select(QStringLiteral("^select[ \\t]+(\\d+)[ \\t]+(\\d+)$"));
    static const QRegularExpression type(QStringLiteral("^type[ \\t]+(\".*\")$"));
    static const QRegularExpression key(QStringLiteral("^key[ \\t]+(\\S+)$"));
    static const QRegularExpression toggle(QStringLiteral("^toggle[ \\t]+(\\S+)$"));
    QRegularExpressionMatch match;
    if ((match = replace.match(trimmed)).hasMatch()) {
        step->kind = EditStep::Replace;
        return readRange(match, &step->range, failure) &&
               readJSONString(match.captured(3), &step->text, failure);
    }
    if ((match = select.match(trimmed)).hasMatch()) {
        step->kind = EditStep::Select;
        return readRange(match, &step->range, failure);
    }
    if ((match = type.match(trimmed)).hasMatch()) {
        step->kind = EditStep::Type;
        return readJSONString(match.captured(1), &step->text, failure);
    }
    if ((match = key.match(trimmed)).hasMatch()) {
        step->kind = EditStep::Key;
        step->text = match.captured(1);
        static const QStringList keys{QStringLiteral("return"), QStringLiteral("backspace"),
                                      QStringLiteral("delete"), QStringLiteral("tab"),
                                      QStringLiteral("backtab")};
        if (!keys.contains(step->text)) {
            *failure = QStringLiteral(
                           "unknown key '%1': expected return, backspace, delete, tab or backtab")
                           .arg(step->text);
            return false;
        }
        return true;
    }
    if ((match = toggle.match(trimmed)).hasMatch()) {
        step->kind = EditStep::Toggle;
        step->text = match.captured(1);
        return true;
    }
    *failure = QStringLiteral("expected 'replace LOCATION LENGTH TEXT', 'select LOCATION LENGTH', "
                              "'type TEXT', 'key KEY', 'toggle DEFINITION', 'undo', 'redo' or "
                              "'break', got '%1'")
                   .arg(trimmed);
    return false;
}

// Runs an edit script against the string; false with the line's problem in `failure`.
bool runEditScript(const QString &scriptPath, const QByteArray &script,
                   const std::shared_ptr<HXAtomicString> &string, HXUndoManager &undo,
                   QString *failure) {
    auto storage = std::make_shared<HXTextStorage>();
    storage->setContent(string);
    HXTextEditor editor(storage);
    const QStringList lines = HXStringByNormalizingLineEnds(QString::fromUtf8(script)).split(u'\n');
    for (qsizetype number = 0; number < lines.size(); ++number) {
        const QString &line = lines.at(number);
        if (line.trimmed().isEmpty() || line.trimmed().startsWith(u'#'))
            continue;
        auto fail = [&](const QString &problem) {
            *failure = QStringLiteral("%1:%2: %3").arg(scriptPath).arg(number + 1).arg(problem);
            return false;
        };
        EditStep step;
        QString problem;
        if (!parseEditStep(line, &step, &problem))
            return fail(problem);
        const quint64 length = string->length();
        auto outOfBounds = [&] {
            return step.range.location > length || step.range.length > length - step.range.location;
        };
        auto boundsProblem = [&] {
            return QStringLiteral("range {%1, %2} out of bounds of text of length %3")
                .arg(step.range.location)
                .arg(step.range.length)
                .arg(length);
        };
        switch (step.kind) {
        case EditStep::Undo:
            if (!undo.canUndo())
                return fail(QStringLiteral("nothing to undo"));
            undo.undo();
            break;
        case EditStep::Redo:
            if (!undo.canRedo())
                return fail(QStringLiteral("nothing to redo"));
            undo.redo();
            break;
        case EditStep::Break:
            string->breakUndoCoalescing();
            break;
        case EditStep::Replace:
            if (outOfBounds())
                return fail(boundsProblem());
            string->replaceCharactersInRange(step.range, HXChunk(step.text));
            break;
        case EditStep::Select:
            if (outOfBounds())
                return fail(boundsProblem());
            editor.setSelectedRange(step.range);
            break;
        case EditStep::Type:
            if (editor.selectedRange().max() > length)
                editor.setSelectedRange(HXRange{length, 0});
            editor.insertText(step.text);
            break;
        case EditStep::Key:
            if (editor.selectedRange().max() > length)
                editor.setSelectedRange(HXRange{length, 0});
            if (step.text == u"return")
                editor.insertNewline();
            else if (step.text == u"backspace")
                editor.deleteBackward();
            else if (step.text == u"delete")
                editor.deleteForward();
            else if (step.text == u"backtab")
                editor.insertBacktab();
            else
                editor.insertTab();
            break;
        case EditStep::Toggle: {
            const auto &markup = string->markup();
            HXTextTagRef tag = markup->defaultTagWithIdentifier(step.text);
            if (!tag)
                tag = markup->allTagsWithIdentifier(step.text).value(0);
            if (!tag)
                return fail(QStringLiteral("markup '%1' has no tag for '%2'")
                                .arg(markup->identifier(), step.text));
            if (editor.selectedRange().max() > length)
                editor.setSelectedRange(HXRange{length, 0});
            editor.toggleTag(tag);
            break;
        }
        }
    }
    return true;
}

// velmora-cli string convert --markup M --to M2 [FILE]: the string of the XML, under M, copied
// into an empty string of M2 and written as XML; what the copy loses goes to standard error.
int convertStringCommand(const QStringList &arguments) {
    QString markupName, targetName, path;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        const bool hasValue = i + 1 < arguments.size();
        if (argument == u"--markup" && hasValue)
            markupName = arguments.at(++i);
        else if (argument == u"--to" && hasValue)
            targetName = arguments.at(++i);
        else if (path.isNull() && (!argument.startsWith(u'-') || argument == u"-"))
            path = argument;
        else
            return HXCommandLineTool::fail(
                QStringLiteral("string: unexpected argument '%1'").arg(argument));
    }
    if (markupName.isEmpty() || targetName.isEmpty())
        return HXCommandLineTool::fail(QStringLiteral("string: --markup and --to are required"));
    QString failure;
    const auto markup = HXCommandLineTool::markupNamed(markupName, &failure);
    const auto targetMarkup =
        markup ? HXCommandLineTool::markupNamed(targetName, &failure) : nullptr;
    QByteArray bytes;
    if (!targetMarkup || !HXCommandLineTool::readInput(path, &bytes, &failure))
        return HXCommandLineTool::fail(failure);
    HXError error;
    const auto source =
        HXStringXML::stringWithXMLData(bytes, markup, HXDefaultDefinitionSelector, &error);
    if (!source)
        return HXCommandLineTool::fail(
            QStringLiteral("%1: %2").arg(inputName(path), readerFailure(error)));
    const auto target = HXMutableString::stringWithMarkup(targetMarkup);
    QStringList losses = source->lossDescriptionsForCopyingToString(*target).values();
    losses.sort();
    source->copyToString(*target);
    HXCommandLineTool::writeOutput(HXStringXML::XMLData(*target));
    for (const QString &loss : std::as_const(losses)) {
        const QByteArray line = "loss: " + loss.toUtf8() + '\n';
        std::fwrite(line.constData(), 1, size_t(line.size()), stderr);
    }
    std::fflush(stderr);
    return 0;
}

// velmora-cli string parse|text|edit --markup M [--definitions N] [--script SCRIPT] [FILE]
int stringCommand(const QStringList &arguments) {
    const QString verb = arguments.value(0);
    if (verb == u"convert")
        return convertStringCommand(arguments.mid(1));
    if (verb != u"parse" && verb != u"text" && verb != u"edit")
        return HXCommandLineTool::fail(QStringLiteral(
            "string: expected 'parse', 'text', 'edit' or 'convert', see velmora-cli --help"));
    QString markupName, path, scriptPath;
    HXDefinitionSelector definitions = HXDefaultDefinitionSelector;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        const bool hasValue = i + 1 < arguments.size();
        if (argument == u"--markup" && hasValue) {
            markupName = arguments.at(++i);
        } else if (verb != u"text" && argument == u"--definitions" && hasValue) {
            bool ok = false;
            definitions = arguments.at(++i).toLongLong(&ok, 0);
            if (!ok)
                return HXCommandLineTool::fail(
                    QStringLiteral("string: '%1' is no definition selector").arg(arguments.at(i)));
        } else if (verb == u"edit" && argument == u"--script" && hasValue) {
            scriptPath = arguments.at(++i);
        } else if (path.isNull() && (!argument.startsWith(u'-') || argument == u"-")) {
            path = argument;
        } else {
            return HXCommandLineTool::fail(
                QStringLiteral("string: unexpected argument '%1'").arg(argument));
        }
    }
    if (markupName.isEmpty())
        return HXCommandLineTool::fail(QStringLiteral("string: --markup is required"));
    if (verb == u"edit" && scriptPath.isEmpty())
        return HXCommandLineTool::fail(QStringLiteral("string: --script is required"));
    QString failure;
    const auto markup = HXCommandLineTool::markupNamed(markupName, &failure);
    if (!markup)
        return HXCommandLineTool::fail(failure);
    QByteArray script;
    if (verb == u"edit" && !HXCommandLineTool::readInput(scriptPath, &script, &failure))
        return HXCommandLineTool::fail(failure);
    QByteArray bytes;
    if (!HXCommandLineTool::readInput(path, &bytes, &failure))
        return HXCommandLineTool::fail(failure);

    if (verb == u"text") {
        HXError error;
        const auto string = HXStringXML::stringWithXMLData(bytes, markup, definitions, &error);
        if (!string)
            return HXCommandLineTool::fail(
                QStringLiteral("%1: %2").arg(inputName(path), readerFailure(error)));
        HXCommandLineTool::writeOutput(string->string().toUtf8());
        return 0;
    }
    const QString text = HXStringByNormalizingLineEnds(QString::fromUtf8(bytes));
    if (verb == u"parse") {
        const auto string = HXString::stringWithString(text, markup, definitions);
        HXCommandLineTool::writeOutput(HXStringXML::XMLData(*string));
        return 0;
    }
    const auto string = HXAtomicString::stringWithMarkup(markup, definitions);
    string->setString(text);
    const auto undo = std::make_shared<HXUndoManager>();
    string->setUndoManager(undo);
    if (!runEditScript(scriptPath, script, string, *undo, &failure))
        return HXCommandLineTool::failLine(failure);
    HXCommandLineTool::writeOutput(HXStringXML::XMLData(*string));
    return 0;
}

// velmora-cli markup show M
int markupCommand(const QStringList &arguments) {
    if (arguments.size() != 2 || arguments.first() != u"show")
        return HXCommandLineTool::fail(QStringLiteral("markup: expected 'show MARKUP'"));
    QString failure;
    const auto markup = HXCommandLineTool::markupNamed(arguments.at(1), &failure);
    if (!markup)
        return HXCommandLineTool::fail(failure);
    HXCommandLineTool::writeOutput(markup->XMLData());
    return 0;
}

} // namespace

bool HXCommandLineTool::takeOption(QStringList &arguments, const QString &name, QString *value,
                                   int *status) {
    const qsizetype at = arguments.indexOf(name);
    if (at < 0)
        return true;
    if (at + 1 >= arguments.size() || arguments.at(at + 1).startsWith(QStringLiteral("--"))) {
        *status = fail(QStringLiteral("%1 needs a value").arg(name));
        return false;
    }
    *value = arguments.at(at + 1);
    arguments.remove(at, 2);
    return true;
}

// A built-in markup by identifier, or a markup file by path.
std::shared_ptr<HXMarkup> HXCommandLineTool::markupNamed(const QString &name, QString *failure) {
    if (const auto builtIn = HXMarkup::intrinsicMarkups().value(name))
        return builtIn;
    // A user markup of the store, by identifier.
    if (!name.contains(u'/') && !name.contains(u'.')) {
        if (const auto stored = HXMarkupStore::create()->markupWithIdentifier(name))
            return stored;
    }
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

HXCommandLineTool::HXCommandLineTool() {
    m_commands.append({QStringLiteral("plist"), QStringLiteral("plist FILE"),
                       QStringLiteral("Writes a property list, XML or binary, as XML ('-' reads "
                                      "standard input)."),
                       plistCommand});
    m_commands.append(
        {QStringLiteral("string"),
         QStringLiteral("string parse --markup M [--definitions N] [FILE]\n"
                        "  string text --markup M [FILE]\n"
                        "  string edit --markup M [--definitions N] --script SCRIPT [FILE]\n"
                        "  string convert --markup M --to M2 [FILE]"),
         QStringLiteral("Parses UTF-8 text under markup M (a built-in identifier such as "
                        "markdownqr, or a markup.xml) and writes the string as XML; 'text' reads "
                        "such XML and writes its characters; 'edit' runs the lines of SCRIPT "
                        "(replace LOCATION LENGTH \"JSON text\", undo, redo, break) against the "
                        "parsed text and writes the result as XML; 'convert' reads such XML "
                        "under M, copies it into markup M2, writes that as XML and each "
                        "definition the copy loses as 'loss: IDENTIFIER' on standard error. N is "
                        "the definition selector (default 63)."),
         stringCommand});
    m_commands.append({QStringLiteral("markup"), QStringLiteral("markup show M"),
                       QStringLiteral("Writes markup M as markup.xml."), markupCommand});
    m_commands.append(
        {QStringLiteral("markups"),
         QStringLiteral("markups list [--json]\n  markups add FILE\n  markups remove ID\n"
                        "  markups reset ID"),
         QStringLiteral("The markup store: lists every markup (identifier, display name, built-in "
                        "or user, enabled); adds a markup.xml, a package folder holding one or a "
                        "ZIP archive of it and prints its new identifier; removes a user markup; "
                        "resets a built-in one to its initial state."),
         HXMarkupsCommand});
    m_commands.append(
        {QStringLiteral("sheet"),
         QStringLiteral("sheet create PATH.velmora [--markup M] [TEXT-FILE]\n"
                        "  sheet show PATH [--json]\n  sheet set-text PATH [TEXT-FILE]\n"
                        "  sheet attach PATH (--note TEXT | --file FILE | --keywords K1,K2 | "
                        "--goal COUNTER:TYPE:TARGET)\n  sheet versions PATH"),
         QStringLiteral("One sheet package: makes one from UTF-8 text (standard input when no "
                        "file is given); writes its text, or with --json its text, markup, "
                        "format version, notes, keywords, file names and goal; replaces its "
                        "text; adds a note, a file, keywords or sets the goal (TYPE is close_to, "
                        "at_least or at_most); lists the versions kept of it, newest first."),
         HXSheetCommand});
    m_commands.append(
        {QStringLiteral("library"),
         QStringLiteral("library init [LIB]\n  library tree [LIB] [--json]\n"
                        "  library add-group LIB PARENT NAME\n"
                        "  library add-sheet LIB PARENT [TEXT-FILE]\n"
                        "  library rename LIB ITEM NAME\n  library reorder LIB ITEM INDEX\n"
                        "  library cluster LIB SHEET SHEET…\n  library watch [LIB]"),
         QStringLiteral("A library of groups and sheets (LIB defaults to the local library): "
                        "makes or completes one; writes its tree, or with --json one object per "
                        "container; adds a group or a sheet (printing its file name); renames a "
                        "container; moves an item to an index in its group; joins sheets into "
                        "one cluster in the order given; prints one JSON line per change of the "
                        "tree until interrupted. PARENT and ITEM are a path of names from the "
                        "root (\"Library/Novel\") or a file name."),
         HXLibraryCommand});
    m_commands.append(
        {QStringLiteral("stats"),
         QStringLiteral("stats [--json] [--markup M] [--chars-per-line N] [--lines-per-page N] "
                        "FILE…"),
         QStringLiteral("Counts text files (parsed under M, default markdownqr) and sheet "
                        "packages: for each file, then for all together, one row per counter in "
                        "display order (identifier and value); with --json an object per file "
                        "and a 'total' object, counter identifiers as keys and numbers as values. "
                        "Lines and pages follow the norm page (60 characters a line, 30 lines a "
                        "page unless set)."),
         HXStatsCommand});
    m_commands.append(
        {QStringLiteral("goal"),
         QStringLiteral("goal --counter ID --target N --type close_to|at_least|at_most [--json] "
                        "FILE…"),
         QStringLiteral("Measures the files' combined count of counter ID against the goal: "
                        "lines 'count', 'progress' and 'status' (empty, in_progress, "
                        "almost_reached, reached, exceeded), or one JSON object. Takes the "
                        "options of stats too."),
         HXGoalCommand});
    m_commands.append(
        {QStringLiteral("themes"), QStringLiteral("themes list [--json]"),
         QStringLiteral("The theme store: lists every theme (identifier, display name, built-in "
                        "or user, enabled or disabled), or with --json one object per theme."),
         HXThemesCommand});
    m_commands.append(
        {QStringLiteral("theme"), QStringLiteral("theme show ID [--dark]"),
         QStringLiteral("The look of theme ID in the light (or dark) mode: background and "
                        "foreground, then per scope ('scope:NAME') and per built-in definition "
                        "the text, tag and highlight colours (#rrggbb, '-' for none) and the "
                        "traits (bold, italic, underline, strikethrough; '-' for none), "
                        "tab-separated."),
         HXThemeCommand});
    m_commands.append(
        {QStringLiteral("layout"),
         QStringLiteral("layout --width PIXELS [--font FAMILY --size POINTS] [--markup M] [FILE]"),
         QStringLiteral("Lays out UTF-8 text (parsed under M, default markdownqr; standard input "
                        "when no file or '-' is given) in a column PIXELS wide, in the font given "
                        "(default DejaVu Sans, 12 points), tags hanging in the margin: one JSON "
                        "object per line, in order, with the paragraph's number, the line's "
                        "location and length in the text (line feeds left out) and its x, y, "
                        "width and height in pixels."),
         HXLayoutCommand});
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
    return failLine(QStringLiteral("velmora-cli: ") + message);
}

int HXCommandLineTool::failLine(const QString &message) {
    QString line = message;
    line.replace(u'\n', u' ');
    const QByteArray bytes = line.toUtf8() + '\n';
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
