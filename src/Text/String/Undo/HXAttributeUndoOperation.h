#pragma once

#include <QStringList>
#include <QVariantMap>

#include <memory>

class HXMutableString;
class HXTextElement;

// What undoes changes of an element's attributes: the old values by identifier, and where the
// element stands, by which it is found again. Further changes of the same element while it is
// current add the old values of attributes it has none for yet. Knows its string weakly.
class HXAttributeUndoOperation {
public:
    static std::shared_ptr<HXAttributeUndoOperation>
    commitEditInString(HXMutableString &string, const HXTextElement &element,
                       const QStringList &attributeIdentifiers);
    bool coalesceChangeOfAttributes(const QStringList &attributeIdentifiers,
                                    const HXTextElement &element, quint64 location);
    void performUndo();
    quint64 location() const { return m_location; }

private:
    std::weak_ptr<HXMutableString> m_string;
    quint64 m_location = 0;
    QVariantMap m_oldValues; // an invalid value: none was set
};
