#include "Cli/HXCommandLineTool.h"
#include "Model/Attachments/HXCountingGoal.h"
#include "Model/Attachments/HXFileAttachment.h"
#include "Model/Attachments/HXKeywordsAttachment.h"
#include "Model/Attachments/HXNoteAttachment.h"
#include "Model/Persistence/HXVersionStore.h"
#include "Model/Sheets/HXContext.h"
#include "Model/Sheets/HXNativeSheet.h"
#include "Model/Stores/HXMarkupStore.h"
#include "Text/String/Access/HXAtomicString.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

QString reason(const std::optional<HXError> &error) {
    if (!error)
        return QStringLiteral("unknown error");
    const QString description = error->localizedDescription();
    const QString failure = error->localizedFailureReason();
    if (failure.isEmpty() || failure == description)
        return description;
    return description + u' ' + failure;
}

int save(const std::shared_ptr<HXNativeSheet> &sheet, const QString &path) {
    HXError error;
    const bool saved =
        sheet->saveToURL(QFileInfo(path).absoluteFilePath(), HXDocument::SaveOperationSave, &error);
    HXDocument::waitForCompletion(
        [&](auto handler) { sheet->closeWithCompletionHandler(handler); });
    if (!saved)
        return HXCommandLineTool::fail(QStringLiteral("%1: %2").arg(path, reason(error)));
    return 0;
}

bool readText(const QString &file, QString *text, int *status) {
    QByteArray bytes;
    QString failure;
    if (!HXCommandLineTool::readInput(file, &bytes, &failure)) {
        *status = HXCommandLineTool::fail(failure);
        return false;
    }
    *text = QString::fromUtf8(bytes);
    return true;
}

void setText(HXNativeSheet &sheet, const QString &text) {
    const auto string = sheet.text();
    string->replaceCharactersInRange(HXRange{0, string->length()}, HXReplacement(text));
}

// velmora-cli sheet create PATH.velmora [--markup M] [TEXT-FILE]
int create(QStringList arguments) {
    QString markupName;
    if (const qsizetype at = arguments.indexOf(QStringLiteral("--markup")); at >= 0) {
        markupName = arguments.value(at + 1);
        if (markupName.isEmpty())
            return HXCommandLineTool::fail(QStringLiteral("sheet create: --markup needs a markup"));
        arguments.remove(at, 2);
    }
    if (arguments.isEmpty() || arguments.size() > 2)
        return HXCommandLineTool::fail(
            QStringLiteral("sheet create: expected PATH.velmora [--markup M] [TEXT-FILE]"));
    const QString path = arguments.first();
    if (QFileInfo(path).suffix() != HXNativeSheet::pathExtension)
        return HXCommandLineTool::fail(QStringLiteral("%1: a sheet's name ends in .%2")
                                           .arg(path, HXNativeSheet::pathExtension));
    if (QFileInfo::exists(path))
        return HXCommandLineTool::fail(QStringLiteral("%1: already exists").arg(path));
    std::shared_ptr<HXMarkup> markup;
    if (!markupName.isEmpty()) {
        QString failure;
        markup = HXCommandLineTool::markupNamed(markupName, &failure);
        if (!markup)
            return HXCommandLineTool::fail(failure);
        if (const auto shared = HXMarkupStore::globalStore()->markupEqualToMarkup(*markup))
            markup = shared;
    }
    QString text;
    int status = 0;
    if (!readText(arguments.value(1), &text, &status))
        return status;
    const auto sheet = HXNativeSheet::sheetWithMarkup(markup);
    setText(*sheet, text);
    return save(sheet, path);
}

QJsonValue goalObject(const std::shared_ptr<HXCountingGoal> &goal) {
    if (!goal)
        return QJsonValue::Null;
    return QJsonObject{{QStringLiteral("counter"), goal->counterIdentifier()},
                       {QStringLiteral("type"), HXCountingGoal::typeText(goal->type())},
                       {QStringLiteral("target"), goal->targetResult().value_or(0)}};
}

