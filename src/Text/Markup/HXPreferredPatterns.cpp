#include "Text/Markup/HXPreferredPatterns.h"

#include "Utilities/HXPropertyList.h"

#include <mutex>

namespace {

std::mutex providerMutex;
std::function<QString(const QString &)> provider;

QString defaultPreferredPattern(const QString &identifier) {
    return HXDefaultPreferredPatterns().value(identifier).toString();
}

} // namespace

const QVariantMap &HXDefaultPreferredPatterns() {
    static const QVariantMap defaults = [] {
        return HXPropertyList::readFile(QStringLiteral(":/Defaults/HXPatternDefaults.plist"),
                                        nullptr)
            .toMap();
    }();
    return defaults;
}

QString HXPreferredPatternForDefinition(const QString &identifier) {
    std::function<QString(const QString &)> lookup;
    {
        std::lock_guard lock(providerMutex);
        lookup = provider;
    }
    return lookup ? lookup(identifier) : defaultPreferredPattern(identifier);
}

void HXSetPreferredPatternProvider(std::function<QString(const QString &identifier)> newProvider) {
    std::lock_guard lock(providerMutex);
    provider = std::move(newProvider);
}
