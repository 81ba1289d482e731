#include "core/diagnostics/PrintableText.h"

#include <gtest/gtest.h>

#include <string>

namespace parlune {
namespace {

TEST(PrintableText, EscapeSequencesNeverReachTheTerminal) {
    // Title change, screen clear and a clipboard write (OSC 52), as a crafted file name would hold.
    EXPECT_EQ(printableText("\x1b]0;owned\x07\x1b[2J\x1b]52;c;aGk=\x07"),
              "\\x1b]0;owned\\x07\\x1b[2J\\x1b]52;c;aGk=\\x07");
    EXPECT_EQ(printableText(std::string("a\0b\r\n\x7f", 6)), "a\\x00b\\x0d\\x0a\\x7f");
    // C1 controls are escapes too in UTF-8 terminals (U+009B is CSI).
    EXPECT_EQ(printableText("x\xc2\x9b"
                            "2J"),
              "x\\xc2\\x9b2J");
}

TEST(PrintableText, KeepsUtf8AndEscapesWhatIsNot) {
    EXPECT_EQ(printableText("Grüße, 東京 😀"), "Grüße, 東京 😀");
    EXPECT_EQ(printableText("\xff\xfe"), "\\xff\\xfe");
    EXPECT_EQ(printableText("\xc0\xaf"), "\\xc0\\xaf");          // overlong '/'
    EXPECT_EQ(printableText("\xed\xa0\x80"), "\\xed\\xa0\\x80"); // a surrogate
    EXPECT_EQ(printableText("\xe6\x9d"), "\\xe6\\x9d");          // cut short
}

TEST(PrintableText, BoundsTheLength) {
    const std::string huge(5'000'000, 'n');
    EXPECT_EQ(printableText(huge, 10), "nnnnnnnnnn...");
    EXPECT_EQ(printableText(huge).size(), 259u);
    EXPECT_EQ(printableText("short", 5), "short");
}

} // namespace
} // namespace parlune
