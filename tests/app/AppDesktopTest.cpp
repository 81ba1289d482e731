// The application assembled in this process on the private desktop: real ports, real model file,
// real settings file. Screenshots of what a person sees go to the build tree.
#include "DesktopSession.h"
#include "DesktopTest.h"
#include "ParluneProcess.h"
#include "app/ApplicationServices.h"
#include "app/CompactErrorPresenter.h"
#include "app/ModelLibraryView.h"
#include "app/ParluneApplication.h"
#include "app/SettingsHeaderView.h"
#include "app/SettingsWindowController.h"
#include "app/SetupSectionView.h"
#include "app/WorkflowTestView.h"
#include "core/hotkeys/HotKeyShortcut.h"
#include "core/models/LoopbackHttpsServer.h"
#include "core/settings/SettingsStore.h"
#include "core/shell/AppReadiness.h"
#include "core/shell/TransientStatus.h"
#include "core/shell/WorkflowTest.h"
#include "support/QtPrinters.h"
#include "support/RunTask.h"
#include "support/ScriptedRewriteEngine.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
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

// A model that another tool keeps (a Hugging Face cache snapshot) is found and chosen in the window,
// and a catalogue model comes from a real HTTPS server, survives a broken transfer, resumes from its
// .part and is verified before it is used.
TEST_F(AppDesktopTest, ModelLibraryChoosesAFoundModelAndDownloadsAVerifiedOne) {
    const QString snapshot = home.filePath(QStringLiteral("hf/models--acme--tiny/snapshots/0123abcd"));
    ASSERT_TRUE(QDir().mkpath(snapshot));
    const QString found = snapshot + QStringLiteral("/tiny-q8.gguf");
    writeTinyModel(found);
    qputenv("HF_HUB_CACHE", home.filePath(QStringLiteral("hf")).toUtf8());
    launch();
    qunsetenv("HF_HUB_CACHE");

    app::SettingsWindowController* window = application->settingsWindowIfCreated();
    ASSERT_NE(window, nullptr);
    app::ModelLibraryView* library = window->modelLibrary();
    ASSERT_NE(library, nullptr);
    ASSERT_TRUE(pumpUntil([&] { return library->useButton(found) && library->useButton(found)->isEnabled(); },
                          15000));
    EXPECT_FALSE(services->readiness().modelReady());
    library->useButton(found)->click();
    ASSERT_TRUE(pumpUntil([&] { return services->readiness().modelReady(); }, 20000))
        << services->readiness().modelStatusMessage().toStdString();
    EXPECT_EQ(
        QSettings(settingsPath(), QSettings::IniFormat).value(QStringLiteral("localModelPath")).toString(),
        found);
    // A speed test on this computer, with an engine of its own.
    ASSERT_NE(library->speedButton(found), nullptr);
    library->speedButton(found)->click();
    EXPECT_EQ(library->speedOf(found), QStringLiteral("Measuring…"));
    ASSERT_TRUE(
        pumpUntil([&] { return library->speedOf(found).contains(QStringLiteral("tokens/s")); }, 20000))
        << library->speedOf(found).toStdString();

    // The server sends half of the file the first time and closes the connection.
    QTemporaryDir served;
    QFile::copy(found, served.filePath(QStringLiteral("served.gguf")));
    QFile file(found);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray sha256 = QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha256).toHex();
    parlune::testing::LoopbackHttpsServer server;
    const QString problem = server.start(served.path());
    if (!problem.isEmpty()) {
        GTEST_SKIP() << problem.toStdString();
    }
    CatalogueEntry entry;
    entry.id = QStringLiteral("served");
    entry.displayName = QStringLiteral("Served test model");
    entry.fileName = QStringLiteral("served.gguf");
    entry.url = server.url(QStringLiteral("/flaky/served.gguf"));
    entry.sha256 = sha256;
    entry.sizeBytes = QFileInfo(found).size();
    const QString modelsFolder = home.filePath(QStringLiteral("data/parlune/models"));
    ASSERT_TRUE(QDir().mkpath(modelsFolder));
    DownloadTransport transport;
    transport.extraTrustedCertificates = server.certificates();
    app::ModelLibraryView downloads(app::ModelLibraryView::Dependencies{
        .scanner = services->modelScanner(),
        .catalogue = {entry},
        .modelsFolder = modelsFolder,
        .currentModelPath = [&] { return services->currentModelPath(); },
        .useModel = [&](const QString& path) { application->useModel(path); },
        .transport = transport,
    });
    ASSERT_NE(downloads.downloadButton(QStringLiteral("served")), nullptr);
    downloads.downloadButton(QStringLiteral("served"))->click();
    ASSERT_TRUE(
        pumpUntil([&] { return downloads.download()->state() == VerifiedDownload::State::failed; }, 15000));
    EXPECT_GT(downloads.download()->progress().receivedBytes, 0);
    EXPECT_TRUE(QFileInfo::exists(modelsFolder + QStringLiteral("/served.gguf.part")));
    EXPECT_EQ(downloads.pauseButton().text(), QStringLiteral("Resume"));
    downloads.pauseButton().click();
    ASSERT_TRUE(
        pumpUntil([&] { return downloads.download()->state() == VerifiedDownload::State::finished; }, 15000))
        << downloads.downloadSummary().toStdString();
    const QString downloaded = modelsFolder + QStringLiteral("/served.gguf");
    EXPECT_TRUE(QFileInfo::exists(downloaded));
    EXPECT_FALSE(QFileInfo::exists(downloaded + QStringLiteral(".part")));
    EXPECT_EQ(
        QSettings(settingsPath(), QSettings::IniFormat).value(QStringLiteral("localModelPath")).toString(),
        downloaded);
    ASSERT_TRUE(pumpUntil([&] { return services->readiness().modelReady(); }, 20000));
    EXPECT_EQ(QFileInfo(services->currentModelPath()).canonicalFilePath(),
              QFileInfo(downloaded).canonicalFilePath());
    pumpFor(300);
    screenshot(*window, QStringLiteral("settings-models.png"));
}

} // namespace
} // namespace parlune::test
