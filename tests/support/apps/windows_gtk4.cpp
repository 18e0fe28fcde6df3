// A GTK 4 window; with the argument "csd" under a header bar of its own.
#include <gtk/gtk.h>

#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
  gtk_init();
  GtkWidget* window = gtk_window_new();
  gtk_window_set_title(GTK_WINDOW(window), "GTK 4 window");
  gtk_window_set_default_size(GTK_WINDOW(window), 500, 300);
  if (argc > 1 && std::strcmp(argv[1], "csd") == 0)
    gtk_window_set_titlebar(GTK_WINDOW(window), gtk_header_bar_new());
  gtk_window_set_child(GTK_WINDOW(window), gtk_text_view_new());
  gtk_window_present(GTK_WINDOW(window));
  while (g_list_model_get_n_items(gtk_window_get_toplevels()) > 0)
    g_main_context_iteration(nullptr, TRUE);
  std::_Exit(0);
}
