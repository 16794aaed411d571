#include "Text/String/Undo/HXAttributeUndoOperation.h"

#include "Text/String/Access/HXMutableString.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXUndoManager.h"

std::shared_ptr<HXAttributeUndoOperation>
HXAttributeUndoOperation::commitEditInString(HXMutableString &string, const HXTextElement &element,
                                             const QStringList &attributeIdentifiers) {
    auto operation = std::make_shared<HXAttributeUndoOperation>();
    operation->m_string =
        std::dynamic_pointer_cast<HXMutableString>(string.weak_from_this().lock());
    const HXRange range = string.rangeOfTextElement(element);
    HX_ASSERT(!range.isNotFound(), u"Element not in string!");
    HX_ASSERT(!attributeIdentifiers.isEmpty(), u"Invalid parameter not satisfying: %s",
              "attributes.count > 0");
    operation->m_location = range.location;
    for (const QString &identifier : attributeIdentifiers)
        operation->m_oldValues.insert(identifier, element.attributes()->objectForKey(identifier));
    if (const auto manager = string.undoManager()) {
        manager->registerUndo([operation] { operation->performUndo(); });
        manager->setActionName(
            HXLocalizedString(QStringLiteral("Attributes"), QStringLiteral("HXTextUndoOperation")));
    }
    return operation;
}

bool HXAttributeUndoOperation::coalesceChangeOfAttributes(const QStringList &attributeIdentifiers,
                                                          const HXTextElement &element,
                                                          quint64 location) {
    if (location != m_location)
        return false;
    for (const QString &identifier : attributeIdentifiers) {
        if (!m_oldValues.contains(identifier))
            m_oldValues.insert(identifier, element.attributes()->objectForKey(identifier));
    }
    return true;
}

void HXAttributeUndoOperation::performUndo() {
    const auto string = m_string.lock();
    HX_ASSERT(string, u"Undo performed on a no longer present string!");
    const auto element = string->textElementStartingAtIndex(m_location);
    HX_ASSERT(element && element->attributes(), u"Element for undo not found!");
    for (auto it = m_oldValues.cbegin(); it != m_oldValues.cend(); ++it)
        string->setAttributeValue(it.value(), it.key(), *element);
}
