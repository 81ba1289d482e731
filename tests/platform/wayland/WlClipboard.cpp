#include "WlClipboard.h"

#include "DesktopSession.h"
#include "support/RunTask.h"

#include <QProcess>

namespace parlune::test {

void WlClipboard::copy(const QByteArray& bytes, const QString& type) {
    QProcess copy;
    QStringList arguments;
    if (!type.isEmpty()) {
        arguments << QStringLiteral("--type") << type;
    }
    copy.start(QStringLiteral("wl-copy"), arguments);
    copy.waitForStarted();
    copy.write(bytes);
    copy.closeWriteChannel();
    // It returns once it forked the process that serves the data.
    pumpUntil([&] { return copy.state() == QProcess::NotRunning || copy.waitForFinished(5); }, 5000);
}

QByteArray WlClipboard::paste(const QString& type) {
    QByteArray bytes;
    DesktopSession::run(
        {QStringLiteral("wl-paste"), QStringLiteral("--no-newline"), QStringLiteral("--type"), type}, &bytes);
    return bytes;
}

QStringList WlClipboard::types() {
    QByteArray list;
    DesktopSession::run({QStringLiteral("wl-paste"), QStringLiteral("--list-types")}, &list);
    QStringList types = QString::fromUtf8(list).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    types.sort();
    return types;
}

} // namespace parlune::test
