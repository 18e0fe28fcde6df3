// Requests and paths of any content: a path that parses names one element in one way, and no
// request makes the tool answer with more than it was asked for.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "../fakes/fake_accessibility.h"
#include "../fakes/fake_applications.h"
#include "base/utf8.h"
#include "tools/accessibility_control.h"
#include "tools/element_path.h"

namespace {

using namespace vesko;

void require(bool condition) {
  if (!condition) std::abort();
}

std::size_t count(const Node& node) {
  std::size_t total = 1;
  for (const Node& child : node.children) total += count(child);
  return total;
}

/// A path written anew from its parts leads to the same parts.
void checkPath(std::string_view text) {
  const auto path = ElementPath::parse(text);
  if (!path) return;
  std::string again =
      path->application ? applicationSegment(*path->application) : std::string(systemWideSegment);
  for (const auto& s : path->segments) again += "/" + elementSegment(s.role, s.title, s.index);
  const auto second = ElementPath::parse(again);
  require(second && second->segments.size() == path->segments.size());
  for (std::size_t i = 0; i < path->segments.size(); ++i) {
    const auto &a = path->segments[i], &b = second->segments[i];
    require(a.role == b.role && (a.title == b.title || !b.title));
  }
}

template <class Request>
auto decoded(std::string_view body) {
  return json::decode<Request>(body);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  checkPath(body);
  if (isValidUtf8(body)) require(percentDecodeTitle(percentEncodeTitle(body)) == body);

  fakes::FakeApplications applications;
  fakes::FakeAccessibility fake;
  fakes::FakeWindowSystem windows(applications);
  applications.add({.pid = 7, .bundleIdentifier = "org.a", .name = "A", .startToken = "t"});
  auto& window = fake.application(7).add("AXWindow", "W/1");
  window.add("AXButton", "ok");
  window.add("AXButton", "ok");
  AccessibilityControl control(fake, applications, windows);
  if (const auto request = decoded<SnapshotRequest>(body)) {
    const auto answer = control.snapshot(*request);
    if (answer) {
      require(count(answer->tree) <= static_cast<std::size_t>(request->maxNodes.value_or(500)));
      require(json::encode(*answer).has_value());
    } else {
      require(!answer.error().message().empty());
    }
  }
  if (const auto request = decoded<FindRequest>(body)) {
    const auto answer = control.find(*request);
    if (answer)
      require(answer->elements.size() <= static_cast<std::size_t>(request->limit.value_or(20)));
  }
  if (const auto request = decoded<ActionRequest>(body)) (void)control.performAction(*request);
  if (const auto request = decoded<SetValueRequest>(body)) (void)control.setValue(*request);
  return 0;
}
