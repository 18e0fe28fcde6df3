// A GTK 4 window with a text view.
#include <gtk/gtk.h>

#include <string>

#include "report.h"

namespace {

void textChanged(GtkTextBuffer* buffer, gpointer) {
  GtkTextIter start;
  GtkTextIter end;
  gtk_text_buffer_get_bounds(buffer, &start, &end);
  char* text = gtk_text_buffer_get_text(buffer, &start, &end, TRUE);
  report(std::string("text ") + text);
  g_free(text);
}

void activeChanged(GtkWindow* window, GParamSpec*, gpointer) {
  if (gtk_window_is_active(window)) report("ready");
}

}  // namespace

int main() {
  gtk_init();
  GtkWidget* window = gtk_window_new();
  gtk_window_set_default_size(GTK_WINDOW(window), 600, 400);
  GtkWidget* view = gtk_text_view_new();
  gtk_text_view_set_wrap_mode(GTK_TEXT_VIEW(view), GTK_WRAP_CHAR);
  g_signal_connect(gtk_text_view_get_buffer(GTK_TEXT_VIEW(view)), "changed",
                   G_CALLBACK(textChanged), nullptr);
  g_signal_connect(window, "notify::is-active", G_CALLBACK(activeChanged), nullptr);
  gtk_window_set_child(GTK_WINDOW(window), view);
  gtk_widget_grab_focus(view);
  gtk_window_present(GTK_WINDOW(window));
  for (;;) g_main_context_iteration(nullptr, TRUE);
}
