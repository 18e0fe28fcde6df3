#include "state/daemon_environment.h"

#include "base/file.h"
#include "base/text.h"
#include "base/utf8.h"

namespace vesko {
namespace {

constexpr std::string_view defaultRelayUrl = "wss://relay.vesko.example/device";
constexpr std::string_view fixedLaunchAgentLabel = "com.vesko.companion-app";
constexpr std::size_t maxDeviceNameCharacters = 80;

std::optional<std::string> variable(const Environment& environment, std::string_view name) {
  const auto found = environment.find(name);
  if (found == environment.end()) return std::nullopt;
  return found->second;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    if (!text.empty()) text += '\n';
    text += line;
  }
  return text;
}

bool agentStarts(const std::filesystem::path& plist, const std::filesystem::path& executable) {
  const auto bytes = readFile(plist, PropertyList::maxBytes);
  const auto parsed = bytes ? PropertyList::parse(*bytes) : std::unexpected(std::string());
  const PropertyList* arguments = parsed ? parsed->find("ProgramArguments") : nullptr;
  const auto* list = arguments ? arguments->as<PropertyList::Array>() : nullptr;
  if (!list || list->empty()) return false;
  const std::string* first = list->front().text();
  return first && *first == executable.native();
}

}  // namespace

std::string relayUrl(const DaemonLaunchInputs& inputs) {
  if (inputs.relayUrlDefault) return *inputs.relayUrlDefault;
  if (auto own = variable(inputs.ownEnvironment, "VESKOKIT_RELAY_URL")) return *own;
  if (auto info = inputs.bundle.infoString("VeskoRelayURL"); info && !info->empty()) return *info;
  return std::string(defaultRelayUrl);
}

std::string deviceName(const DaemonLaunchInputs& inputs) {
  const auto own = variable(inputs.ownEnvironment, "VESKOKIT_DEVICE_NAME");
  std::string_view name = own ? trim(*own) : std::string_view();
  if (name.empty()) {
    name = inputs.computerName.empty() ? inputs.hostName : inputs.computerName;
    constexpr std::string_view suffix = ".local";
    if (name.size() >= suffix.size() && lowerAscii(name).ends_with(suffix))
      name.remove_suffix(suffix.size());
    name = trim(name);
  }
  return std::string(utf8Prefix(name, maxDeviceNameCharacters));
}

std::optional<std::string> launchAgentLabel(const std::filesystem::path& launchAgents,
                                            const std::optional<std::string>& bundleIdentifier,
                                            const std::filesystem::path& executable) {
  if (executable.empty()) return std::nullopt;
  std::vector<std::string> labels;
  if (bundleIdentifier && !bundleIdentifier->empty()) labels.push_back(*bundleIdentifier);
  if (labels.empty() || labels.front() != fixedLaunchAgentLabel)
    labels.emplace_back(fixedLaunchAgentLabel);
  for (std::string& label : labels) {
    if (agentStarts(launchAgents / (label + ".plist"), executable)) return std::move(label);
  }
  return std::nullopt;
}

Environment daemonEnvironment(const DaemonLaunchInputs& inputs) {
  Environment environment = inputs.ownEnvironment;
  // An absent value deletes the name: what this process inherited must never reach the daemon.
  const auto put = [&environment](std::string_view name, std::optional<std::string> value) {
    if (value) {
      environment.insert_or_assign(std::string(name), std::move(*value));
    } else if (const auto found = environment.find(name); found != environment.end()) {
      environment.erase(found);
    }
  };
  const auto& grants = inputs.grants;
  const auto identifier = inputs.bundle.identifier();
  put("VESKOKIT_RELAY_URL", relayUrl(inputs));
  put("VESKOKIT_VERSION", inputs.bundle.infoString("CFBundleShortVersionString").value_or("0.0.0"));
  put("VESKOKIT_DEVICE_NAME", deviceName(inputs));
  put("VESKOKIT_KEYCHAIN_SERVICE", identifier.value_or(std::string(releaseBundleIdentifier)));
  put("VESKOKIT_STATE_DIR", inputs.directories.state.native());
  put("VESKOKIT_CACHE_DIR", inputs.directories.cache.native());
  put("VESKOKIT_LAUNCHD_LABEL",
      launchAgentLabel(inputs.directories.launchAgents, identifier, inputs.executable));
  put("VESKOKIT_PARENT_PID", std::to_string(inputs.processId));
  put("VESKOKIT_PAIRING_CODE", inputs.pairingCode);
  put("VESKOKIT_CONTACTS_SOURCE",
      grants.contacts ? std::optional<std::string>("handoff") : std::nullopt);
  put("VESKOKIT_CONTACTS_FILE", grants.contacts && grants.contactsFile
                                    ? std::optional(grants.contactsFile->native())
                                    : std::nullopt);
  put("VESKOKIT_GRANTED_DIRS",
      grants.folders.empty() ? std::nullopt : std::optional(joined(grants.folders)));
  put("VESKOKIT_PHOTOS_LIBRARY",
      grants.photosLibrary ? std::optional(grants.photosLibrary->native()) : std::nullopt);
  return environment;
}

}  // namespace vesko
