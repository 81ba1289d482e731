#include "DesktopTest.h"
#include "support/RunTask.h"

#include <QFile>

#include <signal.h>

namespace parlune::test {
namespace {

QByteArray readTarget(const QString& target, int* status = nullptr) {
    QByteArray bytes;
    const int code =
        DesktopSession::run({QStringLiteral("xclip"), QStringLiteral("-o"), QStringLiteral("-selection"),
                             QStringLiteral("clipboard"), QStringLiteral("-t"), target},
                            &bytes);
    if (status) {
        *status = code;
    }
    return bytes;
}

// Bytes of every value 0..255, larger than one X request, so both directions need INCR.
QByteArray largeBinary() {
    QByteArray bytes(600 * 1024, '\0');
    for (qsizetype i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
    }
    return bytes;
}

using PasteboardDesktopTest = DesktopTest;

TEST_F(PasteboardDesktopTest, OwnWritesCountOnceAndOtherWritersCountToo) {
    const std::int64_t start = pasteboard->changeCount();
    ASSERT_TRUE(pasteboard->writeItems(
        {PasteboardItem{{{QStringLiteral("UTF8_STRING"), QByteArrayLiteral("one")}}}}));
    EXPECT_EQ(pasteboard->changeCount(), start + 1);
    pumpFor(200); // the server's report of our own ownership must not count again
    EXPECT_EQ(pasteboard->changeCount(), start + 1);

    // Another client writes: xclip takes the clipboard.
    DesktopSession::run({QStringLiteral("sh"), QStringLiteral("-c"),
                         QStringLiteral("printf two | xclip -selection clipboard -i")});
    EXPECT_TRUE(pumpUntil([&] { return pasteboard->changeCount() == start + 2; }, 3000));
    EXPECT_FALSE(pasteboard->ownsSelection());
    EXPECT_EQ(pasteboard->string(), QStringLiteral("two"));

    pasteboard->clearContents();
    EXPECT_EQ(pasteboard->changeCount(), start + 3);
    EXPECT_EQ(pasteboard->itemCount(), 0);
    EXPECT_EQ(pasteboard->string(), std::nullopt);
}

TEST_F(PasteboardDesktopTest, FetchIsReportedOnlyForRealDataOfThatWrite) {
    ASSERT_TRUE(
        pasteboard->writeItems({PasteboardItem{{{QStringLiteral("UTF8_STRING"), QByteArrayLiteral("text")},
                                                {QStringLiteral("org.nspasteboard.TransientType"), {}}}}}));
    const std::int64_t written = pasteboard->changeCount();
    EXPECT_FALSE(pasteboard->contentsWereFetched(written));

    const QByteArray targets = readTarget(QStringLiteral("TARGETS"));
    EXPECT_TRUE(targets.contains("UTF8_STRING"));
    EXPECT_TRUE(targets.contains("org.nspasteboard.TransientType"));
    EXPECT_FALSE(pasteboard->contentsWereFetched(written)) << "the list of targets is not the data";

    EXPECT_EQ(readTarget(QStringLiteral("UTF8_STRING")), QByteArrayLiteral("text"));
    EXPECT_TRUE(pasteboard->contentsWereFetched(written));
    EXPECT_FALSE(pasteboard->contentsWereFetched(written - 1));

    ASSERT_TRUE(pasteboard->writeItems(
        {PasteboardItem{{{QStringLiteral("UTF8_STRING"), QByteArrayLiteral("more")}}}}));
    EXPECT_FALSE(pasteboard->contentsWereFetched(pasteboard->changeCount()));
}

TEST_F(PasteboardDesktopTest, LargeDataTravelsIncrementallyBothWaysByteForByte) {
    const QByteArray bytes = largeBinary();
    ASSERT_TRUE(
        pasteboard->writeItems({PasteboardItem{{{QStringLiteral("application/octet-stream"), bytes}}}}));
    int status = -1;
    EXPECT_EQ(readTarget(QStringLiteral("application/octet-stream"), &status), bytes);
    EXPECT_EQ(status, 0);

    // Now another client serves it and we read it.
    const QString file = DesktopSession::current()->directory() + QStringLiteral("/large.bin");
    QFile out(file);
    ASSERT_TRUE(out.open(QIODevice::WriteOnly));
    out.write(bytes);
    out.close();
    DesktopSession::run({QStringLiteral("xclip"), QStringLiteral("-selection"), QStringLiteral("clipboard"),
                         QStringLiteral("-t"), QStringLiteral("application/octet-stream"),
                         QStringLiteral("-i"), file});
    ASSERT_TRUE(pumpUntil([&] { return !pasteboard->ownsSelection(); }, 3000));
    EXPECT_EQ(pasteboard->types(0), std::vector<QString>{QStringLiteral("application/octet-stream")});
    EXPECT_EQ(pasteboard->data(0, QStringLiteral("application/octet-stream")), bytes);
    EXPECT_EQ(pasteboard->data(0, QStringLiteral("TARGETS")), std::nullopt);
    pasteboard->clearContents(); // xclip exits once it loses the clipboard
}

TEST_F(PasteboardDesktopTest, IncrementalTransferToAClientThatDiedIsDropped) {
    ASSERT_TRUE(pasteboard->writeItems(
        {PasteboardItem{{{QStringLiteral("application/octet-stream"), largeBinary()}}}}));
    // A client of its own asks for the data, then goes away without pulling a single chunk.
    xcb_connection_t* client = xcb_connect(nullptr, nullptr);
    ASSERT_FALSE(xcb_connection_has_error(client));
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(client)).data->root;
    const xcb_window_t window = xcb_generate_id(client);
    xcb_create_window(client, XCB_COPY_FROM_PARENT, window, root, 0, 0, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY,
                      XCB_COPY_FROM_PARENT, 0, nullptr);
    xcb_convert_selection(client, window, connection->atom("CLIPBOARD"),
                          connection->atom("application/octet-stream"), connection->atom("DATA"),
                          XCB_CURRENT_TIME);
    xcb_flush(client);
    ASSERT_TRUE(pumpUntil([&] { return pasteboard->outgoingTransferCount() == 1; }, 3000));
    xcb_disconnect(client);
    EXPECT_TRUE(pumpUntil([&] { return pasteboard->outgoingTransferCount() == 0; },
                          x11::X11Pasteboard::abandonedTransferMs + 3000));
    pasteboard->clearContents();
}

TEST_F(PasteboardDesktopTest, EditorSnapshotDropsPseudoTargets) {
    DesktopSession::run({QStringLiteral("sh"), QStringLiteral("-c"),
                         QStringLiteral("printf abc | xclip -selection clipboard -t text/plain -i")});
    ASSERT_TRUE(
        pumpUntil([&] { return !pasteboard->ownsSelection() && pasteboard->itemCount() == 1; }, 3000));
    const std::vector<QString> types = pasteboard->types(0);
    EXPECT_EQ(types, std::vector<QString>{QStringLiteral("text/plain")}) << "xclip offers TARGETS too";
    pasteboard->clearContents();
}

} // namespace
} // namespace parlune::test
