#include "Text/Markup/HXTagAttribute.h"

#include "Utilities/HXDescription.h"
#include "Utilities/HXStringFormat.h"

#include <QHash>

#include <typeinfo>

bool HXTagAttribute::isEqual(const HXTagAttribute &other) const {
    return identifier() == other.identifier() && displayName() == other.displayName() &&
           showDisplayName() == other.showDisplayName() && kind() == other.kind() &&
           allowedTypes() == other.allowedTypes();
}

size_t HXTagAttribute::hash() const {
    return qHash(identifier()) * 37 + qHash(kind());
}

QString HXTagAttribute::description() const {
    return HXStringWithFormat(u"<%@ identifier:%@ kind:%lu>", HXClassName(typeid(*this)),
                              identifier(), kind());
}
