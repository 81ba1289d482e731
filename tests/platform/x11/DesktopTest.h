#pragma once

#include "DesktopSession.h"
#include "platform/x11/EwmhWorkspace.h"
#include "platform/x11/X11Pasteboard.h"
#include "platform/x11/XTestKeyboardEvents.h"
#include "platform/x11/XcbConnection.h"

#include <gtest/gtest.h>

#include <memory>

namespace parlune::test {

// Fixture of every desktop test: skips without the private desktop, and gives the X11 ports of
// this process (one connection, as the application has).
class DesktopTest : public ::testing::Test {
protected:
    void SetUp() override {
        DesktopSession* session = DesktopSession::current();
        if (!session || !session->isRunning()) {
            GTEST_SKIP() << "no test desktop: "
                         << (session ? session->failure().toStdString() : "not started");
        }
        connection = x11::XcbConnection::open();
        ASSERT_TRUE(connection);
        workspace = std::make_unique<x11::EwmhWorkspace>(*connection);
        pasteboard = std::make_unique<x11::X11Pasteboard>(*connection);
        keyboard = std::make_unique<x11::XTestKeyboardEvents>(*connection, *workspace);
    }

    void TearDown() override {
        keyboard.reset();
        pasteboard.reset();
        workspace.reset();
        connection.reset();
    }

    std::unique_ptr<x11::XcbConnection> connection;
    std::unique_ptr<x11::EwmhWorkspace> workspace;
    std::unique_ptr<x11::X11Pasteboard> pasteboard;
    std::unique_ptr<x11::XTestKeyboardEvents> keyboard;
};

inline int xdotool(const QStringList& arguments) {
    return DesktopSession::run(QStringList{QStringLiteral("xdotool")} + arguments);
}

} // namespace parlune::test
