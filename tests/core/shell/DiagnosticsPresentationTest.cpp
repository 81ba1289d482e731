#include "core/shell/DiagnosticsPresentation.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

TEST(DiagnosticsPresentationTest, RatingBoundariesAndAverage) {
    const std::pair<qint64, QString> expected[] = {
        {749, "Excellent"},   {750, "Fast"},  {999, "Fast"},  {1000, "Acceptable"},
        {1999, "Acceptable"}, {2000, "Slow"}, {2999, "Slow"}, {3000, "Very slow"},
    };
    for (const auto& [milliseconds, rating] : expected) {
        EXPECT_EQ(DiagnosticsPresentation::rating(milliseconds), rating) << milliseconds;
    }
    EXPECT_EQ(DiagnosticsPresentation::averageLine(1234), "Average: 1.23 s · Acceptable");

    DiagnosticsLogger logger;
    EXPECT_EQ(DiagnosticsPresentation::averageMilliseconds(logger.rewritePerformanceEntries()), std::nullopt);
    logger.logRewrite(RewriteDiagnosticStage::completed, std::nullopt, 10, 1000);
    logger.logRewrite(RewriteDiagnosticStage::completed, std::nullopt, 10, 1001);
    EXPECT_EQ(DiagnosticsPresentation::averageMilliseconds(logger.rewritePerformanceEntries()), 1000);
}

TEST(DiagnosticsPresentationTest, DescribesTheLinesTheLoggerWrites) {
    DiagnosticsLogger logger;
    const auto newest = [&] {
        const DiagnosticEventView view = DiagnosticsPresentation::describe(logger.entries().front());
        return view.title + u'|' + view.outcome + u'|' + view.issue.value_or("-") + u'|' +
               QString::number(view.succeeded);
    };
    logger.logEvent("prepare", QStringLiteral("ready"));
    EXPECT_EQ(newest(), "On-device model prepared|ready|-|1");
    logger.logEvent("prepare", QStringLiteral("failed"), QStringLiteral("model_not_ready"));
    EXPECT_EQ(newest(), "On-device model preparation|failed|model_not_ready|0");
    logger.logEvent("hotkey_registration", QStringLiteral("reverted_to_previous"),
                    QStringLiteral("registration_conflict"));
    EXPECT_EQ(newest(), "Hotkey registration|reverted to previous|registration_conflict|0");
    logger.logEvent("workflow_test", QStringLiteral("model_unavailable"));
    EXPECT_EQ(newest(), "Workflow test|model unavailable|-|0");
    logger.logRewrite(RewriteDiagnosticStage::modelRewrite, QStringLiteral("org.example.Editor"), 42, 812);
    EXPECT_EQ(newest(), "Rewrite generated|completed in 0.81 s|-|1");
    logger.logRewrite(RewriteDiagnosticStage::modelRewrite, std::nullopt, 42, 90,
                      QStringLiteral("model_busy"));
    EXPECT_EQ(newest(), "Rewrite generation|failed in 0.09 s|model_busy|0");
    logger.record(QStringLiteral("warm-up skipped"));
    EXPECT_EQ(newest(), "warm-up skipped||-|0");
}

} // namespace
} // namespace parlune
