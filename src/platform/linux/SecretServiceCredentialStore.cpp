#include "platform/linux/SecretServiceCredentialStore.h"

#include <QByteArray>
#include <QDir>
#include <QFileInfo>

#include <libsecret/secret.h>

namespace parlune {

namespace {

constexpr const char* secretServiceName = "org.freedesktop.secrets";

const SecretSchema credentialSchema = {
    "app.parlune.Credential",
    // Match items by their attributes alone, whichever program stored them.
    SECRET_SCHEMA_DONT_MATCH_NAME,
    {
        {"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
        {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
        {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING},
    },
    0,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

// True when connecting to the session bus needs no auto-launch of a new bus.
bool sessionBusConfigured() {
    const QString address = qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS");
    if (!address.isEmpty()) {
        return !address.startsWith(QStringLiteral("autolaunch:"));
    }
    const QString runtimeDirectory = qEnvironmentVariable("XDG_RUNTIME_DIR");
    return !runtimeDirectory.isEmpty() && QFileInfo::exists(runtimeDirectory + QStringLiteral("/bus"));
}

// One chain of asynchronous calls on a private main context, all cancelled at a deadline.
class BoundedCall {
public:
    explicit BoundedCall(std::chrono::milliseconds timeout)
        : context_(g_main_context_new()), cancellable_(g_cancellable_new()) {
        g_main_context_push_thread_default(context_);
        timeout_ = g_timeout_source_new(static_cast<guint>(std::max<long long>(timeout.count(), 1)));
        g_source_set_callback(
            timeout_,
            [](gpointer cancellable) -> gboolean {
                g_cancellable_cancel(static_cast<GCancellable*>(cancellable));
                return G_SOURCE_REMOVE;
            },
            cancellable_, nullptr);
        g_source_attach(timeout_, context_);
    }

    ~BoundedCall() {
        g_source_destroy(timeout_);
        g_source_unref(timeout_);
        // Let anything the cancellation finished deliver its callback before the context goes.
        while (g_main_context_iteration(context_, FALSE)) {
        }
        g_main_context_pop_thread_default(context_);
        g_main_context_unref(context_);
        g_object_unref(cancellable_);
    }

    BoundedCall(const BoundedCall&) = delete;
    BoundedCall& operator=(const BoundedCall&) = delete;

    GCancellable* cancellable() const { return cancellable_; }

    // Runs the context until the pending step reports its result. Cancelled steps still report
    // (with a cancellation error), so this always returns.
    GAsyncResult* wait() {
        while (result_ == nullptr) {
            g_main_context_iteration(context_, TRUE);
        }
        return std::exchange(result_, nullptr);
    }

    static void onReady(GObject*, GAsyncResult* result, gpointer self) {
        static_cast<BoundedCall*>(self)->result_ = G_ASYNC_RESULT(g_object_ref(result));
    }

private:
    GMainContext* context_;
    GCancellable* cancellable_;
    GSource* timeout_ = nullptr;
    GAsyncResult* result_ = nullptr;
};

// Owns one GAsyncResult and one GError.
struct StepResult {
    GAsyncResult* result;
    GError* error = nullptr;
    explicit StepResult(GAsyncResult* r) : result(r) {}
    ~StepResult() {
        g_object_unref(result);
        if (error) {
            g_error_free(error);
        }
    }
    StepResult(const StepResult&) = delete;
    StepResult& operator=(const StepResult&) = delete;
};

} // namespace

SecretServiceCredentialStore::SecretServiceCredentialStore(std::chrono::milliseconds timeout)
    : timeout_(timeout) {}

CredentialDeletion SecretServiceCredentialStore::deleteItem(const QString& service, const QString& account) {
    if (!sessionBusConfigured()) {
        return CredentialDeletion::unavailable;
    }
    BoundedCall call(timeout_);

    g_bus_get(G_BUS_TYPE_SESSION, call.cancellable(), &BoundedCall::onReady, &call);
    GDBusConnection* bus = nullptr;
    {
        StepResult step(call.wait());
        bus = g_bus_get_finish(step.result, &step.error);
        if (bus == nullptr) {
            return CredentialDeletion::unavailable;
        }
    }
    // The shared connection must never take the whole program down when the bus goes away.
    g_dbus_connection_set_exit_on_close(bus, FALSE);

    // Only a service that already runs is asked; asking by name would start one.
    g_dbus_connection_call(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "NameHasOwner", g_variant_new("(s)", secretServiceName), G_VARIANT_TYPE("(b)"),
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, static_cast<gint>(timeout_.count()),
                           call.cancellable(), &BoundedCall::onReady, &call);
    bool serviceRuns = false;
    {
        StepResult step(call.wait());
        GVariant* reply = g_dbus_connection_call_finish(bus, step.result, &step.error);
        if (reply != nullptr) {
            gboolean owned = FALSE;
            g_variant_get(reply, "(b)", &owned);
            serviceRuns = owned;
            g_variant_unref(reply);
        }
    }
    g_object_unref(bus);
    if (!serviceRuns) {
        return CredentialDeletion::unavailable;
    }

    // A proxy of our own rather than libsecret's process-wide one: that one would keep following
    // the main context of its first caller, which is gone once this call returns.
    secret_service_open(SECRET_TYPE_SERVICE, nullptr, SECRET_SERVICE_NONE, call.cancellable(),
                        &BoundedCall::onReady, &call);
    SecretService* secretService = nullptr;
    {
        StepResult step(call.wait());
        secretService = secret_service_open_finish(step.result, &step.error);
        if (secretService == nullptr) {
            return CredentialDeletion::unavailable;
        }
    }

    const QByteArray serviceUtf8 = service.toUtf8();
    const QByteArray accountUtf8 = account.toUtf8();
    GHashTable* attributes = secret_attributes_build(&credentialSchema, "service", serviceUtf8.constData(),
                                                     "account", accountUtf8.constData(), nullptr);
    secret_service_clear(secretService, &credentialSchema, attributes, call.cancellable(),
                         &BoundedCall::onReady, &call);
    StepResult step(call.wait());
    const gboolean removed = secret_service_clear_finish(secretService, step.result, &step.error);
    g_hash_table_unref(attributes);
    g_object_unref(secretService);
    if (step.error != nullptr) {
        return CredentialDeletion::unavailable;
    }
    return removed ? CredentialDeletion::deleted : CredentialDeletion::notFound;
}

} // namespace parlune
