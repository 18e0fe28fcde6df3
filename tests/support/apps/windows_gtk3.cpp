// GTK 3 windows for the tests of window management. Arguments, in any order: "csd" for a header bar
// of its own, "fixed" for a window of one size, "ask" for a dialog before it closes, "refuse" for
// ignoring that it should close, "stay" for living on without windows, "id=ID" for an application
// that keeps to one instance, "quits" for an action of it that ends it, "title=TITLE".
// Ends without clean-up, which a leak checker would take for leaks of the toolkit.
#include <gtk/gtk.h>

#include <cstdlib>
#include <string>

#include "report.h"

namespace {

struct Options {
  bool csd = false, fixed = false, ask = false, refuse = false, stay = false, quits = false;
  std::string id, title = "GTK 3 window";
} options;

GtkWindow* dialogParent = nullptr;

gboolean deleted(GtkWidget* window, GdkEvent*, gpointer) {
  report("asked to close");
  if (options.refuse) return TRUE;
  if (!options.ask) return FALSE;
  dialogParent = GTK_WINDOW(window);
  GtkWidget* dialog = gtk_message_dialog_new(dialogParent, GTK_DIALOG_MODAL, GTK_MESSAGE_QUESTION,
                                             GTK_BUTTONS_YES_NO, "Save the changes?");
  gtk_widget_show(dialog);
  return TRUE;
}

GtkWidget* makeWindow(GtkApplication* application) {
  GtkWidget* window = application ? gtk_application_window_new(application)
                                  : gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_default_size(GTK_WINDOW(window), 500, 300);
  if (options.csd) {
    GtkWidget* bar = gtk_header_bar_new();
    gtk_header_bar_set_show_close_button(GTK_HEADER_BAR(bar), TRUE);
    gtk_window_set_titlebar(GTK_WINDOW(window), bar);
  }
  gtk_window_set_title(GTK_WINDOW(window), options.title.c_str());
  if (options.fixed) {
    gtk_widget_set_size_request(window, 320, 240);
    gtk_window_set_resizable(GTK_WINDOW(window), FALSE);
  }
  gtk_container_add(GTK_CONTAINER(window), gtk_text_view_new());
  g_signal_connect(window, "delete-event", G_CALLBACK(deleted), nullptr);
  gtk_widget_show_all(window);
  return window;
}

void quitAction(GSimpleAction*, GVariant*, gpointer application) {
  g_application_quit(G_APPLICATION(application));
}

void activated(GtkApplication* application, gpointer) {
  makeWindow(application);
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "csd") options.csd = true;
    if (argument == "fixed") options.fixed = true;
    if (argument == "ask") options.ask = true;
    if (argument == "refuse") options.refuse = true;
    if (argument == "stay") options.stay = true;
    if (argument == "quits") options.quits = true;
    if (argument.starts_with("id=")) options.id = argument.substr(3);
    if (argument.starts_with("title=")) options.title = argument.substr(6);
  }
  if (!options.id.empty()) {
    GtkApplication* application = gtk_application_new(options.id.c_str(), G_APPLICATION_DEFAULT_FLAGS);
    g_signal_connect(application, "activate", G_CALLBACK(activated), nullptr);
    if (options.stay) g_application_hold(G_APPLICATION(application));
    if (options.quits) {
      GSimpleAction* quit = g_simple_action_new("quit", nullptr);
      g_signal_connect(quit, "activate", G_CALLBACK(quitAction), application);
      g_action_map_add_action(G_ACTION_MAP(application), G_ACTION(quit));
    }
    std::_Exit(g_application_run(G_APPLICATION(application), 1, argv));
  }
  gtk_init(&argc, &argv);
  GtkWidget* window = makeWindow(nullptr);
  if (!options.stay) g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), nullptr);
  gtk_main();
  std::_Exit(0);
}
