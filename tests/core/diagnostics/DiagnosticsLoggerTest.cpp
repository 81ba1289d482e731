#include "core/diagnostics/DiagnosticsLogger.h"
#include "support/ManualClock.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace parlune {
namespace {

using testing::ManualClock;

class DiagnosticsLoggerTest : public ::testing::Test {
protected:
    ManualClock clock_;
    DiagnosticsLogger logger_{80, clock_};

    QString newest() const { return logger_.entries().front().message; }
};

TEST_F(DiagnosticsLoggerTest, EventLinesCarryOnlyTheGivenParts) {
    logger_.logEvent("hotkey_change", QString("completed"));
    EXPECT_EQ(newest(), "stage=hotkey_change outcome=completed");
    logger_.logEvent("prepare", std::nullopt, QString("x"));
    EXPECT_EQ(newest(), "stage=prepare error=x");
    logger_.logEvent("prepare now!");
    EXPECT_EQ(newest(), "stage=preparenow");
    logger_.logEvent("?!", QString(" "));
    EXPECT_EQ(newest(), "stage=unknown outcome=unknown");
}

TEST_F(DiagnosticsLoggerTest, IdentifiersAndCategoriesAreSanitised) {
    logger_.logRewrite(RewriteDiagnosticStage::failed, QString("com.example/My App-2_b"), 3, std::nullopt,
                       QString("!!.,;"));
    EXPECT_EQ(newest(), "stage=failed app=com.exampleMyApp-2_b length=3 error=unknown");

    logger_.logRewrite(RewriteDiagnosticStage::failed, QString("/ /"), 3, std::nullopt, QString(""));
    EXPECT_EQ(newest(), "stage=failed app= length=3 error=unknown");

    EXPECT_EQ(DiagnosticsLogger::safeCategory(QString(100, u'a')), QString(80, u'a'));
    EXPECT_EQ(DiagnosticsLogger::safeCategory("a.b c=d"), "abcd");
    EXPECT_EQ(DiagnosticsLogger::safeCategory("ошибка_東京-2"), "ошибка_東京-2");
    EXPECT_EQ(DiagnosticsLogger::safeCategory(QString(79, u'b') + "ЖЖ"), QString(79, u'b') + "Ж");
    EXPECT_EQ(DiagnosticsLogger::safeIdentifier(QString(200, u'x') + "!"), QString(160, u'x'));
    EXPECT_EQ(DiagnosticsLogger::safeIdentifier(QString("org.例え.app")), "org.例え.app");
    EXPECT_EQ(DiagnosticsLogger::safeIdentifier(std::nullopt), "unknown");
    EXPECT_EQ(DiagnosticsLogger::safeIdentifier(QString::fromUtf8("bad\xff\xfeutf8")), "badutf8");
    EXPECT_EQ(DiagnosticsLogger::safeCategory(QStringLiteral("a\U0001F600b\U00010400")),
              QStringLiteral("ab\U00010400"));
    EXPECT_EQ(DiagnosticsLogger::safeCategory("new\nline=injected stage=completed"),
              "newlineinjectedstagecompleted");
}

TEST_F(DiagnosticsLoggerTest, OnlyCompletedRewritesWithATimeAddPerformanceRecords) {
    logger_.logRewrite(RewriteDiagnosticStage::completed, QString("app one"), 42);
    for (RewriteDiagnosticStage stage : rewrite_diagnostic_stage::allCases) {
        if (stage != RewriteDiagnosticStage::completed) {
            logger_.logRewrite(stage, QString("x"), 1, 5);
        }
    }
    EXPECT_TRUE(logger_.rewritePerformanceEntries().empty());
    EXPECT_EQ(logger_.entries().size(), 8u);

    clock_.time += std::chrono::seconds(3);
    logger_.logRewrite(RewriteDiagnosticStage::completed, QString("app one"), 42, 250);
    ASSERT_EQ(logger_.rewritePerformanceEntries().size(), 1u);
    const RewritePerformanceEntry& record = logger_.rewritePerformanceEntries().front();
    EXPECT_EQ(record.applicationBundleIdentifier, "appone");
    EXPECT_EQ(record.inputLength, 42);
    EXPECT_EQ(record.elapsedMilliseconds, 250);
    EXPECT_EQ(record.date, clock_.time);
    EXPECT_EQ(logger_.entries().front().date, clock_.time);
    EXPECT_FALSE(record.id.isNull());
}

TEST_F(DiagnosticsLoggerTest, BothListsKeepTheNewestEightyNewestFirst) {
    for (int i = 1; i <= 81; ++i) {
        logger_.logRewrite(RewriteDiagnosticStage::completed, QString("app"), i, i * 10);
    }
    ASSERT_EQ(logger_.entries().size(), 80u);
    EXPECT_EQ(logger_.entries().front().message, "stage=completed app=app length=81 elapsed_ms=810");
    EXPECT_EQ(logger_.entries().back().message, "stage=completed app=app length=2 elapsed_ms=20");
    ASSERT_EQ(logger_.rewritePerformanceEntries().size(), 80u);
    EXPECT_EQ(logger_.rewritePerformanceEntries().front().inputLength, 81);
    EXPECT_EQ(logger_.rewritePerformanceEntries().back().inputLength, 2);

    std::set<QString> ids;
    for (const DiagnosticEntry& entry : logger_.entries()) {
        ids.insert(entry.id.toString());
    }
    EXPECT_EQ(ids.size(), 80u);

    logger_.clear();
    EXPECT_TRUE(logger_.entries().empty());
    EXPECT_TRUE(logger_.rewritePerformanceEntries().empty());

    DiagnosticsLogger none(0, clock_);
    none.record("dropped");
    none.logRewrite(RewriteDiagnosticStage::completed, std::nullopt, 1, 1);
    EXPECT_TRUE(none.entries().empty());
    EXPECT_TRUE(none.rewritePerformanceEntries().empty());
}

TEST_F(DiagnosticsLoggerTest, ObserversSeeEveryChange) {
    int notifications = 0;
    Subscription subscription = logger_.changed.connect([&] { ++notifications; });
    logger_.logEvent("prepare", QString("ready"));
    logger_.logRewrite(RewriteDiagnosticStage::completed, std::nullopt, 1, 2);
    logger_.clear();
    EXPECT_EQ(notifications, 4); // one line, one line plus one record, one clearing
    subscription.reset();
    logger_.record("after");
    EXPECT_EQ(notifications, 4);
}

} // namespace
} // namespace parlune
