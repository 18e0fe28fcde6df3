// A GTK 3 window at the top left of the screen: with the argument "text" a text view, with "entry"
// an entry, with "pointer" an area that reports clicks, drags and scrolling in root coordinates.
#include <gtk/gtk.h>

#include <string>

#include "report.h"

namespace {

void textChanged(GtkTextBuffer* buffer, gpointer) {
  GtkTextIter start;
  GtkTextIter end;
  gtk_text_buffer_get_bounds(buffer, &start, &end);
  gchar* text = gtk_text_buffer_get_text(buffer, &start, &end, TRUE);
  report(std::string("text ") + text);
  g_free(text);
}

void entryChanged(GtkEditable* entry, gpointer) {
  report(std::string("text ") + gtk_entry_get_text(GTK_ENTRY(entry)));
}

void entryActivated(GtkEntry*, gpointer) {
  report("activated");
}

gboolean focused(GtkWidget*, GdkEventFocus*, gpointer) {
  report("ready");
  return FALSE;
}

std::string at(gdouble x, gdouble y) {
  return std::to_string(static_cast<int>(x)) + " " + std::to_string(static_cast<int>(y));
}

gboolean button(GtkWidget*, GdkEventButton* event, gpointer) {
  const char* kind = event->type == GDK_BUTTON_PRESS     ? "press"
                     : event->type == GDK_BUTTON_RELEASE ? "release"
                     : event->type == GDK_2BUTTON_PRESS  ? "double"
                                                         : "triple";
  report(std::string(kind) + " " + std::to_string(event->button) + " " +
         at(event->x_root, event->y_root));
  return TRUE;
}

gboolean motion(GtkWidget*, GdkEventMotion* event, gpointer) {
  const bool drag = (event->state & GDK_BUTTON1_MASK) != 0;
  report(std::string(drag ? "drag " : "move ") + at(event->x_root, event->y_root));
  return TRUE;
}

gboolean scroll(GtkWidget*, GdkEventScroll* event, gpointer) {
  const char* direction = event->direction == GDK_SCROLL_UP     ? "up"
                          : event->direction == GDK_SCROLL_DOWN ? "down"
                          : event->direction == GDK_SCROLL_LEFT ? "left"
                                                                : "right";
  report(std::string("scroll ") + direction);
  return TRUE;
}

gboolean key(GtkWidget*, GdkEventKey* event, gpointer) {
  report(std::string("key ") + gdk_keyval_name(event->keyval) + " " +
         std::to_string(event->state & (GDK_SHIFT_MASK | GDK_CONTROL_MASK | GDK_MOD1_MASK)));
  return TRUE;
}

}  // namespace

int main(int argc, char** argv) {
  gtk_init(&argc, &argv);
  const std::string kind = argc > 1 ? argv[1] : "text";
  GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_default_size(GTK_WINDOW(window), 600, 400);
  gtk_window_move(GTK_WINDOW(window), 0, 0);
  GtkWidget* widget = nullptr;
  if (kind == "text") {
    widget = gtk_text_view_new();
    gtk_text_view_set_wrap_mode(GTK_TEXT_VIEW(widget), GTK_WRAP_CHAR);
    g_signal_connect(gtk_text_view_get_buffer(GTK_TEXT_VIEW(widget)), "changed",
                     G_CALLBACK(textChanged), nullptr);
  } else if (kind == "entry") {
    widget = gtk_entry_new();
    g_signal_connect(widget, "changed", G_CALLBACK(entryChanged), nullptr);
    g_signal_connect(widget, "activate", G_CALLBACK(entryActivated), nullptr);
  } else {
    widget = gtk_drawing_area_new();
    gtk_widget_set_can_focus(widget, TRUE);
    gtk_widget_add_events(widget, GDK_BUTTON_PRESS_MASK | GDK_BUTTON_RELEASE_MASK |
                                      GDK_POINTER_MOTION_MASK | GDK_SCROLL_MASK |
                                      GDK_KEY_PRESS_MASK);
    g_signal_connect(widget, "button-press-event", G_CALLBACK(button), nullptr);
    g_signal_connect(widget, "button-release-event", G_CALLBACK(button), nullptr);
    g_signal_connect(widget, "motion-notify-event", G_CALLBACK(motion), nullptr);
    g_signal_connect(widget, "scroll-event", G_CALLBACK(scroll), nullptr);
    g_signal_connect(widget, "key-press-event", G_CALLBACK(key), nullptr);
  }
  g_signal_connect_after(widget, "focus-in-event", G_CALLBACK(focused), nullptr);
  gtk_container_add(GTK_CONTAINER(window), widget);
  gtk_widget_grab_focus(widget);
  gtk_widget_show_all(window);
  gtk_main();
}
