// A second process for the sheet tests, to be killed while it saves.
//
//   saves PACKAGE   opens the sheet and saves it over and over, round n holding the text
//                   "Round n" on many lines, a note "n" and a media file "n"; prints n after each

#include "Model/Attachments/HXFileAttachment.h"
#include "Model/Attachments/HXNoteAttachment.h"
#include "Model/Sheets/HXNativeSheet.h"
#include "Model/Stores/HXMarkupStore.h"
#include "Text/String/Access/HXAtomicString.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char *argv[]) {
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments().mid(1);
    if (arguments.size() != 2 || arguments.at(0) != u"saves")
        return 2;
    HXMarkupStore::globalStore();
    const QString path = arguments.at(1);
    const auto sheet = HXNativeSheet::sheetWithURL(path);
    if (!HXDocument::waitForCompletion([&](auto done) { sheet->openWithCompletionHandler(done); }))
        return 1;
    for (int n = 1;; ++n) {
        const QString number = QString::number(n);
        sheet->text()->replaceCharactersInRange(
            HXRange{0, sheet->text()->length()},
            HXReplacement((QStringLiteral("Round ") + number + u'\n').repeated(3000)));
        const auto note = HXNoteAttachment::noteWithMarkup(sheet->markup());
        note->text()->replaceCharactersInRange(HXRange{0, 0}, HXReplacement(number));
        sheet->setNoteAttachments({note});
        const auto file = std::make_shared<HXFileAttachment>();
        file->setFileWrapper(
            HXFileWrapper::regularFileWithContents(number.toUtf8(), QStringLiteral("n.txt")));
        sheet->setFileAttachments({file});
        HXError error;
        if (!sheet->saveToURL(path, HXDocument::SaveOperationSave, &error)) {
            fprintf(stderr, "%s\n", qPrintable(error.localizedDescription()));
            return 1;
        }
        printf("%d\n", n);
        fflush(stdout);
    }
}
