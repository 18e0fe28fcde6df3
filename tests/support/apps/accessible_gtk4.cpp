// A GTK 4 window for the accessibility tests and figures, as accessible_gtk3.cpp describes them.
#include <gdk/x11/gdkx.h>
#include <gtk/gtk.h>

#include <cstdlib>
#include <map>
#include <string>

#include "commands.h"
#include "report.h"

namespace {

std::map<std::string, GtkWidget*> named;
GtkWidget* window = nullptr;
constexpr int width = 700;
constexpr int height = 900;
GMainLoop* loop = nullptr;

GtkWidget* name(const char* text, GtkWidget* widget) {
  named[text] = widget;
  return widget;
}

GtkWidget* described(const char* text, GtkWidget* widget) {
  gtk_accessible_update_property(GTK_ACCESSIBLE(widget), GTK_ACCESSIBLE_PROPERTY_LABEL, text, -1);
  return name(text, widget);
}

void tellFrames() {
  for (const auto& [text, widget] : named) {
    if (!gtk_widget_get_mapped(widget)) continue;
    GtkNative* native = gtk_widget_get_native(widget);
    graphene_rect_t bounds;
    if (!gtk_widget_compute_bounds(widget, GTK_WIDGET(native), &bounds)) continue;
    double shadowX = 0;
    double shadowY = 0;
    gtk_native_get_surface_transform(native, &shadowX, &shadowY);
    GdkSurface* surface = gtk_native_get_surface(native);
    int x = 0;
    int y = 0;
    Window child = 0;
    Display* display = GDK_SURFACE_XDISPLAY(surface);
    XTranslateCoordinates(display, GDK_SURFACE_XID(surface), DefaultRootWindow(display), 0, 0, &x,
                          &y, &child);
    report("frame " + text + " " + std::to_string(x + static_cast<int>(shadowX + bounds.origin.x)) +
           " " + std::to_string(y + static_cast<int>(shadowY + bounds.origin.y)) + " " +
           std::to_string(static_cast<int>(bounds.size.width)) + " " +
           std::to_string(static_cast<int>(bounds.size.height)));
  }
  report("done");
}

void clicked(GtkWidget*, gpointer text) {
  report(std::string("clicked ") + static_cast<const char*>(text));
}

void entryChanged(GtkEditable* entry, gpointer) {
  report(std::string("entry ") + gtk_editable_get_text(entry));
}

void toggled(GtkCheckButton* button, gpointer) {
  report(std::string("check ") + (gtk_check_button_get_active(button) ? "1" : "0"));
}

void rangeChanged(GtkRange* range, gpointer) {
  report("scale " + std::to_string(static_cast<int>(gtk_range_get_value(range))));
}

void comboChanged(GtkDropDown* combo, GParamSpec*, gpointer) {
  report("combo " + std::to_string(gtk_drop_down_get_selected(combo)));
}

GtkWidget* button(const char* text, gboolean sensitive = TRUE) {
  GtkWidget* widget = gtk_button_new_with_label(text);
  gtk_widget_set_sensitive(widget, sensitive);
  g_signal_connect(widget, "clicked", G_CALLBACK(clicked), const_cast<char*>(text));
  return name(text, widget);
}

GtkWidget* menuButton() {
  GMenu* menu = g_menu_new();
  g_menu_append(menu, "Open Item", "win.open");
  g_menu_append(menu, "Save Item", "win.save");
  GtkWidget* widget = gtk_menu_button_new();
  gtk_menu_button_set_label(GTK_MENU_BUTTON(widget), "File Menu");
  gtk_menu_button_set_menu_model(GTK_MENU_BUTTON(widget), G_MENU_MODEL(menu));
  return name("File Menu", widget);
}

void setupRow(GtkSignalListItemFactory*, GtkListItem* item, gpointer) {
  gtk_list_item_set_child(item, gtk_label_new(nullptr));
}

void bindRow(GtkSignalListItemFactory*, GtkListItem* item, gpointer) {
  auto* object = GTK_STRING_OBJECT(gtk_list_item_get_item(item));
  gtk_label_set_text(GTK_LABEL(gtk_list_item_get_child(item)),
                     gtk_string_object_get_string(object));
}

GtkWidget* table() {
  const char* rows[] = {"cell 0", "cell 1", "cell 2", "cell 3", "cell 4", nullptr};
  auto* model = gtk_single_selection_new(G_LIST_MODEL(gtk_string_list_new(rows)));
  GtkListItemFactory* factory = gtk_signal_list_item_factory_new();
  g_signal_connect(factory, "setup", G_CALLBACK(setupRow), nullptr);
  g_signal_connect(factory, "bind", G_CALLBACK(bindRow), nullptr);
  GtkWidget* view = gtk_column_view_new(GTK_SELECTION_MODEL(model));
  gtk_column_view_append_column(GTK_COLUMN_VIEW(view),
                                gtk_column_view_column_new("First", factory));
  return described("The Table", view);
}

GtkWidget* form() {
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
  const auto add = [&](GtkWidget* widget) { gtk_box_append(GTK_BOX(box), widget); };
  add(menuButton());
  add(name("A Label", gtk_label_new("A Label")));
  add(button("Save As…"));
  add(button("Disabled", FALSE));
  GtkWidget* check = name("Check", gtk_check_button_new_with_label("Check"));
  g_signal_connect(check, "toggled", G_CALLBACK(toggled), nullptr);
  add(check);
  GtkWidget* entry = described("The Entry", gtk_entry_new());
  gtk_editable_set_text(GTK_EDITABLE(entry), "first 世界 👋");
  g_signal_connect(entry, "changed", G_CALLBACK(entryChanged), nullptr);
  add(entry);
  GtkWidget* secret = described("The Secret", gtk_password_entry_new());
  gtk_editable_set_text(GTK_EDITABLE(secret), "hidden");
  add(secret);
  GtkWidget* scale =
      described("The Scale", gtk_scale_new_with_range(GTK_ORIENTATION_HORIZONTAL, 0, 100, 1));
  gtk_range_set_value(GTK_RANGE(scale), 25);
  g_signal_connect(scale, "value-changed", G_CALLBACK(rangeChanged), nullptr);
  add(scale);
  GtkWidget* spin = described("The Spin", gtk_spin_button_new_with_range(0, 10, 1));
  gtk_spin_button_set_value(GTK_SPIN_BUTTON(spin), 3);
  add(spin);
  const char* colours[] = {"Red", "Green", "Blue", nullptr};
  GtkWidget* combo = described("The Combo", gtk_drop_down_new_from_strings(colours));
  gtk_drop_down_set_selected(GTK_DROP_DOWN(combo), 1);
  g_signal_connect(combo, "notify::selected", G_CALLBACK(comboChanged), nullptr);
  add(combo);
  GtkWidget* list = described("The List", gtk_list_box_new());
  for (const char* text : {"Row One", "Row Two"})
    gtk_list_box_append(GTK_LIST_BOX(list), name(text, gtk_label_new(text)));
  add(list);
  add(table());
  GtkWidget* notebook = gtk_notebook_new();
  gtk_notebook_append_page(GTK_NOTEBOOK(notebook), button("On Page One"), gtk_label_new("One"));
  gtk_notebook_append_page(GTK_NOTEBOOK(notebook), button("On Page Two"), gtk_label_new("Two"));
  add(notebook);
  GtkWidget* expander = gtk_expander_new("More");
  gtk_expander_set_child(GTK_EXPANDER(expander), button("Collapsed"));
  add(expander);
  GtkWidget* scrolled = gtk_scrolled_window_new();
  gtk_widget_set_size_request(scrolled, -1, 60);
  GtkWidget* inside = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  for (const char* text : {"Scroll 1", "Scroll 2", "Scroll 3", "Scroll 4", "Scroll 5"})
    gtk_box_append(GTK_BOX(inside), button(text));
  gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scrolled), inside);
  add(scrolled);
  GtkWidget* popover = gtk_popover_new();
  gtk_popover_set_child(GTK_POPOVER(popover), button("In Popover"));
  gtk_popover_set_autohide(GTK_POPOVER(popover), FALSE);
  gtk_widget_set_parent(popover, box);
  named["popover"] = popover;
  return box;
}

