#pragma once

// The manuscript the editor's benchmarks type into: the GPL 3 of base-files, its paragraphs
// unwrapped into lines, with headings, list items and strong text woven in, repeated up to the
// number of words asked for.

#include <QFile>
#include <QRandomGenerator>
#include <QString>
#include <QStringList>

#include <algorithm>

namespace HXBenchmarkText {

inline QString makeText(qsizetype wordCount) {
    QFile license(QStringLiteral("/usr/share/common-licenses/GPL-3"));
    QStringList paragraphs;
    if (license.open(QIODevice::ReadOnly)) {
        for (const QString &paragraph :
             QString::fromUtf8(license.readAll()).split(QStringLiteral("\n\n")))
            if (!paragraph.simplified().isEmpty())
                paragraphs.append(paragraph.simplified());
    } else {
        paragraphs = QStringList(50, QStringLiteral("Plain words of a plain sentence, and more."));
    }
    QRandomGenerator random(18);
    QString result;
    qsizetype words = 0;
    while (words < wordCount) {
        for (const QString &paragraph : std::as_const(paragraphs)) {
            QStringList line = paragraph.split(u' ');
            if (words + line.size() > wordCount)
                line = line.mid(0, std::max<qsizetype>(1, wordCount - words));
            words += line.size();
            switch (random.bounded(8)) {
            case 0:
                result += QStringLiteral("## ");
                break;
            case 1:
                result += QStringLiteral("* ");
                break;
            case 2:
                line[0] = QStringLiteral("**") + line[0] + QStringLiteral("**");
                break;
            default:
                break;
            }
            result += line.join(u' ') + QStringLiteral("\n\n");
            if (words >= wordCount)
                break;
        }
    }
    return result;
}

} // namespace HXBenchmarkText
