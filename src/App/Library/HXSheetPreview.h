#pragma once

#include <QString>

#include <memory>
#include <utility>

class HXMarkup;
class HXSheetHandle;

// What a list shows of a sheet without opening it: the beginning of its text (the handle's
// cached content prefix), and from that a title, the first line, and a preview, the lines after
// it run together, both without the tags the markup reads there, trimmed and short. No
// instances; reading runs on any thread but the main one, deriving anywhere.
class HXSheetPreview {
public:
    HXSheetPreview() = delete;

    static constexpr qsizetype prefixLength = 600;
    static constexpr qsizetype titleLength = 100;
    static constexpr qsizetype previewLength = 240;

    // The beginning of the sheet's text: from the loaded sheet, else from the plain text the
    // package keeps beside its content, else from the sheet loaded for reading. Blocks.
    static QString readContentPrefix(const std::shared_ptr<HXSheetHandle> &handle);
    // Title and preview of a text, read with the markup (by default the one new sheets get).
    static std::pair<QString, QString>
    titleAndPreviewForText(const QString &text, std::shared_ptr<HXMarkup> markup = {});
};
