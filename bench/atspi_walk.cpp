// Walks the elements of one process with libatspi, one question after the other as that library
// does, for the same attributes that a snapshot has. Prints "MILLISECONDS ELEMENTS".
#include <atspi/atspi.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

int count = 0;

void readValue(AtspiAccessible* element, AtspiRole role) {
  switch (role) {
    case ATSPI_ROLE_TEXT:
    case ATSPI_ROLE_ENTRY:
      if (AtspiText* text = atspi_accessible_get_text_iface(element)) {
        g_free(atspi_text_get_text(text, 0, 65536, nullptr));
        g_object_unref(text);
      }
      break;
    case ATSPI_ROLE_SLIDER:
    case ATSPI_ROLE_SPIN_BUTTON:
    case ATSPI_ROLE_SCROLL_BAR:
      if (AtspiValue* value = atspi_accessible_get_value_iface(element)) {
        atspi_value_get_current_value(value, nullptr);
        g_object_unref(value);
      }
      break;
    default:
      break;
  }
}

void walk(AtspiAccessible* element) {
  ++count;
  g_free(atspi_accessible_get_name(element, nullptr));
  const AtspiRole role = atspi_accessible_get_role(element, nullptr);
  if (AtspiStateSet* states = atspi_accessible_get_state_set(element)) {
    atspi_state_set_contains(states, ATSPI_STATE_SENSITIVE);
    atspi_state_set_contains(states, ATSPI_STATE_FOCUSED);
    g_object_unref(states);
  }
  if (AtspiComponent* component = atspi_accessible_get_component_iface(element)) {
    g_free(atspi_component_get_extents(component, ATSPI_COORD_TYPE_SCREEN, nullptr));
    g_object_unref(component);
  }
  readValue(element, role);
  const int children = atspi_accessible_get_child_count(element, nullptr);
  for (int i = 0; i < children; ++i) {
    if (AtspiAccessible* child = atspi_accessible_get_child_at_index(element, i, nullptr)) {
      walk(child);
      g_object_unref(child);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const auto process = static_cast<guint>(argc > 1 ? std::atoi(argv[1]) : 0);
  atspi_init();
  AtspiAccessible* desktop = atspi_get_desktop(0);
  const int applications = atspi_accessible_get_child_count(desktop, nullptr);
  for (int i = 0; i < applications; ++i) {
    AtspiAccessible* application = atspi_accessible_get_child_at_index(desktop, i, nullptr);
    if (!application || atspi_accessible_get_process_id(application, nullptr) != process) continue;
    const auto begin = std::chrono::steady_clock::now();
    walk(application);
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - begin;
    std::printf("%.3f %d\n", time.count(), count);
    return 0;
  }
  return 1;
}
