// A GTK 3 window for the accessibility tests and figures. With "form" (and "csd" for decorations
// of its own) it holds one of each kind of control, with "many N" about N of them. On standard
// input it takes "frames" (tells where GTK itself says that each control is), "move X Y",
// "remove", "add", "popover" and "second TITLE" (another window, as large as the first); what
// happens to the controls is told on standard output.
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
constexpr int height = 800;

GtkWidget* name(const char* text, GtkWidget* widget) {
  named[text] = widget;
  return widget;
}

void tellFrames() {
  for (const auto& [text, widget] : named) {
    if (!gtk_widget_get_mapped(widget)) continue;
    GtkWidget* top = gtk_widget_get_toplevel(widget);
    int x = 0;
    int y = 0;
    int originX = 0;
    int originY = 0;
    gtk_widget_translate_coordinates(widget, top, 0, 0, &x, &y);
    gdk_window_get_origin(gtk_widget_get_window(top), &originX, &originY);
    report("frame " + text + " " + std::to_string(x + originX) + " " + std::to_string(y + originY) +
           " " + std::to_string(gtk_widget_get_allocated_width(widget)) + " " +
           std::to_string(gtk_widget_get_allocated_height(widget)));
  }
  report("done");
}

void clicked(GtkWidget*, gpointer text) {
  report(std::string("clicked ") + static_cast<const char*>(text));
}

void entryChanged(GtkEditable* entry, gpointer) {
  report(std::string("entry ") + gtk_entry_get_text(GTK_ENTRY(entry)));
}

void toggled(GtkToggleButton* button, gpointer) {
  report(std::string("check ") + (gtk_toggle_button_get_active(button) ? "1" : "0"));
}

void rangeChanged(GtkRange* range, gpointer) {
  report("scale " + std::to_string(static_cast<int>(gtk_range_get_value(range))));
}

void comboChanged(GtkComboBox* combo, gpointer) {
  report("combo " + std::to_string(gtk_combo_box_get_active(combo)));
}

GtkWidget* button(const char* text, gboolean sensitive = TRUE) {
  GtkWidget* widget = gtk_button_new_with_label(text);
  gtk_widget_set_sensitive(widget, sensitive);
  g_signal_connect(widget, "clicked", G_CALLBACK(clicked), const_cast<char*>(text));
  return name(text, widget);
}

GtkWidget* described(const char* text, GtkWidget* widget) {
  atk_object_set_name(gtk_widget_get_accessible(widget), text);
  return name(text, widget);
}

GtkWidget* menuBar() {
  GtkWidget* bar = gtk_menu_bar_new();
  GtkWidget* menu = gtk_menu_new();
  for (const char* text : {"Open Item", "Save Item"}) {
    GtkWidget* item = gtk_menu_item_new_with_label(text);
    g_signal_connect(item, "activate", G_CALLBACK(clicked), const_cast<char*>(text));
    gtk_menu_shell_append(GTK_MENU_SHELL(menu), name(text, item));
  }
  GtkWidget* file = name("File Menu", gtk_menu_item_new_with_label("File Menu"));
  gtk_menu_item_set_submenu(GTK_MENU_ITEM(file), menu);
  gtk_menu_shell_append(GTK_MENU_SHELL(bar), file);
  return bar;
}

GtkWidget* table() {
  GtkListStore* store = gtk_list_store_new(2, G_TYPE_STRING, G_TYPE_STRING);
  for (int row = 0; row < 5; ++row) {
    gtk_list_store_insert_with_values(store, nullptr, -1, 0,
                                      ("cell " + std::to_string(row)).c_str(), 1, "second", -1);
  }
  GtkWidget* view = gtk_tree_view_new_with_model(GTK_TREE_MODEL(store));
  for (int column = 0; column < 2; ++column) {
    gtk_tree_view_append_column(GTK_TREE_VIEW(view),
                                gtk_tree_view_column_new_with_attributes(
                                    column == 0 ? "First" : "Second", gtk_cell_renderer_text_new(),
                                    "text", column, nullptr));
  }
  return described("The Table", view);
}

