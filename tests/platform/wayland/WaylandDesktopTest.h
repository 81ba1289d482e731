#pragma once

#include "CompositorConnection.h"
#include "SwaySession.h"
#include "Typist.h"
#include "platform/wayland/DataControlPasteboard.h"
#include "platform/wayland/SwayIpcWorkspace.h"
#include "platform/wayland/VirtualKeyboardEvents.h"
#include "platform/wayland/WaylandConnection.h"

#include <gtest/gtest.h>

#include <memory>

namespace parlune::test {

// Fixture of every Wayland desktop test: skips without the private sway, and gives the Wayland
// ports of this process (one connection, as the application has) and the user's own keyboard.
class WaylandDesktopTest : public ::testing::Test {
protected:
    void SetUp() override {
        SwaySession* session = SwaySession::current();
        if (!session || !session->isRunning()) {
            GTEST_SKIP() << "no test compositor: "
                         << (session ? session->failure().toStdString() : "not started");
        }
        connection = test::connectToCompositor();
        ASSERT_TRUE(connection);
        workspace = wayland::SwayIpcWorkspace::connect();
        ASSERT_TRUE(workspace);
        pasteboard = std::make_unique<wayland::DataControlPasteboard>(*connection);
        ASSERT_TRUE(pasteboard->isUsable());
        keyboard = std::make_unique<wayland::VirtualKeyboardEvents>(*connection, *workspace);
        ASSERT_TRUE(keyboard->isAvailable());
        typist = std::make_unique<Typist>(*connection);
        ASSERT_TRUE(typist->isReady());
    }

    void TearDown() override {
        typist.reset();
        keyboard.reset();
        pasteboard.reset();
        workspace.reset();
        connection.reset();
    }

    std::unique_ptr<wayland::WaylandConnection> connection;
    std::unique_ptr<wayland::SwayIpcWorkspace> workspace;
    std::unique_ptr<wayland::DataControlPasteboard> pasteboard;
    std::unique_ptr<wayland::VirtualKeyboardEvents> keyboard;
    std::unique_ptr<Typist> typist;
};

} // namespace parlune::test
