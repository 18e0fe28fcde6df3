#include "support/accessible_desktop.h"

namespace vesko::test {
namespace {

constexpr guint boundMs = 30'000;
/// Windows of the tests are small; what is larger is another application's.
constexpr int maxDepth = 24;

Element own(AtspiAccessible* accessible) {
  return Element(accessible, [](AtspiAccessible* object) {
    if (object) g_object_unref(object);
  });
}

std::string take(gchar* text) {
  std::string result(text ? text : "");
  g_free(text);
  return result;
}

std::vector<Element> children(AtspiAccessible* parent) {
  std::vector<Element> result;
  const int count = atspi_accessible_get_child_count(parent, nullptr);
  for (int i = 0; i < count; ++i) {
    if (auto child = own(atspi_accessible_get_child_at_index(parent, i, nullptr)))
      result.push_back(std::move(child));
  }
  return result;
}

Element search(const Element& from, AtspiRole role, std::string_view name, int depth) {
  if (atspi_accessible_get_role(from.get(), nullptr) == role &&
      (name.empty() || nameOf(from) == name))
    return from;
  if (depth == maxDepth) return nullptr;
  for (const Element& child : children(from.get())) {
    if (auto found = search(child, role, name, depth + 1)) return found;
  }
  return nullptr;
}

}  // namespace

AccessibleDesktop::AccessibleDesktop() {
  atspi_init();
  listener_ = atspi_event_listener_new(
      [](AtspiEvent* event, void*) { g_boxed_free(ATSPI_TYPE_EVENT, event); }, nullptr, nullptr);
  for (const char* kind : {"object:children-changed", "object:state-changed",
                           "object:property-change", "window:create", "window:activate"})
    atspi_event_listener_register(listener_, kind, nullptr);
}

AccessibleDesktop::~AccessibleDesktop() {
  g_object_unref(listener_);
}

bool AccessibleDesktop::waitUntil(const std::function<bool()>& holds) {
  bool late = false;
  const guint bound = g_timeout_add(
      boundMs,
      [](gpointer data) -> gboolean {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_CONTINUE;
      },
      &late);
  bool held = false;
  while (!(held = holds()) && !late) {
    // Events only tell that something moved; the library's memory of the tree follows them late.
    atspi_accessible_clear_cache(atspi_get_desktop(0));
    g_main_context_iteration(nullptr, TRUE);
  }
  g_source_remove(bound);
  return held;
}

std::vector<Element> AccessibleDesktop::applications(std::string_view name) {
  std::vector<Element> result;
  const Element desktop = own(atspi_get_desktop(0));
  for (Element& application : children(desktop.get())) {
    if (nameOf(application) == name) result.push_back(std::move(application));
  }
  return result;
}

Element AccessibleDesktop::find(std::string_view application, AtspiRole role,
                                std::string_view name) {
  for (const Element& root : applications(application)) {
    if (auto found = search(root, role, name, 0)) return found;
  }
  return nullptr;
}

Element AccessibleDesktop::waitFor(std::string_view application, AtspiRole role,
                                   std::string_view name) {
  Element found;
  waitUntil([&] { return (found = find(application, role, name)) != nullptr; });
  return found;
}

std::string nameOf(const Element& element) {
  return take(atspi_accessible_get_name(element.get(), nullptr));
}

std::string descriptionOf(const Element& element) {
  return take(atspi_accessible_get_description(element.get(), nullptr));
}

bool is(const Element& element, AtspiStateType state) {
  AtspiStateSet* states = atspi_accessible_get_state_set(element.get());
  const bool result = states && atspi_state_set_contains(states, state);
  if (states) g_object_unref(states);
  return result;
}

bool press(const Element& element) {
  AtspiAction* action = atspi_accessible_get_action_iface(element.get());
  if (!action) return false;
  const bool done = atspi_action_do_action(action, 0, nullptr);
  g_object_unref(action);
  return done;
}

unsigned processOf(const Element& element) {
  return atspi_accessible_get_process_id(element.get(), nullptr);
}

}  // namespace vesko::test
