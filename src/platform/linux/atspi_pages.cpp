#include "platform/linux/atspi_pages.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/file.h"
#include "base/text.h"

namespace vesko {
namespace {

constexpr std::string_view daemon = "org.freedesktop.DBus";
constexpr std::string_view daemonPath = "/org/freedesktop/DBus";
constexpr std::size_t maxStatBytes = 4096;
constexpr int maxGenerations = 4;  // a sandbox stands between the two processes
constexpr std::size_t maxPages = 64;

/// From proc(5), /proc/pid/stat.
pid_t parentOf(pid_t process) {
  const auto stat = readFile(fmt::format("/proc/{}/stat", process), maxStatBytes);
  const auto name = stat ? stat->rfind(')') : std::string::npos;
  if (name == std::string::npos) return 0;
  const auto fields = splitDroppingEmpty(std::string_view(*stat).substr(name + 1), ' ');
  const auto parent = fields.size() > 1 ? parseDecimal(fields[1]) : std::nullopt;
  return static_cast<pid_t>(parent.value_or(0));
}

bool descendsFrom(pid_t process, pid_t ancestor) {
  for (int generation = 0; generation < maxGenerations && process > 1; ++generation) {
    process = parentOf(process);
    if (process == ancestor) return true;
  }
  return false;
}

struct PageProcess {
  std::string busName;
  pid_t process = 0;
};

std::vector<PageProcess> pageProcesses(AtspiContext& context, pid_t application) {
  std::vector<PageProcess> found;
  const auto bus = context.bus->peer(daemon);
  context.bus->call(bus, daemonPath, daemon, "ListNames", {}, [&](const DBusReply& reply) {
    if (!reply.is("as")) return;
    DBusReader body = reply.body;
    DBusReader names = body.array(4);
    while (names.more()) {
      const std::string_view name = names.text();
      if (name.starts_with("org.webkit.") && found.size() < maxPages)
        found.push_back({std::string(name)});
    }
  });
  context.run();
  for (PageProcess& process : found) {
    context.bus->call(bus, daemonPath, daemon, "GetConnectionUnixProcessID",
                      DBusArguments().add(std::string_view(process.busName)),
                      [&process](const DBusReply& reply) {
                        if (reply.is("u"))
                          process.process = static_cast<pid_t>(DBusReader(reply.body).uint32());
                      });
  }
  context.run();
  std::erase_if(found, [&](const PageProcess& process) {
    return !descendsFrom(process.process, application);
  });
  return found;
}

// Pages are what has no parent in the list of a process.
std::vector<AXElement> pagesIn(AtspiContext& context, const PageProcess& process) {
  std::vector<AXElement> pages;
  context.bus->call(context.bus->peer(process.busName), "/org/a11y/atspi/cache",
                    "org.a11y.atspi.Cache", "GetItems", {}, [&](const DBusReply& reply) {
                      if (!context.got(reply) || !reply.is(atspiItemsType)) return;
                      DBusReader body = reply.body;
                      DBusReader list = body.array(8);
                      while (list.more() && pages.size() < maxPages) {
                        list.structure();
                        list.structure();
                        const std::string_view bus = list.text();
                        const std::string_view path = list.text();
                        list.structure();
                        list.text();
                        list.text();
                        list.structure();
                        list.text();
                        const std::string_view parent = list.text();
                        list.int32();
                        list.int32();
                        list.array(4);
                        list.text();
                        list.uint32();
                        list.text();
                        list.array(4);
                        if (!list.ok() || parent != atspi::nullPath) continue;
                        if (const auto page = context.objects.page(bus, path, process.process))
                          pages.push_back(*page);
                      }
                    });
  context.run();
  return pages;
}

struct Size {
  int width = -1;
  int height = -1;
  bool operator==(const Size&) const = default;
};

void askSize(AtspiContext& context, AXElement element, Size& size) {
  context.ask(element, atspi::component, "GetExtents", DBusArguments().add(std::uint32_t{1}),
              [&size](const DBusReply& reply) {
                DBusReader body = reply.body;
                if (!reply.is("(iiii)")) return;
                body.int32();
                body.int32();
                size.width = body.int32();
                size.height = body.int32();
              });
}

}  // namespace

std::optional<AXElement> pageInView(AtspiContext& context, AXElement view) {
  const std::uint32_t number = context.objects.object(view).application;
  if (!context.objects.application(number).lookedForPages) {
    context.objects.application(number).lookedForPages = true;
    std::vector<AXElement> pages;
    for (const PageProcess& process :
         pageProcesses(context, context.objects.application(number).process))
      for (const AXElement page : pagesIn(context, process)) pages.push_back(page);
    context.objects.application(number).pages = std::move(pages);
  }
  const std::vector<AXElement>& pages = context.objects.application(number).pages;
  // Nothing says which view shows which page, but a page is as large as its view.
  Size ofView;
  std::vector<Size> ofPages(pages.size());
  askSize(context, view, ofView);
  for (std::size_t i = 0; i < pages.size(); ++i) askSize(context, pages[i], ofPages[i]);
  context.run();
  if (std::ranges::count(ofPages, ofView) != 1) return std::nullopt;
  const auto found = std::ranges::find(ofPages, ofView) - ofPages.begin();
  const AXElement page = pages[static_cast<std::size_t>(found)];
  context.objects.object(page).parent = view;
  return page;
}

}  // namespace vesko