GtkWidget* many(int count) {
  GtkWidget* grid = gtk_grid_new();
  for (int row = 0; row < count / 8; ++row) {
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    const std::string suffix = " " + std::to_string(row);
    gtk_box_append(GTK_BOX(box), gtk_label_new(("label" + suffix).c_str()));
    gtk_box_append(GTK_BOX(box), gtk_button_new_with_label(("button" + suffix).c_str()));
    gtk_box_append(GTK_BOX(box), gtk_check_button_new_with_label(("check" + suffix).c_str()));
    gtk_box_append(GTK_BOX(box), gtk_image_new());
    gtk_grid_attach(GTK_GRID(grid), box, row % 8, row / 8, 1, 1);
  }
  return grid;
}

gboolean drawn(gpointer shown) {
  GtkWidget* widget = GTK_WIDGET(shown);
  if (!gtk_widget_get_mapped(widget) || gtk_widget_get_width(widget) == 0) return G_SOURCE_CONTINUE;
  report(widget == window ? "ready" : "second");
  return G_SOURCE_REMOVE;
}

void command(const std::string& line) {
  if (line == "frames") {
    tellFrames();
  } else if (line == "remove") {
    gtk_box_remove(GTK_BOX(gtk_widget_get_parent(named["Save As…"])), named["Save As…"]);
    named.erase("Save As…");
    report("removed");
  } else if (line == "popover") {
    gtk_popover_popup(GTK_POPOVER(named["popover"]));
    report("popped");
  } else if (line.starts_with("second ")) {
    GtkWidget* second = gtk_window_new();
    gtk_window_set_title(GTK_WINDOW(second), line.c_str() + 7);
    if (gtk_window_get_titlebar(GTK_WINDOW(window)))
      gtk_window_set_titlebar(GTK_WINDOW(second), gtk_header_bar_new());
    gtk_window_set_default_size(GTK_WINDOW(second), width, height);
    gtk_window_set_child(GTK_WINDOW(second), button("In Second"));
    gtk_window_present(GTK_WINDOW(second));
    g_timeout_add(20, drawn, second);
  }
}

