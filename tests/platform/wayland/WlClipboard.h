#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace parlune::test {

// The user's other programs at the clipboard: wl-copy and wl-paste from wl-clipboard.
class WlClipboard {
public:
    // Sets the clipboard to `bytes` (as `type`, or as text under wl-copy's five text types).
    static void copy(const QByteArray& bytes, const QString& type = {});
    static QByteArray paste(const QString& type);
    // The types offered now, sorted.
    static QStringList types();
};

} // namespace parlune::test
