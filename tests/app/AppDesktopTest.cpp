// The application assembled in this process on the private desktop: real ports, real model file,
// real settings file. Screenshots of what a person sees go to the build tree.
#include "DesktopSession.h"
#include "DesktopTest.h"
#include "app/ApplicationServices.h"
#include "app/CompactErrorPresenter.h"
#include "app/ParluneApplication.h"
#include "app/SettingsHeaderView.h"
#include "app/SettingsWindowController.h"
#include "app/SetupSectionView.h"
#include "app/WorkflowTestView.h"
#include "core/hotkeys/HotKeyShortcut.h"
#include "core/settings/SettingsStore.h"
#include "core/shell/AppReadiness.h"
#include "core/shell/TransientStatus.h"
#include "core/shell/WorkflowTest.h"
#include "llm/testing/TestModelMaker.h"
#include "support/QtPrinters.h"
#include "support/RunTask.h"
#include "support/ScriptedRewriteEngine.h"

#include <QDir>
#include <QMenu>
#include <QPushButton>
#include <QSettings>
#include <QSystemTrayIcon>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>

namespace parlune::test {
namespace {

void screenshot(QWidget& widget, const QString& name) {
    QDir().mkpath(QStringLiteral(PARLUNE_SCREENSHOT_DIR));
    // A window's whole scrolled content, not only the part the screen shows.
    QWidget* content = widget.findChild<QWidget*>(QStringLiteral("settingsRoot"));
    (content ? content : &widget)->grab().save(QStringLiteral(PARLUNE_SCREENSHOT_DIR "/") + name);
}

class AppDesktopTest : public DesktopTest {
protected:
    void SetUp() override {
        DesktopTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_TRUE(home.isValid());
        qputenv("XDG_CONFIG_HOME", home.filePath(QStringLiteral("config")).toUtf8());
        qputenv("XDG_DATA_HOME", home.filePath(QStringLiteral("data")).toUtf8());
        qunsetenv("PARLUNE_MODEL");
    }

    void useModel() {
        const QString model = home.filePath(QStringLiteral("model.gguf"));
        llm::TestModelRecipe recipe = *llm::TestModelRecipe::shape("tiny", llm::Architecture::qwen2);
        recipe.tiedOutput = false;
        llm::TestModelMaker::write(recipe, model.toStdString());
        qputenv("PARLUNE_MODEL", model.toUtf8());
    }

    void launch(std::shared_ptr<LocalRewriteEngine> engine = nullptr) {
        services = std::make_unique<app::ApplicationServices>(
            app::ApplicationServices::Options{.settingsPath = settingsPath(),
                                              .executable = QStringLiteral("/usr/bin/parlune"),
                                              .rewriteEngineForTesting = std::move(engine)});
        application = std::make_unique<app::ParluneApplication>(*services, QStringLiteral("0.1.0"));
        application->applicationDidFinishLaunching();
    }

    void TearDown() override {
        application.reset();
        services.reset();
        DesktopTest::TearDown();
    }

    QString settingsPath() const { return home.filePath(QStringLiteral("config/parlune/parlune.conf")); }

