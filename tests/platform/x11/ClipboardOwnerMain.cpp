// A separate X client that puts data on the clipboard under several targets and serves it until
// another client takes the clipboard: what a browser or office program does after a copy.
// Usage: parlune_clipboard_owner TARGET DATA [TARGET DATA ...]
//        parlune_clipboard_owner --manager [PAUSE_MS]
// With --manager it is instead a clipboard manager: asked to save the clipboard (SAVE_TARGETS on
// CLIPBOARD_MANAGER), it copies every target and then serves them itself, pausing PAUSE_MS before
// each read as a manager on a loaded machine would.
#include "platform/x11/X11Pasteboard.h"
#include "platform/x11/XcbConnection.h"

#include <QCoreApplication>
#include <QThread>
#include <QTimer>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int runManager(QCoreApplication& app, parlune::x11::XcbConnection& x, parlune::x11::X11Pasteboard& pasteboard,
               unsigned long pauseMs) {
    xcb_connection_t* c = x.raw();
    const xcb_atom_t manager = x.atom("CLIPBOARD_MANAGER");
    xcb_set_selection_owner(c, x.window(), manager, XCB_CURRENT_TIME);
    x.addListener([&](const xcb_generic_event_t* event) {
        if ((event->response_type & 0x7f) != XCB_SELECTION_REQUEST) {
            return false;
        }
        const auto* request = reinterpret_cast<const xcb_selection_request_event_t*>(event);
        if (request->selection != manager) {
            return false;
        }
        bool saved = false;
        if (request->target == x.atom("SAVE_TARGETS")) {
            parlune::PasteboardItem item;
            QThread::msleep(pauseMs);
            for (const QString& type : pasteboard.types(0)) {
                QThread::msleep(pauseMs);
                if (auto data = pasteboard.data(0, type)) {
                    item.values.emplace_back(type, *data);
                }
            }
            saved = !item.values.empty() && pasteboard.writeItems({item});
        }
        xcb_selection_notify_event_t reply{};
        reply.response_type = XCB_SELECTION_NOTIFY;
        reply.time = request->time;
        reply.requestor = request->requestor;
        reply.selection = request->selection;
        reply.target = request->target;
        reply.property = saved ? (request->property ? request->property : request->target) : XCB_NONE;
        char buffer[32] = {};
        std::memcpy(buffer, &reply, sizeof(reply));
        xcb_send_event(c, 0, request->requestor, XCB_EVENT_MASK_NO_EVENT, buffer);
        xcb_flush(c);
        return true;
    });
    xcb_flush(c);
    return app.exec();
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const bool manager = (argc == 2 || argc == 3) && std::strcmp(argv[1], "--manager") == 0;
    if (!manager && (argc < 3 || argc % 2 == 0)) {
        std::fprintf(stderr, "usage: %s TARGET DATA [TARGET DATA ...] | --manager [PAUSE_MS]\n", argv[0]);
        return 2;
    }
    auto connection = parlune::x11::XcbConnection::open();
    if (!connection) {
        std::fprintf(stderr, "no X display\n");
        return 1;
    }
    parlune::x11::X11Pasteboard pasteboard(*connection);
    if (manager) {
        return runManager(app, *connection, pasteboard, argc == 3 ? std::strtoul(argv[2], nullptr, 10) : 0);
    }
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
