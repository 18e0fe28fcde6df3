#include "platform/linux/session_bus.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <string_view>

namespace vesko {
namespace {

using std::chrono::milliseconds;

constexpr const char* busName = "org.freedesktop.DBus";

std::string objectPath(const std::string& id) {
  std::string path = "/" + id;
  std::ranges::replace(path, '.', '/');
  std::ranges::replace(path, '-', '_');
  return path;
}

bool isAddressable(const std::string& name, const std::string& path) {
  return sd_bus_service_name_is_valid(name.c_str()) > 0 &&
         sd_bus_object_path_is_valid(path.c_str()) > 0;
}

class Error {
 public:
  Error() = default;
  Error(const Error&) = delete;
  Error& operator=(const Error&) = delete;
  ~Error() { sd_bus_error_free(&error_); }
  sd_bus_error* get() { return &error_; }

 private:
  sd_bus_error error_{};
};

struct Unref {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, Unref>;

std::uint64_t microseconds(milliseconds bound) {
  return static_cast<std::uint64_t>(std::chrono::microseconds(bound).count());
}

}  // namespace

void SessionBus::Close::operator()(sd_bus* bus) const {
  // Not flushed: a bus that hangs would hold the caller.
  sd_bus_close(bus);
  sd_bus_unref(bus);
}

std::optional<SessionBus> SessionBus::open() {
  sd_bus* bus = nullptr;
  if (sd_bus_open_user(&bus) < 0) return std::nullopt;
  return SessionBus(bus);
}

std::expected<void, SessionBus::Failure> SessionBus::activate(const std::string& id,
                                                              milliseconds bound) {
  const std::string path = objectPath(id);
  if (!isAddressable(id, path))
    return std::unexpected(Failure{true, "no name for the session bus"});
  sd_bus_message* made = nullptr;
  if (sd_bus_message_new_method_call(bus_.get(), &made, id.c_str(), path.c_str(),
                                     "org.freedesktop.Application", "Activate") < 0)
    return std::unexpected(Failure{false, "no message for the session bus"});
  const Message message(made);
  Error error;
  int result = sd_bus_message_append(message.get(), "a{sv}", 0);
  if (result >= 0)
    result = sd_bus_call(bus_.get(), message.get(), microseconds(bound), error.get(), nullptr);
  if (result >= 0) return {};
  const bool unknown = sd_bus_error_has_name(error.get(), SD_BUS_ERROR_SERVICE_UNKNOWN) > 0 ||
                       sd_bus_error_has_name(error.get(), SD_BUS_ERROR_NAME_HAS_NO_OWNER) > 0;
  const char* text = error.get()->message;
  return std::unexpected(Failure{unknown, text ? text : "no answer from the session bus"});
}

std::optional<pid_t> SessionBus::owner(const std::string& name, milliseconds bound) {
  if (sd_bus_service_name_is_valid(name.c_str()) <= 0) return std::nullopt;
  sd_bus_message* made = nullptr;
  if (sd_bus_message_new_method_call(bus_.get(), &made, busName, "/org/freedesktop/DBus", busName,
                                     "GetConnectionUnixProcessID") < 0)
    return std::nullopt;
  const Message message(made);
  sd_bus_message* answer = nullptr;
  if (sd_bus_message_append(message.get(), "s", name.c_str()) < 0 ||
      sd_bus_call(bus_.get(), message.get(), microseconds(bound), nullptr, &answer) < 0)
    return std::nullopt;
  const Message reply(answer);
  std::uint32_t pid = 0;
  if (sd_bus_message_read(reply.get(), "u", &pid) < 0 || pid == 0) return std::nullopt;
  return static_cast<pid_t>(pid);
}

bool SessionBus::offersService(pid_t pid, milliseconds bound) {
  const auto until = std::chrono::steady_clock::now() + bound;
  sd_bus_message* answer = nullptr;
  sd_bus_message* made = nullptr;
  if (sd_bus_message_new_method_call(bus_.get(), &made, busName, "/org/freedesktop/DBus", busName,
                                     "ListNames") < 0)
    return false;
  const Message message(made);
  if (sd_bus_call(bus_.get(), message.get(), microseconds(bound), nullptr, &answer) < 0)
    return false;
  const Message reply(answer);
  if (sd_bus_message_enter_container(reply.get(), 'a', "s") < 0) return false;
  const char* name = nullptr;
  while (sd_bus_message_read(reply.get(), "s", &name) > 0) {
    const auto left = std::chrono::ceil<milliseconds>(until - std::chrono::steady_clock::now());
    if (left <= left.zero()) return false;
    const bool unique = name[0] == ':';
    if (!unique && owner(name, left) == pid) return true;
  }
  return false;
}

bool SessionBus::quit(const std::string& id, milliseconds bound) {
  const std::string path = objectPath(id);
  if (!isAddressable(id, path)) return false;
  const auto call = [&](const char* member, const auto& append) -> Message {
    sd_bus_message* made = nullptr;
    if (sd_bus_message_new_method_call(bus_.get(), &made, id.c_str(), path.c_str(),
                                       "org.gtk.Actions", member) < 0)
      return nullptr;
    const Message message(made);
    sd_bus_message* answer = nullptr;
    if (sd_bus_message_set_auto_start(message.get(), 0) < 0 || append(message.get()) < 0 ||
        sd_bus_call(bus_.get(), message.get(), microseconds(bound), nullptr, &answer) < 0)
      return nullptr;
    return Message(answer);
  };
  // Activating an action that does not exist is answered like activating one that does.
  const Message list = call("List", [](sd_bus_message*) { return 0; });
  if (!list || sd_bus_message_enter_container(list.get(), 'a', "s") < 0) return false;
  const char* name = nullptr;
  bool has = false;
  while (sd_bus_message_read(list.get(), "s", &name) > 0)
    has = has || std::string_view(name) == "quit";
  return has && call("Activate", [](sd_bus_message* message) {
           return sd_bus_message_append(message, "sava{sv}", "quit", 0, 0);
         });
}

}  // namespace vesko
