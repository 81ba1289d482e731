#include "core/updates/VersionComparison.h"

#include <QList>
#include <QString>

#include <algorithm>

namespace parlune {

namespace {

struct Part {
    bool numeric = false;
    qulonglong number = 0;
    QString text;
};

// "1.10b2" → 1, 10, "b", 2; separators only separate.
QList<Part> split(QStringView version) {
    QList<Part> parts;
    qsizetype i = 0;
    while (i < version.size()) {
        const QChar c = version[i];
        if (c.isDigit()) {
            Part part{true, 0, {}};
            while (i < version.size() && version[i].isDigit()) {
                const qulonglong digit = static_cast<qulonglong>(version[i].digitValue());
                part.number = part.number > (~0ULL - digit) / 10 ? ~0ULL : part.number * 10 + digit;
                ++i;
            }
            parts << part;
        } else if (c.isLetter()) {
            Part part;
            while (i < version.size() && version[i].isLetter()) {
                part.text += version[i].toLower();
                ++i;
            }
            parts << part;
        } else {
            ++i;
        }
    }
    return parts;
}

} // namespace

int compareVersions(QStringView left, QStringView right) {
    const QList<Part> a = split(left);
    const QList<Part> b = split(right);
    for (qsizetype i = 0; i < std::max(a.size(), b.size()); ++i) {
        if (i >= a.size() || i >= b.size()) {
            // The longer one continues: with a word it is a pre-release of the shorter; with a
            // number it is later unless that number is zero.
            const Part& extra = i < a.size() ? a[i] : b[i];
            const int longerIsLeft = i < a.size() ? 1 : -1;
            if (!extra.numeric) {
                return -longerIsLeft;
            }
            if (extra.number != 0) {
                return longerIsLeft;
            }
            continue;
        }
        if (a[i].numeric && b[i].numeric) {
            if (a[i].number != b[i].number) {
                return a[i].number < b[i].number ? -1 : 1;
            }
        } else if (a[i].numeric != b[i].numeric) {
            return a[i].numeric ? 1 : -1; // "1.0.1" after "1.0b"
        } else if (const int order = a[i].text.compare(b[i].text); order != 0) {
            return order < 0 ? -1 : 1;
        }
    }
    return 0;
}

} // namespace parlune
