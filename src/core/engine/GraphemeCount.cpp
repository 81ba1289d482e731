#include "core/engine/GraphemeCount.h"

#include <QTextBoundaryFinder>

namespace parlune {

std::int64_t graphemeClusterCount(const QString& text) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    std::int64_t count = 0;
    while (finder.toNextBoundary() != -1) {
        ++count;
    }
    return count;
}

} // namespace parlune
