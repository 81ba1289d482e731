#include "core/shell/DiagnosticsPresentation.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

TEST(DiagnosticsPresentationTest, RatingBoundaries) {
    const std::pair<qint64, QString> expected[] = {
        {749, "Excellent"},   {750, "Fast"},  {999, "Fast"},  {1000, "Acceptable"},
        {1999, "Acceptable"}, {2000, "Slow"}, {2999, "Slow"}, {3000, "Very slow"},
    };
    for (const auto& [milliseconds, rating] : expected) {
        EXPECT_EQ(DiagnosticsPresentation::rating(milliseconds), rating) << milliseconds;
    }
    EXPECT_EQ(DiagnosticsPresentation::averageLine(1234), "Average: 1.23 s · Acceptable");
    EXPECT_EQ(DiagnosticsPresentation::seconds(5), "0.01 s");
}

TEST(DiagnosticsPresentationTest, AverageOfTheRecordsTruncatesToWholeMilliseconds) {
    DiagnosticsLogger logger;
    EXPECT_EQ(DiagnosticsPresentation::averageMilliseconds(logger.rewritePerformanceEntries()), std::nullopt);
    logger.logRewrite(RewriteDiagnosticStage::completed, std::nullopt, 10, 1000);
    logger.logRewrite(RewriteDiagnosticStage::completed, std::nullopt, 10, 1001);
    logger.logRewrite(RewriteDiagnosticStage::replacement, std::nullopt, 10, 9000); // not a total
    EXPECT_EQ(DiagnosticsPresentation::averageMilliseconds(logger.rewritePerformanceEntries()), 1000);
}

TEST(DiagnosticsPresentationTest, StageNamesBecomeSentenceCaseWords) {
    EXPECT_EQ(DiagnosticsPresentation::eventTitle("deterministicRewrite"), "Deterministic rewrite");
    EXPECT_EQ(DiagnosticsPresentation::eventTitle("hotkey_registration"), "Hotkey registration");
    EXPECT_EQ(DiagnosticsPresentation::eventTitle("step2Check"), "Step2 check");
    EXPECT_EQ(DiagnosticsPresentation::eventTitle("openURLPage"), "Open URLPage");
    EXPECT_EQ(DiagnosticsPresentation::eventTitle("queued"), "Queued");
    EXPECT_EQ(DiagnosticsPresentation::eventTitle("staleTarget"), "Selection changed");
    EXPECT_EQ(DiagnosticsPresentation::eventTitle("prepare"), "On-device model prepared");
    EXPECT_EQ(DiagnosticsPresentation::eventTitle("prepare", false), "On-device model preparation");
}

TEST(DiagnosticsPresentationTest, DescribesTheLinesTheLoggerWrites) {
    DiagnosticsLogger logger;
    const auto newest = [&] { return DiagnosticsPresentation::describe(logger.entries().front()); };

    logger.logEvent("prepare", QStringLiteral("ready"));
    DiagnosticEventView view = newest();
    EXPECT_EQ(view.title, "On-device model prepared");
    EXPECT_EQ(view.outcome, "ready");
    EXPECT_EQ(view.issue, std::nullopt);
    EXPECT_TRUE(view.succeeded);

    logger.logEvent("hotkey_registration", QStringLiteral("reverted_to_previous"),
                    QStringLiteral("registration_conflict"));
    view = newest();
    EXPECT_EQ(view.title, "Hotkey registration");
    EXPECT_EQ(view.outcome, "reverted to previous");
    EXPECT_EQ(view.issue, "registration_conflict");
    EXPECT_FALSE(view.succeeded);

    logger.logEvent("workflow_test", QStringLiteral("model_unavailable"));
    EXPECT_FALSE(newest().succeeded); // no category, still no success

    logger.logRewrite(RewriteDiagnosticStage::modelRewrite, QStringLiteral("org.example.Editor"), 42, 812);
    view = newest();
    EXPECT_EQ(view.title, "Rewrite generated");
    EXPECT_EQ(view.outcome, "completed in 0.81 s");
    EXPECT_TRUE(view.succeeded);

    logger.logRewrite(RewriteDiagnosticStage::modelRewrite, QStringLiteral("org.example.Editor"), 42, 90,
                      QStringLiteral("model_busy"));
    view = newest();
    EXPECT_EQ(view.title, "Rewrite generation");
    EXPECT_EQ(view.outcome, "failed in 0.09 s");
    EXPECT_EQ(view.issue, "model_busy");

    logger.record(QStringLiteral("warm-up skipped"));
    view = newest();
    EXPECT_EQ(view.title, "warm-up skipped");
    EXPECT_FALSE(view.succeeded);
}

} // namespace
} // namespace parlune