void actionDone(GSimpleAction*, GVariant*, gpointer text) {
  clicked(nullptr, text);
}

}  // namespace

int main(int argc, char** argv) {
  gtk_init();
  const std::string kind = argc > 1 ? argv[1] : "form";
  const std::string decorations = argc > 2 ? argv[2] : "";
  window = gtk_window_new();
  gtk_window_set_title(GTK_WINDOW(window), "Accessible GTK 4");
  if (decorations == "csd") gtk_window_set_titlebar(GTK_WINDOW(window), gtk_header_bar_new());
  gtk_window_set_default_size(GTK_WINDOW(window), width, height);
  GSimpleActionGroup* actions = g_simple_action_group_new();
  for (const auto& [action, text] :
       {std::pair{"open", "Open Item"}, std::pair{"save", "Save Item"}}) {
    GSimpleAction* added = g_simple_action_new(action, nullptr);
    g_signal_connect(added, "activate", G_CALLBACK(actionDone), const_cast<char*>(text));
    g_action_map_add_action(G_ACTION_MAP(actions), G_ACTION(added));
  }
  gtk_widget_insert_action_group(window, "win", G_ACTION_GROUP(actions));
  gtk_window_set_child(GTK_WINDOW(window), kind == "many" ? many(std::atoi(argv[2])) : form());
  gtk_window_present(GTK_WINDOW(window));
  g_timeout_add(20, drawn, window);
  onCommands(command);
  loop = g_main_loop_new(nullptr, FALSE);
  g_main_loop_run(loop);
}