// velmora-cli sheet show PATH [--json]
int show(const QStringList &arguments) {
    const bool json = arguments.size() == 2 && arguments.at(1) == u"--json";
    if (arguments.size() != 1 && !json)
        return HXCommandLineTool::fail(QStringLiteral("sheet show: expected PATH [--json]"));
    int status = 0;
    const auto sheet = HXCommandLineOpenSheet(arguments.first(), true, &status);
    if (!sheet)
        return status;
    const QString text = sheet->text()->string();
    if (!json) {
        HXCommandLineTool::writeOutput(text.toUtf8());
        return 0;
    }
    QJsonArray notes;
    for (const auto &note : sheet->noteAttachments())
        notes.append(note->text() ? note->text()->string() : QString());
    QJsonArray files;
    for (const auto &file : sheet->fileAttachments()) {
        if (file->fileWrapper())
            files.append(HXContext::filenameByRemovingIdentifierFromFilename(
                file->fileWrapper()->preferredFilename()));
    }
    const auto keywords = sheet->keywordsAttachment();
    const QJsonObject object{
        {QStringLiteral("text"), text},
        {QStringLiteral("markup"), sheet->markup() ? sheet->markup()->identifier() : QString()},
        {QStringLiteral("version"), sheet->contentVersion()},
        {QStringLiteral("notes"), notes},
        {QStringLiteral("keywords"),
         QJsonArray::fromStringList(keywords ? keywords->keywords() : QStringList())},
        {QStringLiteral("files"), files},
        {QStringLiteral("goal"), goalObject(sheet->countingGoal())}};
    HXCommandLineTool::writeOutput(QJsonDocument(object).toJson(QJsonDocument::Indented));
    return 0;
}

// velmora-cli sheet set-text PATH [TEXT-FILE]
int setTextCommand(const QStringList &arguments) {
    if (arguments.isEmpty() || arguments.size() > 2)
        return HXCommandLineTool::fail(QStringLiteral("sheet set-text: expected PATH [TEXT-FILE]"));
    QString text;
    int status = 0;
    if (!readText(arguments.value(1), &text, &status))
        return status;
    const auto sheet = HXCommandLineOpenSheet(arguments.first(), false, &status);
    if (!sheet)
        return status;
    setText(*sheet, text);
    return save(sheet, arguments.first());
}

// velmora-cli sheet attach PATH (--note TEXT | --file FILE | --keywords K1,K2 | --goal C:T:N)
int attach(const QStringList &arguments) {
    const QString kind = arguments.value(1);
    const QStringList kinds{QStringLiteral("--note"), QStringLiteral("--file"),
                            QStringLiteral("--keywords"), QStringLiteral("--goal")};
    if (arguments.size() != 3 || !kinds.contains(kind))
        return HXCommandLineTool::fail(QStringLiteral(
            "sheet attach: expected PATH (--note TEXT | --file FILE | --keywords K1,K2 | "
            "--goal COUNTER:TYPE:TARGET)"));
    const QString path = arguments.first();
    const QString value = arguments.at(2);

    // The value is checked before the sheet is touched.
    HXFileWrapperRef file;
    QStringList keywords;
    std::shared_ptr<HXCountingGoal> goal;
    if (kind == u"--file") {
        if (!QFileInfo(value).isFile())
            return HXCommandLineTool::fail(QStringLiteral("%1: no such file").arg(value));
        HXError error;
        file = HXFileWrapper::fileWrapperWithPath(value, &error);
        if (!file)
            return HXCommandLineTool::fail(QStringLiteral("%1: %2").arg(value, reason(error)));
        file->setPreferredFilename(QFileInfo(value).fileName());
    } else if (kind == u"--keywords") {
        for (const QString &keyword : value.split(u',')) {
            if (!keyword.trimmed().isEmpty() && !keywords.contains(keyword.trimmed()))
                keywords.append(keyword.trimmed());
        }
        if (keywords.isEmpty())
            return HXCommandLineTool::fail(QStringLiteral("%1: no keywords given").arg(path));
    } else if (kind == u"--goal") {
        const QStringList parts = value.split(u':');
        bool number = false;
        const double target = parts.value(2).toDouble(&number);
        const QStringList types{QStringLiteral("close_to"), QStringLiteral("at_least"),
                                QStringLiteral("at_most")};
        if (parts.size() != 3 || parts.at(0).isEmpty() || !types.contains(parts.at(1)) || !number ||
            target <= 0)
            return HXCommandLineTool::fail(
                QStringLiteral("%1: a goal is COUNTER:TYPE:TARGET, TYPE one of close_to, at_least, "
                               "at_most and TARGET a positive number, not '%2'")
                    .arg(path, value));
        goal = std::make_shared<HXCountingGoal>();
        goal->setCounterIdentifier(parts.at(0));
        goal->setType(HXCountingGoal::typeFromText(parts.at(1)));
        goal->setTargetResult(target);
    }

    int status = 0;
    const auto sheet = HXCommandLineOpenSheet(path, false, &status);
    if (!sheet)
        return status;
    if (kind == u"--note") {
        const auto note = HXNoteAttachment::noteWithMarkup(sheet->markup());
        note->text()->replaceCharactersInRange(HXRange{0, 0}, HXReplacement(value));
        sheet->setNoteAttachments(sheet->noteAttachments() << note);
    } else if (file) {
        const auto attachment = std::make_shared<HXFileAttachment>();
        attachment->setFileWrapper(file);
        sheet->setFileAttachments(sheet->fileAttachments() << attachment);
    } else if (!keywords.isEmpty()) {
        auto present = sheet->keywordsAttachment();
        const auto added = std::make_shared<HXKeywordsAttachment>();
        added->setKeywords(keywords);
        if (present) {
            HXKeywordsAttachment::mergeKeywordsAttachment(*added, *present);
        } else {
            sheet->setKeywordsAttachment(added);
        }
    } else if (goal) {
        sheet->setCountingGoal(goal);
    }
    return save(sheet, path);
}

