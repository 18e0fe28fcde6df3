#include "platform/linux/atspi_accessibility.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "base/file.h"
#include "base/text.h"
#include "platform/linux/atspi_actor.h"
#include "platform/linux/atspi_context.h"
#include "platform/linux/atspi_reader.h"

namespace vesko {
namespace {

using Clock = DBusConnection::Clock;

// How long an application is given to come to the bus after its start, and after accessibility was
// turned on.
constexpr std::chrono::milliseconds arrivalTime{2000};
constexpr int arrivalPauseMilliseconds = 20;
constexpr std::size_t maxStatBytes = 4096;

/// How long ago a process was started, from proc(5), /proc/pid/stat.
std::optional<std::chrono::milliseconds> ageOf(pid_t process) {
  const auto stat = readFile(fmt::format("/proc/{}/stat", process), maxStatBytes);
  // The second field is a name in parentheses, which may hold anything.
  const auto name = stat ? stat->rfind(')') : std::string::npos;
  if (name == std::string::npos) return std::nullopt;
  const auto fields = splitDroppingEmpty(std::string_view(*stat).substr(name + 1), ' ');
  constexpr std::size_t startTimeField = 19;
  const auto ticks =
      fields.size() > startTimeField ? parseDecimal(fields[startTimeField]) : std::nullopt;
  timespec now{};
  if (!ticks || ::clock_gettime(CLOCK_BOOTTIME, &now) != 0) return std::nullopt;
  const std::int64_t started = *ticks * 1000 / ::sysconf(_SC_CLK_TCK);
  return std::chrono::milliseconds(now.tv_sec * 1000 + now.tv_nsec / 1'000'000 - started);
}

class AtspiSession : public AccessibilitySession {
 public:
  AtspiSession(AtspiBus& pool, AtspiConnection connection, X11Sessions& x11,
               Clock::time_point deadline)
      : pool_(pool),
        bus_(std::move(connection.bus)),
        justEnabled_(connection.justEnabled),
        context_{bus_.get(), deadline, AtspiObjects(bus_.get()), AtspiWindows(x11, deadline)} {}
  AtspiSession(const AtspiSession&) = delete;
  AtspiSession& operator=(const AtspiSession&) = delete;
  ~AtspiSession() override {
    if (bus_) pool_.takeBack(std::move(bus_));
  }

  std::expected<AXElement, AXError> application(pid_t process) override {
    if (!bus_) return std::unexpected(AXError::apiDisabled);
    auto patience = arrivalTime;
    if (!justEnabled_) patience -= std::min(ageOf(process).value_or(patience), patience);
    const auto giveUpAt = std::min(context_.deadline, Clock::now() + patience);
    for (;;) {
      if (const auto name = nameOfProcess(process)) return orFull(context_.objects.root(*name));
      if (context_.incomplete) return std::unexpected(AXError::cannotComplete);
      if (Clock::now() >= giveUpAt) break;
      ::poll(nullptr, 0, arrivalPauseMilliseconds);
    }
    return std::unexpected(AXError::apiDisabled);
  }

  std::expected<AXElement, AXError> systemWide() override {
    if (!bus_) return std::unexpected(AXError::apiDisabled);
    return orFull(context_.objects.root(atspi::registry));
  }

  std::expected<AXElement, AXError> focusedWindow(AXElement application) override {
    if (!bus_ || !context_.objects.contains(application))
      return std::unexpected(AXError::invalidElement);
    const auto children = read(std::span(&application, 1), axAttributes::children, maxWindows);
    if (children[0].error != AXError::success) return std::unexpected(children[0].error);
    std::vector<bool> active(children[0].children.size());
    for (std::size_t i = 0; i < active.size(); ++i) {
      context_.ask(children[0].children[i], atspi::accessible, "GetState", {},
                   [&active, i](const DBusReply& reply) {
                     const auto states = statesIn(reply);
                     active[i] = states && states->has(AtspiStates::active);
                   });
    }
    context_.run();
    const auto found = std::ranges::find(active, true);
    if (found == active.end()) return std::unexpected(AXError::noValue);
    return children[0].children[static_cast<std::size_t>(found - active.begin())];
  }

  std::vector<AXElementState> read(std::span<const AXElement> elements, AXAttributeSet wanted,
                                   std::size_t maxChildren) override {
    return AtspiReader(context_, wanted, maxChildren).read(elements);
  }

  bool incomplete() const override { return context_.incomplete; }

  AXError setFocused(AXElement element) override {
    return acted(AtspiActor(context_).setFocused(element));
  }
  AXError perform(AXElement element, AXAction action) override {
    return acted(AtspiActor(context_).perform(element, action));
  }
  AXError setValue(AXElement element, std::string_view value) override {
    return acted(AtspiActor(context_).setValue(element, value));
  }

 private:
  static constexpr std::size_t maxWindows = 1000;

  /// An action may have changed everything.
  AXError acted(AXError result) {
    context_.objects.forgetStates();
    return result;
  }

  /// The session may have met too many elements to take in another.
  static std::expected<AXElement, AXError> orFull(std::optional<AXElement> element) {
    if (!element) return std::unexpected(AXError::cannotComplete);
    return *element;
  }

  std::optional<std::string> nameOfProcess(pid_t process) {
    std::vector<std::string> names;
    context_.bus->call(bus_->peer(atspi::registry), atspi::rootPath, atspi::accessible,
                       "GetChildren", {}, [&](const DBusReply& reply) {
                         if (atspiError(reply) == AXError::cannotComplete)
                           context_.incomplete = true;
                         if (!reply.is("a(so)")) return;
                         DBusReader body = reply.body;
                         DBusReader list = body.array(8);
                         while (list.more()) {
                           list.structure();
                           names.emplace_back(list.text());
                           list.text();
                         }
                       });
    context_.run();
    std::vector<pid_t> processes(names.size());
    constexpr std::string_view daemon = "org.freedesktop.DBus";
    for (std::size_t i = 0; i < names.size(); ++i) {
      bus_->call(bus_->peer(daemon), "/org/freedesktop/DBus", daemon, "GetConnectionUnixProcessID",
                 DBusArguments().add(std::string_view(names[i])),
                 [&processes, i](const DBusReply& reply) {
                   if (reply.is("u"))
                     processes[i] = static_cast<pid_t>(DBusReader(reply.body).uint32());
                 });
    }
    context_.run();
    const auto found = std::ranges::find(processes, process);
    if (found == processes.end()) return std::nullopt;
    return names[static_cast<std::size_t>(found - processes.begin())];
  }

  AtspiBus& pool_;
  std::unique_ptr<DBusConnection> bus_;
  bool justEnabled_;
  AtspiContext context_;
};

}  // namespace

AtspiAccessibility::AtspiAccessibility(X11Sessions& sessions, std::chrono::milliseconds keepFor)
    : sessions_(sessions), bus_(keepFor) {}

std::unique_ptr<AccessibilitySession> AtspiAccessibility::begin(
    std::chrono::steady_clock::time_point deadline) {
  return std::make_unique<AtspiSession>(bus_, bus_.acquire(deadline), sessions_, deadline);
}

}  // namespace vesko