    QTemporaryDir home;
    std::unique_ptr<app::ApplicationServices> services;
    std::unique_ptr<app::ParluneApplication> application;
};

TEST_F(AppDesktopTest, FirstStartWithoutAModelOpensSettingsAndSaysWhatIsMissing) {
    launch();
    app::SettingsWindowController* window = application->settingsWindowIfCreated();
    ASSERT_NE(window, nullptr);
    ASSERT_TRUE(
        pumpUntil([&] { return window->isVisible() && !services->readiness().isPreparingModel(); }, 10000));
    pumpFor(300);
    EXPECT_EQ(window->header().pillText(), QStringLiteral("SETUP"));
    EXPECT_TRUE(window->setup().modelText().contains(QStringLiteral("No model file")))
        << window->setup().modelText().toStdString();
    EXPECT_EQ(window->workflowTestView().button().text(), QStringLiteral("Check On-Device Model"));
    screenshot(*window, QStringLiteral("settings-first-run.png"));
}

// A random-weight model never writes the four labelled lines "Improve prompt" demands, so the
// answer is scripted here; the real model's path through the same window and ports is the
// binary's shortcut test.
TEST_F(AppDesktopTest, WorkflowTestFromTheSettingsWindowRewritesTheSampleInPlaceAndStoresCompletion) {
    auto engine = std::make_shared<parlune::testing::ScriptedRewriteEngine>();
    const QString answer = QStringLiteral("Role: a patient tutor\nTask: explain a difficult topic\n"
                                          "Steps: one idea at a time\nFormat: numbered steps");
    engine->answers.push_back(answer);
    launch(engine);
    app::SettingsWindowController* window = application->settingsWindowIfCreated();
    ASSERT_NE(window, nullptr);
    ASSERT_TRUE(pumpUntil([&] { return services->readiness().modelReady(); }, 20000))
        << services->readiness().modelStatusMessage().toStdString();
    pumpFor(300);
    app::WorkflowTestView& view = window->workflowTestView();
    ASSERT_EQ(view.button().text(), QStringLiteral("Run Workflow Test"));
    const QString sample = view.field().toPlainText();
    view.button().click();
    ASSERT_TRUE(pumpUntil([&] { return services->workflowTest().isRunning(); }, 2000));
    ASSERT_TRUE(pumpUntil([&] { return !services->workflowTest().isRunning(); }, 30000));
    EXPECT_TRUE(services->workflowTest().passed()) << services->workflowTest().message().toStdString();
    EXPECT_EQ(view.field().toPlainText(), answer);
    ASSERT_EQ(engine->calls.size(), 1u);
    EXPECT_EQ(engine->calls[0].text, sample);
    EXPECT_EQ(engine->calls[0].mode, RewriteMode::improvePrompt);
    EXPECT_TRUE(QSettings(settingsPath(), QSettings::IniFormat)
                    .value(QString::fromLatin1(SettingsStore::workflowTestKey))
                    .toBool());
    pumpFor(200);
    screenshot(*window, QStringLiteral("settings-after-workflow-test.png"));
}

TEST_F(AppDesktopTest, ShortcutHeldByAnotherClientFallsBackToThePreviousOneWithTheMessage) {
    launch();
    ASSERT_TRUE(services->readiness().hotKeyReady());
    // Another client grabs Alt+Tab first, as a window manager's binding would.
    xcb_connection_t* other = xcb_connect(nullptr, nullptr);
    ASSERT_FALSE(xcb_connection_has_error(other));
    xcb_key_symbols_t* symbols = xcb_key_symbols_alloc(other);
    xcb_keycode_t* codes = xcb_key_symbols_get_keycode(symbols, 0xff09 /* Tab */);
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(other)).data->root;
    std::free(xcb_request_check(other, xcb_grab_key_checked(other, 1, root, XCB_MOD_MASK_1, codes[0],
                                                            XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC)));
    std::free(codes);
    xcb_key_symbols_free(symbols);

    const HotKeyShortcut altTab{48, 2048, QStringLiteral("Alt+Tab")};
    services->settings().saveHotKey(altTab);
    ASSERT_TRUE(pumpUntil([&] { return application->transientStatus().currentMessage().has_value(); }, 3000));
    EXPECT_EQ(*application->transientStatus().currentMessage(),
              QStringLiteral("Alt+Tab is already in use. Alt+Space remains active."));
    EXPECT_EQ(services->settings().selectedHotKey(), HotKeyShortcut::defaultShortcut());
    EXPECT_TRUE(services->readiness().hotKeyReady());
    ASSERT_NE(application->errorPresenter().panel(), nullptr);
    EXPECT_TRUE(application->errorPresenter().panel()->isVisible());
    pumpFor(200);
    screenshot(*application->errorPresenter().panel(), QStringLiteral("status-panel.png"));
    xcb_disconnect(other);
}

TEST_F(AppDesktopTest, TrayMenuFollowsTheModeAndPanelShowsOnTopRight) {
    launch();
    services->settings().setRewriteMode(RewriteMode::professional);
    QMenu& menu = application->statusMenu();
    QStringList titles;
    QAction* style = nullptr;
    for (QAction* action : menu.actions()) {
        titles << (action->isSeparator() ? QStringLiteral("-") : action->text());
        if (action->menu()) {
            style = action;
        }
    }
    EXPECT_EQ(titles, (QStringList{QStringLiteral("Style"), QStringLiteral("-"), QStringLiteral("Settings…"),
                                   QStringLiteral("Check for Updates…"), QStringLiteral("-"),
                                   QStringLiteral("Quit Parlune")}));
    ASSERT_NE(style, nullptr);
    QStringList checked;
    for (QAction* mode : style->menu()->actions()) {
        if (mode->isChecked()) {
            checked << mode->text();
        }
    }
    EXPECT_EQ(checked, QStringList{QStringLiteral("Professional")});
    menu.popup(QPoint(40, 40));
    pumpFor(300);
    screenshot(menu, QStringLiteral("tray-menu.png"));
    menu.hide();
}

} // namespace
} // namespace parlune::test
