#include "core/diagnostics/UserFacingErrorMessage.h"
#include "core/async/CancellationError.h"
#include "core/engine/LocalRewriteEngineError.h"
#include "core/hotkeys/HotKeyError.h"
#include "core/platform/PlatformTerms.h"
#include "core/selection/TextReplacementError.h"
#include "support/QtPrinters.h"

#include <QSet>

#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>
#include <vector>

namespace parlune {
namespace {

template <typename Error> QString viaPointer(Error error) {
    return UserFacingErrorMessage::message(std::make_exception_ptr(std::move(error)));
}

TEST(UserFacingErrorMessageTest, OtherErrorsShowTheirOwnDescription) {
    EXPECT_EQ(viaPointer(CancellationError()), "The task was cancelled.");
    EXPECT_EQ(viaPointer(HotKeyError::registrationFailed(10)), HotKeyError::registrationFailed(10).what());
    EXPECT_EQ(UserFacingErrorMessage::message(std::runtime_error("The disk is full.")), "The disk is full.");
}

TEST(UserFacingErrorMessageTest, ErrorsWithoutADescriptionStillGetASentence) {
    const QString fallback = "The operation could not be completed.";
    EXPECT_EQ(UserFacingErrorMessage::message(std::exception_ptr()), fallback);
    EXPECT_EQ(UserFacingErrorMessage::message(std::make_exception_ptr(42)), fallback);
    EXPECT_EQ(UserFacingErrorMessage::message(std::runtime_error("")), fallback);
}

// Every kind has a sentence of its own, the same whether the error comes directly or through an
// exception pointer, and each names the product one way.
TEST(UserFacingErrorMessageTest, EveryKindHasItsOwnSentenceNamingTheProductOneWay) {
    std::vector<QString> messages;
    for (int i = 0; i <= static_cast<int>(TextReplacementError::Kind::replacementNotConfirmed); ++i) {
        const TextReplacementError error(static_cast<TextReplacementError::Kind>(i));
        messages.push_back(UserFacingErrorMessage::message(error));
        EXPECT_EQ(viaPointer(error), messages.back());
    }
    for (int i = 0; i <= static_cast<int>(LocalRewriteEngineError::Kind::emptyRewrite); ++i) {
        const LocalRewriteEngineError error(static_cast<LocalRewriteEngineError::Kind>(i));
        messages.push_back(UserFacingErrorMessage::message(error));
        EXPECT_EQ(viaPointer(error), messages.back());
    }
    EXPECT_EQ(QSet<QString>(messages.begin(), messages.end()).size(), qsizetype(messages.size()));
    EXPECT_EQ(messages[static_cast<int>(TextReplacementError::Kind::noSelectedText)],
              "Select text first, then press the Parlune shortcut.");
    for (const QString& text : messages) {
        ASSERT_FALSE(text.isEmpty());
        EXPECT_TRUE(text.endsWith(u'.')) << text.toStdString();
        EXPECT_TRUE(text.front().isUpper()) << text.toStdString();
        EXPECT_EQ(text.count(QStringLiteral("Parlune")),
                  text.count(QStringLiteral("parlune"), Qt::CaseInsensitive))
            << text.toStdString();
        EXPECT_FALSE(text.contains(QStringLiteral("  "))) << text.toStdString();
    }
}

} // namespace
} // namespace parlune
