#pragma once

#include "Utilities/HXError.h"
#include "Utilities/HXXMLReading.h"

#include <QByteArray>
#include <QString>

// Reads an XML document into objects that take its elements (see HXXMLReading), starting with the
// one given for the root. The data is taken as UTF-8 whatever its declaration says, and characters
// that XML forbids are dropped before parsing, so a file with stray control characters still
// loads. Only static members; a parse runs on the calling thread.
class HXXMLReader {
public:
    HXXMLReader() = delete;

    // True when the whole document was read. Otherwise the error says why: the error an object
    // gave, a thrown exception, an object that stopped without saying why, or malformed XML.
    static bool readFromData(const QByteArray &data, HXXMLReading &rootItem,
                             HXXMLReaderContext *context, HXError *error);
    static bool readFromData(const QByteArray &data, HXXMLReading &rootItem, HXError *error);

    // An error in HXCocoaErrorDomain, code 0, with the reason as failure reason and description.
    static HXError errorWithFailureReason(const QString &reason);

    // Elements nested deeper than this fail the read. No document of the system comes near it,
    // and it bounds every walk over what a document builds.
    static constexpr qsizetype maximumDepth = 1000;
};
