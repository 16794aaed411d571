#include "Utilities/HXAssert.h"

HXAssertionFailure::HXAssertionFailure(const QString &text)
    : std::logic_error(text.toStdString())
    , m_text(text) {}

void HXRaiseAssertion(const QString &text) {
    throw HXAssertionFailure(text);
}
