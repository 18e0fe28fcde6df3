// What comes from a message bus: messages, the lists of elements in them, and addresses.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/linux/atspi_objects.h"
#include "platform/linux/dbus_address.h"
#include "platform/linux/dbus_message.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

bool within(std::string_view part, std::string_view whole) {
  return part.empty() ||
         (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

void readList(std::string_view body) {
  vesko::AtspiObjects objects(nullptr);
  const vesko::AXElement root = objects.root(":1.1").value();
  vesko::DBusReply reply{.outcome = vesko::DBusReply::Outcome::value,
                         .signature = vesko::atspiItemsType,
                         .body = vesko::DBusReader(body)};
  objects.learn(objects.object(root).application, reply);
  // A known list of children is in agreement with its children, and names none twice.
  for (vesko::AXElement element = 0; element < objects.size(); ++element) {
    const auto& object = objects.object(element);
    auto children = object.children;
    std::ranges::sort(children);
    require(std::ranges::adjacent_find(children) == children.end());
    for (const vesko::AXElement child : children) {
      require(objects.contains(child) && child != element);
      require(objects.object(child).hasFacts);
    }
    require(object.hasChildren || children.empty());
    require(object.facts.name.size() <= vesko::maxAXValueBytes);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  for (const std::string& name : vesko::dbusSocketNames(bytes))
    require(!name.empty() && name.size() < 108);
  readList(bytes);
  if (bytes.size() < vesko::dbusFixedHeaderBytes) return 0;
  const auto length = vesko::dbusMessageSize(bytes);
  if (!length || *length > bytes.size()) return 0;
  require(*length >= vesko::dbusMessageHeadSize(bytes));
  const auto message = vesko::parseDBusMessage(bytes.substr(0, *length));
  if (!message) return 0;
  for (const auto part : {message->sender, message->errorName, message->signature, message->body})
    require(within(part, bytes.substr(0, *length)));
  readList(message->body);
  return 0;
}
