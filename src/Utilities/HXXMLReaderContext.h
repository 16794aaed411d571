#pragma once

#include <QString>

#include <memory>

class HXFileWrapper;

// What a parse, or the writing of a document, offers beyond the XML itself: files kept beside the
// XML, known in it by a handle. The caller owns it and keeps it alive through the work; it is
// used on the working thread. Without files of its own it stores nothing and finds nothing.
class HXXMLReaderContext {
public:
    virtual ~HXXMLReaderContext() = default;

    // The handle under which a file is kept for the document being written.
    virtual QString storeFileWrapper(const std::shared_ptr<HXFileWrapper> &) { return QString(); }
    // The file of a handle, or nothing when it can't be read.
    virtual std::shared_ptr<HXFileWrapper> readFileWrapper(const QString &) { return nullptr; }
};
