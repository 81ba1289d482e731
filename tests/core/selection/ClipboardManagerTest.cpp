#include "SelectionTestFixture.h"

namespace parlune::test {
namespace {

class ClipboardManagerTest : public ::testing::Test {
protected:
    SimulatedDesktop desktop;
    ClipboardManager clipboard{desktop.pasteboard()};
};

TEST_F(ClipboardManagerTest, SnapshotKeepsOrderSkipsUnreadableTypesAndReadsCountLast) {
    desktop.writePasteboardAsOther(userClipboard());
    desktop.unreadableTypes = {QStringLiteral("application/x-color"), QStringLiteral("image/png")};
    const ClipboardSnapshot snapshot = runTask(clipboard.capture());
    EXPECT_EQ(snapshot.changeCount, desktop.changeCount());
    ASSERT_EQ(snapshot.items.size(), 2u);
    ASSERT_EQ(snapshot.items[0].values.size(), 2u);
    EXPECT_EQ(snapshot.items[0].values[0].type, QStringLiteral("text/html"));
    EXPECT_EQ(snapshot.items[0].values[1].data, QByteArrayLiteral("K\xc3\xa4se"));
    EXPECT_TRUE(snapshot.items[1].values.empty()); // kept as an item without values

    desktop.unreadableTypes.clear();
    desktop.clearPasteboard(PasteboardWriter::other);
    EXPECT_TRUE(runTask(clipboard.capture()).items.empty());
}

TEST_F(ClipboardManagerTest, RestoreIsByteExactAndOnlyWhenUnchanged) {
    desktop.writePasteboardAsOther(userClipboard());
    const ClipboardSnapshot snapshot = runTask(clipboard.capture());
    clipboard.setTransientLocalString(QStringLiteral("temporary"));
    const std::int64_t ours = clipboard.changeCount();

    desktop.writePasteboardAsOther({pasteboardItem({{SimulatedDesktop::plainTextType(), "newer"}})});
    EXPECT_FALSE(clipboard.restore(snapshot, ours));
    EXPECT_EQ(runTask(clipboard.currentString()), QStringLiteral("newer"));

    EXPECT_TRUE(clipboard.restore(snapshot, clipboard.changeCount()));
    EXPECT_EQ(desktop.pasteboardItems(), userClipboard());
    // Without a count the restore is unconditional; an empty snapshot leaves the pasteboard empty.
    EXPECT_TRUE(clipboard.restore(ClipboardSnapshot{}, std::nullopt));
    EXPECT_TRUE(desktop.pasteboardItems().empty());
}

TEST_F(ClipboardManagerTest, TransientStringsCarryThePlatformMarkers) {
    clipboard.setTransientLocalString(QStringLiteral("naïve 🙂"));
    EXPECT_EQ(desktop.pasteboardItems(),
              std::vector<PasteboardItem>{pasteboardItem({
                  {SimulatedDesktop::plainTextType(), QStringLiteral("naïve 🙂").toUtf8()},
                  {QStringLiteral("org.nspasteboard.TransientType"), QByteArray()},
                  {QStringLiteral("org.nspasteboard.ConcealedType"), QByteArray()},
                  {QStringLiteral("x-kde-passwordManagerHint"), QByteArrayLiteral("secret")},
              })});
    EXPECT_GE(desktop.pasteboard().localAnnouncements, 1);
}

// Case, a missing identifier and the empty default registry are the capture tests' (CaptureTest).
TEST(AppCompatibilityRegistryTest, PermitsExactlyTheListedIdentifiers) {
    const AppCompatibilityRegistry registry({QStringLiteral("org.example.Editor")});
    EXPECT_TRUE(registry.permitsDirectReplacement(QStringLiteral("org.example.Editor")));
    EXPECT_FALSE(registry.permitsDirectReplacement(QStringLiteral("org.example.Editor2")));
    EXPECT_FALSE(registry.permitsDirectReplacement(QStringLiteral("org.example")));
}

} // namespace
} // namespace parlune::test
