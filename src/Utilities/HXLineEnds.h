#pragma once

#include <QString>

// Text from outside (files, standard input, the pasteboard) may end its lines the way other
// systems do. The text model knows only the line feed: CR LF and a lone CR both become one.
// Returns the same (shared) text when it holds no carriage return.
QString HXStringByNormalizingLineEnds(const QString &string);
