#pragma once

#include "KWinSession.h"

#include <QDBusConnection>

#include <gtest/gtest.h>

namespace parlune::test {

// Base of the KWin tests: a fresh session for every test and a connection to its bus. A test
// whose session cannot start is skipped with the reason; subclasses return from their own SetUp
// when IsSkipped() or HasFatalFailure().
class KWinTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!session_.start()) {
            GTEST_SKIP() << "no KWin session: " << session_.failure().toStdString();
        }
        bus_ = session_.connect(busName());
        ASSERT_TRUE(bus_.isConnected());
    }
    void TearDown() override {
        QDBusConnection::disconnectFromBus(busName());
        session_.stop();
    }
    bool setUpFailed() const { return IsSkipped() || HasFatalFailure(); }

    static QString busName() { return QStringLiteral("parlune-kwin-test"); }

    KWinSession session_;
    QDBusConnection bus_{QString()};
};

} // namespace parlune::test
