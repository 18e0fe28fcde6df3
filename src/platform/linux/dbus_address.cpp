#include "platform/linux/dbus_address.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "base/text.h"

namespace vesko {
namespace {

std::optional<int> hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return std::nullopt;
}

std::optional<std::string> unescaped(std::string_view value) {
  std::string result;
  for (std::size_t at = 0; at < value.size(); ++at) {
    if (value[at] != '%') {
      result += value[at];
      continue;
    }
    if (value.size() - at < 3) return std::nullopt;
    const auto high = hexDigit(value[at + 1]);
    const auto low = hexDigit(value[at + 2]);
    if (!high || !low) return std::nullopt;
    result += static_cast<char>(*high * 16 + *low);
    at += 2;
  }
  return result;
}

}  // namespace

std::vector<std::string> dbusSocketNames(std::string_view addresses) {
  constexpr std::string_view transport = "unix:";
  std::vector<std::string> names;
  for (const std::string_view address : splitDroppingEmpty(addresses, ';')) {
    if (!address.starts_with(transport)) continue;
    for (const std::string_view pair : splitDroppingEmpty(address.substr(transport.size()), ',')) {
      const auto equals = pair.find('=');
      const std::string_view key = pair.substr(0, equals);
      if (equals == std::string_view::npos || (key != "path" && key != "abstract")) continue;
      auto name = unescaped(pair.substr(equals + 1));
      if (!name || name->empty()) continue;
      if (key == "abstract") name->insert(0, 1, '\0');
      if (name->size() < sizeof(sockaddr_un::sun_path)) names.push_back(std::move(*name));
    }
  }
  return names;
}

UniqueFd connectToDBus(std::string_view addresses) {
  for (const std::string& name : dbusSocketNames(addresses)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd && ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), size) == 0)
      return fd;
  }
  return {};
}

std::string sessionBusAddress() {
  if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address)
    return address;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  return runtime && *runtime ? "unix:path=" + std::string(runtime) + "/bus" : std::string();
}

}  // namespace vesko
