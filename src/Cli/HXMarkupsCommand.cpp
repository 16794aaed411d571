#include "Cli/HXCommandLineTool.h"
#include "Model/Stores/HXMarkupStore.h"
#include "Utilities/HXZipArchive.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

QString reason(const HXError &error) {
    return error.localizedFailureReason().isEmpty() ? error.localizedDescription()
                                                    : error.localizedFailureReason();
}

// The markup.xml data of a file: itself, the "markup.xml" of a package folder, or that of a ZIP
// archive of one.
bool markupData(const QString &path, QByteArray *data, QString *failure) {
    const QFileInfo info(path);
    if (!info.exists()) {
        *failure = QStringLiteral("%1: no such file").arg(path);
        return false;
    }
    if (info.isDir())
        return HXCommandLineTool::readInput(path + QStringLiteral("/markup.xml"), data, failure);
    if (!HXCommandLineTool::readInput(path, data, failure))
        return false;
    if (!data->startsWith("PK\x03\x04"))
        return true;
    HXError error;
    const HXFileWrapperRef package = HXZipArchive::fileWrapperFromZipData(*data, path, &error);
    if (!package) {
        *failure = QStringLiteral("%1: %2").arg(path, reason(error));
        return false;
    }
    const HXFileWrapperRef file = package->fileWrappers().value(QStringLiteral("markup.xml"));
    if (!file || !file->isRegularFile()) {
        *failure = QStringLiteral("%1: the archive holds no markup.xml").arg(path);
        return false;
    }
    *data = file->regularFileContents();
    return true;
}

int list(HXMarkupStore &store, bool json) {
    QJsonArray array;
    QByteArray text;
    for (const auto &markup : store.availableMarkups()) {
        const bool builtin = HXMarkupStore::isIntrinsicIdentifier(markup->identifier());
        array.append(QJsonObject{{QStringLiteral("identifier"), markup->identifier()},
                                 {QStringLiteral("displayName"), markup->displayName()},
                                 {QStringLiteral("builtin"), builtin},
                                 {QStringLiteral("enabled"), true}});
        text += QStringLiteral("%1\t%2\t%3\tenabled\n")
                    .arg(markup->identifier(), markup->displayName(),
                         builtin ? QStringLiteral("built-in") : QStringLiteral("user"))
                    .toUtf8();
    }
    HXCommandLineTool::writeOutput(json ? QJsonDocument(array).toJson(QJsonDocument::Indented)
                                        : text);
    return 0;
}

} // namespace

// velmora-cli markups list [--json] | add FILE | remove ID | reset ID: the user's markup store.
int HXMarkupsCommand(const QStringList &arguments) {
    const QString action = arguments.value(0);
    const QStringList rest = arguments.mid(1);
    const bool listing = action == u"list" && (rest.isEmpty() || rest == QStringList{"--json"});
    if (!listing &&
        !((action == u"add" || action == u"remove" || action == u"reset") && rest.size() == 1))
        return HXCommandLineTool::fail(
            QStringLiteral("markups: expected list [--json], add FILE, remove ID or reset ID"));

    const auto store = HXMarkupStore::create();
    if (listing)
        return list(*store, !rest.isEmpty());

    const QString argument = rest.first();
    if (action == u"add") {
        QByteArray data;
        QString failure;
        if (!markupData(argument, &data, &failure))
            return HXCommandLineTool::fail(failure);
        HXError error;
        const auto markup = HXMarkup::markupWithData(data, &error);
        if (!markup)
            return HXCommandLineTool::fail(QStringLiteral("%1: %2").arg(argument, reason(error)));
        const QString identifier = store->registerMarkup(markup);
        store->writeIfNeeded(false);
        HXCommandLineTool::writeOutput(identifier.toUtf8() + '\n');
        return 0;
    }
    if (!store->markupWithIdentifier(argument))
        return HXCommandLineTool::fail(
            QStringLiteral("markups %1: no markup '%2'").arg(action, argument));
    const bool builtin = HXMarkupStore::isIntrinsicIdentifier(argument);
    if (action == u"remove") {
        if (builtin)
            return HXCommandLineTool::fail(
                QStringLiteral("markups remove: '%1' is built in and can't be removed; reset it")
                    .arg(argument));
        store->removeMarkupWithIdentifier(argument);
    } else {
        if (!builtin)
            return HXCommandLineTool::fail(
                QStringLiteral("markups reset: '%1' is not built in").arg(argument));
        store->resetIntrinsicMarkupWithIdentifier(argument);
    }
    store->writeIfNeeded(false);
    return 0;
}
