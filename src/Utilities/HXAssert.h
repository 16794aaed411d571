#pragma once

#include "Utilities/HXStringFormat.h"

#include <QString>

#include <stdexcept>

// A fault of the calling code, raised by HX_ASSERT with its fixed text. Caught only where the
// system deliberately catches exceptions (the XML reader, queue and event boundaries).
class HXAssertionFailure : public std::logic_error {
public:
    explicit HXAssertionFailure(const QString &text);

    // The formatted text of the assertion, without file or line.
    const QString &text() const { return m_text; }

private:
    QString m_text;
};

[[noreturn]] void HXRaiseAssertion(const QString &text);

// Checks a condition that only a fault of the caller can break; when it does not hold, throws
// HXAssertionFailure with the formatted text. Always on, never compiled out.
#define HX_ASSERT(condition, ...)                                                                  \
    do {                                                                                           \
        if (!(condition)) [[unlikely]]                                                             \
            HXRaiseAssertion(HXStringWithFormat(__VA_ARGS__));                                     \
    } while (false)
