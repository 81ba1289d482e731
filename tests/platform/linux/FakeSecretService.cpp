// A minimal Secret Service for tests: owns org.freedesktop.secrets on the session bus and holds
// unlocked items with "service" and "account" attributes.
//   fake_secret_service [--hang] SERVICE:ACCOUNT...
// Prints "ready" once the name is owned and "deleted SERVICE ACCOUNT" for every deletion. With
// --hang it never answers a search, like a service stuck behind a prompt.
#include <gio/gio.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const char* introspection = R"(
<node>
  <interface name='org.freedesktop.Secret.Service'>
    <method name='OpenSession'>
      <arg type='s' direction='in'/><arg type='v' direction='in'/>
      <arg type='v' direction='out'/><arg type='o' direction='out'/>
    </method>
    <method name='SearchItems'>
      <arg type='a{ss}' direction='in'/><arg type='ao' direction='out'/><arg type='ao' direction='out'/>
    </method>
    <property name='Collections' type='ao' access='read'/>
  </interface>
  <interface name='org.freedesktop.Secret.Item'>
    <method name='Delete'><arg type='o' direction='out'/></method>
    <property name='Locked' type='b' access='read'/>
    <property name='Attributes' type='a{ss}' access='read'/>
    <property name='Label' type='s' access='read'/>
    <property name='Created' type='t' access='read'/>
    <property name='Modified' type='t' access='read'/>
  </interface>
</node>)";

struct Item {
    std::string service;
    std::string account;
    std::string path;
    guint registration = 0;
    bool deleted = false;
};

std::vector<Item> items;
bool hang = false;
GDBusNodeInfo* node = nullptr;

void announce(const char* line) {
    std::printf("%s\n", line);
    std::fflush(stdout);
}

void serviceCall(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                 GVariant* parameters, GDBusMethodInvocation* invocation, gpointer) {
    if (std::strcmp(method, "OpenSession") == 0) {
        g_dbus_method_invocation_return_value(
            invocation,
            g_variant_new("(vo)", g_variant_new_string(""), "/org/freedesktop/secrets/session/1"));
        return;
    }
    if (hang) {
        g_object_ref(invocation); // never answered
        return;
    }
    GVariant* wanted = g_variant_get_child_value(parameters, 0);
    GVariantBuilder unlocked;
    g_variant_builder_init(&unlocked, G_VARIANT_TYPE("ao"));
    for (const Item& item : items) {
        const char* service = nullptr;
        const char* account = nullptr;
        const bool hasService = g_variant_lookup(wanted, "service", "&s", &service);
        const bool hasAccount = g_variant_lookup(wanted, "account", "&s", &account);
        if (!item.deleted && (!hasService || item.service == service) &&
            (!hasAccount || item.account == account)) {
            g_variant_builder_add(&unlocked, "o", item.path.c_str());
        }
    }
    g_variant_unref(wanted);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(aoao)", &unlocked, nullptr));
}

GVariant* serviceProperty(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GError**,
                          gpointer) {
    return g_variant_new_objv(nullptr, 0);
}

Item* itemAt(const gchar* path) {
    for (Item& item : items) {
        if (item.path == path) {
            return &item;
        }
    }
    return nullptr;
}

void itemCall(GDBusConnection* bus, const gchar*, const gchar* path, const gchar*, const gchar*, GVariant*,
              GDBusMethodInvocation* invocation, gpointer) {
    Item* item = itemAt(path);
    item->deleted = true;
    announce(("deleted " + item->service + " " + item->account).c_str());
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(o)", "/"));
    g_dbus_connection_unregister_object(bus, item->registration);
}

GVariant* itemProperty(GDBusConnection*, const gchar*, const gchar* path, const gchar*, const gchar* name,
                       GError**, gpointer) {
    const Item* item = itemAt(path);
    if (std::strcmp(name, "Locked") == 0) {
        return g_variant_new_boolean(FALSE);
    }
    if (std::strcmp(name, "Attributes") == 0) {
        GVariantBuilder attributes;
        g_variant_builder_init(&attributes, G_VARIANT_TYPE("a{ss}"));
        g_variant_builder_add(&attributes, "{ss}", "service", item->service.c_str());
        g_variant_builder_add(&attributes, "{ss}", "account", item->account.c_str());
        return g_variant_builder_end(&attributes);
    }
    if (std::strcmp(name, "Label") == 0) {
        return g_variant_new_string("test item");
    }
    return g_variant_new_uint64(0);
}

const GDBusInterfaceVTable serviceTable = {serviceCall, serviceProperty, nullptr, {}};
const GDBusInterfaceVTable itemTable = {itemCall, itemProperty, nullptr, {}};

void onBus(GDBusConnection* bus, const gchar*, gpointer) {
    g_dbus_connection_register_object(bus, "/org/freedesktop/secrets", node->interfaces[0], &serviceTable,
                                      nullptr, nullptr, nullptr);
    for (Item& item : items) {
        item.registration = g_dbus_connection_register_object(bus, item.path.c_str(), node->interfaces[1],
                                                              &itemTable, nullptr, nullptr, nullptr);
    }
}

void onName(GDBusConnection*, const gchar*, gpointer) {
    announce("ready");
}

void onNameLost(GDBusConnection*, const gchar*, gpointer) {
    announce("name lost");
    std::exit(1);
}

} // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--hang") {
            hang = true;
            continue;
        }
        const auto colon = argument.find(':');
        items.push_back(
            Item{argument.substr(0, colon), argument.substr(colon + 1),
                 "/org/freedesktop/secrets/collection/login/" + std::to_string(items.size() + 1)});
    }
    node = g_dbus_node_info_new_for_xml(introspection, nullptr);
    g_bus_own_name(G_BUS_TYPE_SESSION, "org.freedesktop.secrets", G_BUS_NAME_OWNER_FLAGS_NONE, onBus, onName,
                   onNameLost, nullptr, nullptr);
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_main_loop_run(loop);
    return 0;
}
