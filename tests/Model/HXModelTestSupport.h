#pragma once

#include "Model/Persistence/HXLibrary.h"
#include "Model/Sheets/HXNativeSheet.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Text/String/Access/HXAtomicString.h"

// Libraries built for tests through the library's own operations.
namespace HXModelTestSupport {

// A new sheet of the text in the group, saved; null after a warning when it can't be made.
inline std::shared_ptr<HXSheetHandle> makeSheet(const std::shared_ptr<HXLibrary> &library,
                                                const HXContainerRef &group, const QString &text) {
    const auto sheet = library->newSheetMatchingMarkup({});
    sheet->text()->replaceCharactersInRange(HXRange{0, 0}, HXReplacement(text));
    HXError error;
    const auto handle = library->createSheet(sheet, HXNotFound, group, {}, &error);
    if (!handle)
        qWarning() << error.localizedDescription();
    return handle;
}

} // namespace HXModelTestSupport
