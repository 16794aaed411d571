#include "Utilities/HXRange.h"

#include <QString>

QString HXRange::description() const {
    return QStringLiteral("{%1, %2}").arg(location).arg(length);
}
