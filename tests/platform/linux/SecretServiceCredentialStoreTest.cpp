#include "platform/linux/SecretServiceCredentialStore.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <memory>

namespace parlune {
namespace {

using namespace std::chrono_literals;

const QString legacyService = QStringLiteral("app.parlune.provider-api-key");
// A deadline no loaded machine reaches: an answer well before it was not waited out.
constexpr std::chrono::milliseconds patient = 20s;

// A private session bus for the whole suite; each test starts the services it needs on it.
class SecretServiceCredentialStoreTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        savedAddress_ = qgetenv("DBUS_SESSION_BUS_ADDRESS");
        bus_ = new QProcess;
        bus_->start(QStringLiteral("dbus-daemon"), {QStringLiteral("--session"), QStringLiteral("--nofork"),
                                                    QStringLiteral("--print-address=1")});
        if (bus_->waitForReadyRead(10'000)) {
            address_ = bus_->readLine().trimmed();
        }
    }
    static void TearDownTestSuite() {
        bus_->terminate();
        bus_->waitForFinished(5'000);
        delete bus_;
        bus_ = nullptr;
        qputenv("DBUS_SESSION_BUS_ADDRESS", savedAddress_);
    }
    void SetUp() override {
        ASSERT_FALSE(address_.isEmpty()) << "no private dbus-daemon";
        qputenv("DBUS_SESSION_BUS_ADDRESS", address_);
    }
    void TearDown() override {
        if (service_) {
            service_->terminate();
            service_->waitForFinished(5'000);
        }
    }

    // Starts the fake Secret Service holding `items` ("service:account") and waits until it owns
    // its bus name.
    void startService(const QStringList& arguments) {
        service_ = std::make_unique<QProcess>();
        service_->start(QStringLiteral(FAKE_SECRET_SERVICE_PATH), arguments);
        ASSERT_TRUE(service_->waitForReadyRead(10'000));
        ASSERT_EQ(service_->readLine().trimmed(), "ready");
    }
    QByteArray serviceOutput() {
        service_->waitForReadyRead(200);
        return service_->readAll();
    }

    static inline QProcess* bus_ = nullptr;
    static inline QByteArray address_;
    static inline QByteArray savedAddress_;
    std::unique_ptr<QProcess> service_;
};

TEST_F(SecretServiceCredentialStoreTest, WithoutASessionBusNothingIsStarted) {
    QTemporaryDir runtime;
    const QByteArray savedRuntime = qgetenv("XDG_RUNTIME_DIR");
    qunsetenv("DBUS_SESSION_BUS_ADDRESS");
    qputenv("XDG_RUNTIME_DIR", runtime.path().toUtf8());
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(SecretServiceCredentialStore(patient).deleteItem(legacyService, "default"),
              CredentialDeletion::unavailable);
    qputenv("DBUS_SESSION_BUS_ADDRESS", "autolaunch:");
    EXPECT_EQ(SecretServiceCredentialStore(patient).deleteItem(legacyService, "default"),
              CredentialDeletion::unavailable);
    EXPECT_LT(timer.elapsed(), 10'000); // answered, not waited out
    qputenv("XDG_RUNTIME_DIR", savedRuntime);
}

TEST_F(SecretServiceCredentialStoreTest, BusWithoutSecretServiceAnswersQuickly) {
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(SecretServiceCredentialStore(patient).deleteItem(legacyService, "default"),
              CredentialDeletion::unavailable);
    EXPECT_LT(timer.elapsed(), 10'000); // answered, not waited out
}

TEST_F(SecretServiceCredentialStoreTest, DeletesOnlyTheItemOfThatServiceAndAccount) {
    startService({legacyService + ":default", legacyService + ":other", "elsewhere:default"});
    SecretServiceCredentialStore store;
    EXPECT_EQ(store.deleteItem(legacyService, "default"), CredentialDeletion::deleted);
    EXPECT_EQ(serviceOutput(), "deleted app.parlune.provider-api-key default\n");
    EXPECT_EQ(store.deleteItem(legacyService, "default"), CredentialDeletion::notFound);
    EXPECT_EQ(store.deleteItem("nobody", "default"), CredentialDeletion::notFound);
    EXPECT_EQ(serviceOutput(), "");
    EXPECT_EQ(store.deleteItem("elsewhere", "default"), CredentialDeletion::deleted);
    EXPECT_EQ(serviceOutput(), "deleted elsewhere default\n");
}

TEST_F(SecretServiceCredentialStoreTest, StuckServiceIsAbandonedAtTheDeadline) {
    startService({"--hang", legacyService + ":default"});
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(SecretServiceCredentialStore(300ms).deleteItem(legacyService, "default"),
              CredentialDeletion::unavailable);
    EXPECT_GE(timer.elapsed(), 250);
    EXPECT_LT(timer.elapsed(), 10'000);
    EXPECT_EQ(serviceOutput(), "");
}

TEST_F(SecretServiceCredentialStoreTest, ARestartedServiceIsFoundAgain) {
    startService({legacyService + ":default"});
    SecretServiceCredentialStore store;
    EXPECT_EQ(store.deleteItem(legacyService, "default"), CredentialDeletion::deleted);
    service_->terminate();
    service_->waitForFinished(5'000);
    startService({legacyService + ":default"});
    EXPECT_EQ(store.deleteItem(legacyService, "default"), CredentialDeletion::deleted);
}

} // namespace
} // namespace parlune
