#include "platform/linux/privacy/widgets.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <fmt/format.h>
#include <gdk/x11/gdkx.h>

#include <cstdio>

#include "platform/linux/privacy_program.h"

namespace vesko::widgets {
namespace {

constexpr const char* style = R"(
.consent-icon {
  padding: 18px;
  border-radius: 9999px;
  color: @accent_color;
  background-color: alpha(@accent_bg_color, 0.14);
}
.consent-answer { min-height: 36px; }
row.chosen { background-color: alpha(@accent_bg_color, 0.18); transition: background-color 600ms; }
)";

}  // namespace

void complain(std::string_view message) {
  fmt::print(stderr, "{}{}\n", privacyProgram::errorPrefix, message);
}

void loadStyle() {
  GtkCssProvider* provider = gtk_css_provider_new();
  gtk_css_provider_load_from_data(provider, style, -1);
  gtk_style_context_add_provider_for_display(gdk_display_get_default(),
                                             GTK_STYLE_PROVIDER(provider),
                                             GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  g_object_unref(provider);
}

GtkWidget* paragraph(std::string_view text, const char* cssClass) {
  GtkWidget* label = gtk_label_new(std::string(text).c_str());
  gtk_label_set_wrap(GTK_LABEL(label), TRUE);
  gtk_label_set_justify(GTK_LABEL(label), GTK_JUSTIFY_CENTER);
  gtk_label_set_max_width_chars(GTK_LABEL(label), 44);
  if (cssClass) gtk_widget_add_css_class(label, cssClass);
  return label;
}

// The toolkit's own way puts the text as it was given into the accessible name.
GtkWidget* button(const char* mnemonic) {
  GtkWidget* label = gtk_label_new_with_mnemonic(mnemonic);
  GtkWidget* result = gtk_button_new();
  gtk_button_set_child(GTK_BUTTON(result), label);
  gtk_widget_add_css_class(result, "text-button");
  gtk_label_set_mnemonic_widget(GTK_LABEL(label), result);
  return result;
}

void guard(GtkWindow* window, StrayInputGate& gate) {
  GtkEventController* events = gtk_event_controller_legacy_new();
  gtk_event_controller_set_propagation_phase(events, GTK_PHASE_CAPTURE);
  connect<gboolean, GdkEvent*>(events, "event", &gate,
                               [](StrayInputGate& gate, GdkEvent* event) -> gboolean {
                                 switch (gdk_event_get_event_type(event)) {
                                   case GDK_KEY_PRESS:
                                   case GDK_BUTTON_PRESS:
                                   case GDK_TOUCH_BEGIN:
                                     return gate.admit() ? GDK_EVENT_PROPAGATE : GDK_EVENT_STOP;
                                   default:
                                     return GDK_EVENT_PROPAGATE;
                                 }
                               });
  gtk_widget_add_controller(GTK_WIDGET(window), events);
  connect<void, GParamSpec*>(window, "notify::is-active", &gate,
                             [window](StrayInputGate& gate, GParamSpec*) {
                               gate.setFocused(gtk_window_is_active(window));
                             });
}

// EWMH, "_NET_WM_STATE": a mapped window asks by a message to the root window.
void keepAbove(GtkWindow* window) {
  GdkSurface* surface = gtk_native_get_surface(GTK_NATIVE(window));
  if (!GDK_IS_X11_SURFACE(surface)) return;
  Display* display = gdk_x11_display_get_xdisplay(gdk_surface_get_display(surface));
  const auto atom = [display](const char* name) { return XInternAtom(display, name, False); };
  const Window id = gdk_x11_surface_get_xid(surface);
  constexpr long add = 1;
  constexpr long fromApplication = 1;
  XEvent event{};
  event.xclient.type = ClientMessage;
  event.xclient.window = id;
  event.xclient.message_type = atom("_NET_WM_STATE");
  event.xclient.format = 32;
  event.xclient.data.l[0] = add;
  event.xclient.data.l[1] = static_cast<long>(atom("_NET_WM_STATE_ABOVE"));
  event.xclient.data.l[3] = fromApplication;
  XSendEvent(display, DefaultRootWindow(display), False,
             SubstructureNotifyMask | SubstructureRedirectMask, &event);
}

}  // namespace vesko::widgets
