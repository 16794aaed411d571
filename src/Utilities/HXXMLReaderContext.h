#pragma once

// What a parse offers the objects that read it, beyond the XML itself. The caller of
// HXXMLReader owns it and keeps it alive through the parse; it is used on the parsing thread.
class HXXMLReaderContext {
public:
    virtual ~HXXMLReaderContext() = default;
};