// velmora-cli sheet versions PATH
int versions(const QStringList &arguments) {
    if (arguments.size() != 1)
        return HXCommandLineTool::fail(QStringLiteral("sheet versions: expected PATH"));
    const QString path = QFileInfo(arguments.first()).absoluteFilePath();
    if (!QFileInfo(path).isDir())
        return HXCommandLineTool::fail(QStringLiteral("%1: not a sheet package").arg(path));
    QByteArray text;
    for (const HXFileVersion &version : HXVersionStore::versionsOfItem(path)) {
        text += QStringLiteral("%1\t%2\n")
                    .arg(version.modificationDate.toUTC().toString(Qt::ISODateWithMs), version.path)
                    .toUtf8();
    }
    HXCommandLineTool::writeOutput(text);
    return 0;
}

} // namespace

std::shared_ptr<HXNativeSheet> HXCommandLineOpenSheet(const QString &path, bool readOnly,
                                                      int *status) {
    const QFileInfo info(path);
    if (!info.exists()) {
        *status = HXCommandLineTool::fail(QStringLiteral("%1: no such sheet").arg(path));
        return nullptr;
    }
    if (!info.isDir() || !QFileInfo::exists(path + u'/' + HXNativeSheet::contentFilename)) {
        *status = HXCommandLineTool::fail(QStringLiteral("%1: not a sheet package").arg(path));
        return nullptr;
    }
    const auto sheet = HXNativeSheet::sheetWithURL(path, readOnly);
    if (!HXDocument::waitForCompletion(
            [&](auto handler) { sheet->openWithCompletionHandler(handler); })) {
        // The file inside the package that failed, when the error says which.
        const auto error = sheet->lastReadError();
        const QString file =
            error ? error->userInfo().value(HXFilePathErrorKey).toString() : QString();
        const QString named = file.startsWith(info.absoluteFilePath() + u'/')
                                  ? path + file.mid(info.absoluteFilePath().size())
                                  : path;
        *status = HXCommandLineTool::fail(QStringLiteral("%1: %2").arg(named, reason(error)));
        return nullptr;
    }
    return sheet;
}

// velmora-cli sheet create | show | set-text | attach | versions: one sheet package.
int HXSheetCommand(const QStringList &arguments) {
    // Sheets share the markups of the store, which lives on this thread.
    HXMarkupStore::globalStore();
    const QString action = arguments.value(0);
    const QStringList rest = arguments.mid(1);
    if (action == u"create")
        return create(rest);
    if (action == u"show")
        return show(rest);
    if (action == u"set-text")
        return setTextCommand(rest);
    if (action == u"attach")
        return attach(rest);
    if (action == u"versions")
        return versions(rest);
    return HXCommandLineTool::fail(
        QStringLiteral("sheet: expected create, show, set-text, attach or versions"));
}