GtkWidget* form() {
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
  const auto add = [&](GtkWidget* widget) { gtk_container_add(GTK_CONTAINER(box), widget); };
  add(menuBar());
  add(name("A Label", gtk_label_new("A Label")));
  add(button("Save As…"));
  add(button("Disabled", FALSE));
  GtkWidget* check = name("Check", gtk_check_button_new_with_label("Check"));
  g_signal_connect(check, "toggled", G_CALLBACK(toggled), nullptr);
  add(check);
  GtkWidget* entry = described("The Entry", gtk_entry_new());
  gtk_entry_set_text(GTK_ENTRY(entry), "first 世界 👋");
  g_signal_connect(entry, "changed", G_CALLBACK(entryChanged), nullptr);
  add(entry);
  GtkWidget* secret = described("The Secret", gtk_entry_new());
  gtk_entry_set_visibility(GTK_ENTRY(secret), FALSE);
  gtk_entry_set_input_purpose(GTK_ENTRY(secret), GTK_INPUT_PURPOSE_PASSWORD);
  gtk_entry_set_text(GTK_ENTRY(secret), "hidden");
  add(secret);
  GtkWidget* scale =
      described("The Scale", gtk_scale_new_with_range(GTK_ORIENTATION_HORIZONTAL, 0, 100, 1));
  gtk_range_set_value(GTK_RANGE(scale), 25);
  g_signal_connect(scale, "value-changed", G_CALLBACK(rangeChanged), nullptr);
  add(scale);
  GtkWidget* spin = described("The Spin", gtk_spin_button_new_with_range(0, 10, 1));
  gtk_spin_button_set_value(GTK_SPIN_BUTTON(spin), 3);
  add(spin);
  GtkWidget* combo = gtk_combo_box_text_new();
  for (const char* text : {"Red", "Green", "Blue"})
    gtk_combo_box_text_append_text(GTK_COMBO_BOX_TEXT(combo), text);
  gtk_combo_box_set_active(GTK_COMBO_BOX(combo), 1);
  g_signal_connect(combo, "changed", G_CALLBACK(comboChanged), nullptr);
  add(described("The Combo", combo));
  GtkWidget* list = described("The List", gtk_list_box_new());
  for (const char* text : {"Row One", "Row Two"})
    gtk_container_add(GTK_CONTAINER(list), name(text, gtk_label_new(text)));
  add(list);
  add(table());
  GtkWidget* notebook = gtk_notebook_new();
  gtk_notebook_append_page(GTK_NOTEBOOK(notebook), button("On Page One"), gtk_label_new("One"));
  gtk_notebook_append_page(GTK_NOTEBOOK(notebook), button("On Page Two"), gtk_label_new("Two"));
  add(notebook);
  GtkWidget* pages = gtk_notebook_new();
  gtk_notebook_set_show_tabs(GTK_NOTEBOOK(pages), FALSE);
  gtk_notebook_append_page(GTK_NOTEBOOK(pages), button("Without Tabs"), nullptr);
  add(pages);
  GtkWidget* expander = gtk_expander_new("More");
  gtk_container_add(GTK_CONTAINER(expander), button("Collapsed"));
  add(expander);
  GtkWidget* scrolled = gtk_scrolled_window_new(nullptr, nullptr);
  gtk_widget_set_size_request(scrolled, -1, 60);
  GtkWidget* inside = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  for (const char* text : {"Scroll 1", "Scroll 2", "Scroll 3", "Scroll 4", "Scroll 5"})
    gtk_container_add(GTK_CONTAINER(inside), button(text));
  gtk_container_add(GTK_CONTAINER(scrolled), inside);
  add(scrolled);
  GtkWidget* popover = gtk_popover_new(named["A Label"]);
  gtk_container_add(GTK_CONTAINER(popover), button("In Popover"));
  gtk_widget_show_all(gtk_bin_get_child(GTK_BIN(popover)));
  named["popover"] = popover;
  return box;
}

GtkWidget* many(int count) {
  GtkWidget* grid = gtk_grid_new();
  // Each row is a box, a label, a button with its label, an entry, and a check box: five nodes.
  for (int row = 0; row < count / 6; ++row) {
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    const std::string suffix = " " + std::to_string(row);
    gtk_container_add(GTK_CONTAINER(box), gtk_label_new(("label" + suffix).c_str()));
    gtk_container_add(GTK_CONTAINER(box), gtk_button_new_with_label(("button" + suffix).c_str()));
    gtk_container_add(GTK_CONTAINER(box), gtk_entry_new());
    gtk_container_add(GTK_CONTAINER(box),
                      gtk_check_button_new_with_label(("check" + suffix).c_str()));
    gtk_container_add(GTK_CONTAINER(box), gtk_image_new());
    gtk_grid_attach(GTK_GRID(grid), box, row % 8, row / 8, 1, 1);
  }
  return grid;
}

gboolean drawn(GtkWidget* widget, cairo_t*, gpointer text) {
  report(static_cast<const char*>(text));
  g_signal_handlers_disconnect_by_func(widget, reinterpret_cast<gpointer>(drawn), text);
  return FALSE;
}

void command(const std::string& line) {
  int x = 0;
  int y = 0;
  if (line == "frames") {
    tellFrames();
  } else if (std::sscanf(line.c_str(), "move %d %d", &x, &y) == 2) {
    gtk_window_move(GTK_WINDOW(window), x, y);
  } else if (line == "remove") {
    gtk_widget_destroy(named["Save As…"]);
    named.erase("Save As…");
    report("removed");
  } else if (line == "add") {
    GtkWidget* added = button("Added Later");
    gtk_container_add(GTK_CONTAINER(gtk_bin_get_child(GTK_BIN(window))), added);
    gtk_widget_show(added);
    report("added");
  } else if (line == "popover") {
    gtk_popover_popup(GTK_POPOVER(named["popover"]));
    report("popped");
  } else if (line.starts_with("second ")) {
    GtkWidget* second = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_title(GTK_WINDOW(second), line.c_str() + 7);
    gtk_window_set_default_size(GTK_WINDOW(second), width, height);
    gtk_container_add(GTK_CONTAINER(second), button("In Second"));
    g_signal_connect_after(second, "draw", G_CALLBACK(drawn), const_cast<char*>("second"));
    gtk_widget_show_all(second);
  }
}

}  // namespace

int main(int argc, char** argv) {
  gtk_init(&argc, &argv);
  const std::string kind = argc > 1 ? argv[1] : "form";
  window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_title(GTK_WINDOW(window), "Accessible GTK 3");
  if (argc > 2 && std::string(argv[2]) == "csd") {
    GtkWidget* header = gtk_header_bar_new();
    gtk_header_bar_set_show_close_button(GTK_HEADER_BAR(header), TRUE);
    gtk_window_set_titlebar(GTK_WINDOW(window), header);
  }
  gtk_window_set_default_size(GTK_WINDOW(window), width, height);
  gtk_container_add(GTK_CONTAINER(window), kind == "many" ? many(std::atoi(argv[2])) : form());
  g_signal_connect_after(window, "draw", G_CALLBACK(drawn), const_cast<char*>("ready"));
  gtk_widget_show_all(window);
  onCommands(command);
  gtk_main();
}
