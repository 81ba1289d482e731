// A separate X client that puts data on the clipboard under several targets and serves it until
// another client takes the clipboard: what a browser or office program does after a copy.
// Usage: parlune_clipboard_owner TARGET DATA [TARGET DATA ...]
#include "platform/x11/X11Pasteboard.h"
#include "platform/x11/XcbConnection.h"

#include <QCoreApplication>
#include <QTimer>

#include <cstdio>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc < 3 || argc % 2 == 0) {
        std::fprintf(stderr, "usage: %s TARGET DATA [TARGET DATA ...]\n", argv[0]);
        return 2;
    }
    auto connection = parlune::x11::XcbConnection::open();
    if (!connection) {
        std::fprintf(stderr, "no X display\n");
        return 1;
    }
    parlune::x11::X11Pasteboard pasteboard(*connection);
    parlune::PasteboardItem item;
    for (int i = 1; i + 1 < argc; i += 2) {
        item.values.emplace_back(QString::fromUtf8(argv[i]), QByteArray(argv[i + 1]));
    }
    if (!pasteboard.writeItems({item})) {
        return 1;
    }
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, &app, [&] {
        if (!pasteboard.ownsSelection()) {
            app.quit();
        }
    });
    watch.start(50);
    return app.exec();
}
