// Writes settings in a loop through QSettingsUserDefaults, as a second process would:
//   settings_writer PATH KEY COUNT [PADDING]
// COUNT 0 writes until killed. Each round writes KEY=<round> and, with PADDING, a long value under
// KEY.padding so that a save takes a while.
#include "platform/linux/QSettingsUserDefaults.h"

#include <QCoreApplication>
#include <QString>

#include <cstdio>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc < 4) {
        std::fprintf(stderr, "usage: settings_writer PATH KEY COUNT [PADDING]\n");
        return 2;
    }
    parlune::QSettingsUserDefaults defaults(QString::fromLocal8Bit(argv[1]));
    const QString key = QString::fromLocal8Bit(argv[2]);
    const long long count = QByteArray(argv[3]).toLongLong();
    const qsizetype padding = argc > 4 ? QByteArray(argv[4]).toLongLong() : 0;
    for (long long round = 0; count == 0 || round < count; ++round) {
        if (padding > 0) {
            defaults.setString(key + QStringLiteral(".padding"),
                               QString(padding, QChar(char16_t(u'a' + round % 26))));
        }
        defaults.setInteger(key, round);
    }
    return defaults.isPersisting() ? 0 : 1;
}
