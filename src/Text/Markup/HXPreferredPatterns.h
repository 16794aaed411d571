#pragma once

#include <QString>
#include <QVariantMap>

#include <functional>

// Posted when the user's preferred patterns change; markups then choose their default tags anew.
inline const QString HXDefinitionStorePreferredPatternsChanged =
    QStringLiteral("HXDefinitionStorePreferredPatternsChanged");

// The pattern the user prefers for a definition, among several tags of it in one markup: by
// default the one of the bundled pattern defaults. The definition store puts its own lookup in
// place of the default one. Any thread.
QString HXPreferredPatternForDefinition(const QString &identifier);

// Replaces the lookup; an empty function restores the bundled defaults.
void HXSetPreferredPatternProvider(std::function<QString(const QString &identifier)> provider);

// The bundled pattern defaults, by definition identifier.
const QVariantMap &HXDefaultPreferredPatterns();
