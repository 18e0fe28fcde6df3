// An application on the accessibility bus that answers wrongly, in the way that its argument names:
//   cycle   every element is its own child and its parent's parent
//   liar    the same in the list of elements that it keeps
//   flood   a window with 25,000 children
//   orchard a window with 50 children that have 20,000 each
//   long    50 elements with names of a megabyte
//   wrong   answers of other types than were asked for
//   silent  answers who it is and nothing else
//   dying   ends in the middle of a walk
#include <gio/gio.h>
#include <unistd.h>

#include <string>

#include "report.h"

namespace {

std::string mode;
GDBusConnection* bus = nullptr;
int answered = 0;

constexpr const char* root = "/org/a11y/atspi/accessible/root";
constexpr const char* window = "/window";

GVariant* reference(const std::string& path) {
  return g_variant_new("(so)", g_dbus_connection_get_unique_name(bus), path.c_str());
}

GVariant* children(const std::string& path) {
  GVariantBuilder list;
  g_variant_builder_init(&list, G_VARIANT_TYPE("a(so)"));
  const auto add = [&](const std::string& child) {
    g_variant_builder_add_value(&list, reference(child));
  };
  if (mode == "cycle" || mode == "liar") {
    for (const std::string& child : {path, std::string(root), path + "/x"})
      if (child.size() < 200) add(child);
  } else if (path == root) {
    add(window);
  } else if (path == window) {
    const int count = mode == "flood" ? 25000 : 50;
    for (int i = 0; i < count; ++i) add("/child/" + std::to_string(i));
  } else if (mode == "orchard" && path.starts_with("/child/")) {
    for (int i = 0; i < 20000; ++i) add("/of" + path + "/" + std::to_string(i));
  }
  return g_variant_new("(a(so))", &list);
}

GVariant* name(const std::string& path) {
  const bool isLong = mode == "long" && path.starts_with("/child");
  const std::string text = isLong ? std::string(1 << 20, 'n') : "n";
  return g_variant_new("(v)", g_variant_new_string(text.c_str()));
}

GVariant* items() {
  GVariantBuilder list;
  g_variant_builder_init(&list, G_VARIANT_TYPE("a((so)(so)(so)iiassusau)"));
  const auto add = [&](const char* path, const char* parent) {
    const char* self = g_dbus_connection_get_unique_name(bus);
    GVariantBuilder none;
    GVariantBuilder states;
    g_variant_builder_init(&none, G_VARIANT_TYPE("as"));
    g_variant_builder_init(&states, G_VARIANT_TYPE("au"));
    g_variant_builder_add(&list, "((so)(so)(so)iiassusau)", self, path, self, root, self, parent, 0,
                          1, &none, "listed", 39u, "", &states);
  };
  // Two that are each other's parents, one that is its own, one listed twice.
  add("/a", "/b");
  add("/b", "/a");
  add("/c", "/c");
  add("/c", root);
  return g_variant_new("(a((so)(so)(so)iiassusau))", &list);
}

GVariant* answer(const std::string& path, const std::string& member, GVariant* arguments) {
  if (mode == "wrong") return g_variant_new("(d)", 1.5);
  if (member == "GetChildren") return children(path);
  if (member == "GetRole") return g_variant_new("(u)", path == root ? 75u : 39u);
  if (member == "GetItems" && mode == "liar") return items();
  if (member == "GetExtents") return g_variant_new("((iiii))", 1, 2, 3, 4);
  if (member == "GetState") {
    GVariantBuilder states;
    g_variant_builder_init(&states, G_VARIANT_TYPE("au"));
    g_variant_builder_add(&states, "u", 0x43000000u);
    g_variant_builder_add(&states, "u", 0u);
    return g_variant_new("(au)", &states);
  }
  if (member == "Get") {
    const gchar* property = nullptr;
    g_variant_get(arguments, "(&s&s)", nullptr, &property);
    const std::string asked = property;
    if (asked == "Name") return name(path);
    if (asked == "ToolkitName") return g_variant_new("(v)", g_variant_new_string("gtk"));
    if (asked == "Version") return g_variant_new("(v)", g_variant_new_string("3.24"));
  }
  if (member == "Set") return g_variant_new("()");
  return nullptr;
}

GDBusMessage* received(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                       gpointer) {
  if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL)
    return message;
  const std::string path = g_dbus_message_get_path(message);
  const bool silent = mode == "silent" && path != root;
  if (mode == "dying" && ++answered > 60) _exit(1);
  GVariant* body =
      silent ? nullptr
             : answer(path, g_dbus_message_get_member(message), g_dbus_message_get_body(message));
  if (!silent) {
    GDBusMessage* reply = body ? g_dbus_message_new_method_reply(message)
                               : g_dbus_message_new_method_error_literal(
                                     message, "org.freedesktop.DBus.Error.NotSupported", "no");
    if (body) g_dbus_message_set_body(reply, body);
    g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                   nullptr);
    g_object_unref(reply);
  }
  g_object_unref(message);
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  mode = argc > 1 ? argv[1] : "";
  GDBusConnection* session = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  GVariant* address = g_dbus_connection_call_sync(session, "org.a11y.Bus", "/org/a11y/bus",
                                                  "org.a11y.Bus", "GetAddress", nullptr, nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  const gchar* text = nullptr;
  g_variant_get(address, "(&s)", &text);
  bus = g_dbus_connection_new_for_address_sync(
      text,
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
  g_dbus_connection_add_filter(bus, received, nullptr, nullptr);
  g_dbus_connection_call_sync(bus, "org.a11y.atspi.Registry", root, "org.a11y.atspi.Socket",
                              "Embed", g_variant_new("(@(so))", reference(root)), nullptr,
                              G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  report("ready");
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
