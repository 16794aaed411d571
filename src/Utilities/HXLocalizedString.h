#pragma once

#include <QString>

// The user-visible text of a key in a string table. Tables are property-list dictionaries compiled
// in as resources, ":/Strings/<language>/<table>.plist"; English is the one language written so
// far. A key that no table has comes back as it is, so a missing text shows its key, never
// nothing. Tables are read once, on first use; any thread.
QString HXLocalizedString(const QString &key, const QString &table);
