// What the privacy program's windows have in common. Main thread; GTK is initialised, but for
// complain().
#pragma once

#include <adwaita.h>

#include <string>
#include <string_view>

#include "platform/linux/privacy/stray_input_gate.h"

namespace vesko::widgets {

/// One line of standard error, in the form that the companion reads.
void complain(std::string_view message);

/// Colours and spaces of this program's own.
void loadStyle();

/// A wrapped, centred text.
GtkWidget* paragraph(std::string_view text, const char* cssClass = nullptr);

/// A button with an underlined letter, and without the underscore in its accessible name.
GtkWidget* button(const char* mnemonic);

/// Lets the window have keys, clicks and touches only while the gate is open, and tells the gate of
/// them and of the window's focus. The gate outlives the window.
void guard(GtkWindow* window, StrayInputGate& gate);

/// Asks the window manager to keep a mapped window above others. Only X11 has a way to ask.
void keepAbove(GtkWindow* window);

/// Connects a handler of a signal with these arguments; it gets `self` and them. `self` outlives
/// the instance.
template <class Result, class... Arguments, class Self, class Handler>
void connect(gpointer instance, const char* signal, Self* self, Handler handler) {
  struct Binding {
    Self* self;
    Handler handler;
  };
  g_signal_connect_data(
      instance, signal, G_CALLBACK(+[](gpointer, Arguments... arguments, gpointer data) -> Result {
        const auto* binding = static_cast<Binding*>(data);
        return binding->handler(*binding->self, arguments...);
      }),
      new Binding{self, handler},
      [](gpointer data, GClosure*) { delete static_cast<Binding*>(data); }, GConnectFlags(0));
}

}  // namespace vesko::widgets
