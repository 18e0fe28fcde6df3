#include "platform/linux/privacy/settings_window.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "platform/linux/privacy/consent_texts.h"
#include "platform/linux/privacy/widgets.h"

namespace vesko {
namespace {

constexpr int followWithinMilliseconds = 50;
constexpr Duration chosenTime = std::chrono::seconds(3);

struct Group {
  const char* title;
  std::vector<Consent> consents;
};

const std::vector<Group>& groups() {
  static const std::vector<Group> all{
      {"This Computer", {Consent::accessibility, Consent::screenRecording}},
      {"Applications", {Consent::messagesAutomation, Consent::notesAutomation}},
      {"Personal Data", {Consent::photos, Consent::contacts}},
  };
  return all;
}

}  // namespace

SettingsWindow::SettingsWindow(GtkApplication* application, MainLoop& loop, ConsentStore& store,
                               const std::string& applicationName, std::function<void()> shown)
    : loop_(loop),
      store_(store),
      shown_(std::move(shown)),
      window_(GTK_WINDOW(adw_application_window_new(application))),
      gate_(loop, [this](bool open) { gateChanged(open); }) {
  gtk_window_set_title(window_, "Privacy & Security");
  gtk_window_set_default_size(window_, 620, 740);
  GtkWidget* content = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  GtkWidget* header = adw_header_bar_new();
  adw_header_bar_set_title_widget(
      ADW_HEADER_BAR(header), adw_window_title_new("Privacy & Security", applicationName.c_str()));
  problem_ = gtk_info_bar_new();
  gtk_info_bar_set_message_type(GTK_INFO_BAR(problem_), GTK_MESSAGE_WARNING);
  problemText_ = gtk_label_new(nullptr);
  gtk_label_set_wrap(GTK_LABEL(problemText_), TRUE);
  gtk_label_set_xalign(GTK_LABEL(problemText_), 0);
  gtk_info_bar_add_child(GTK_INFO_BAR(problem_), problemText_);
  toasts_ = adw_toast_overlay_new();
  adw_toast_overlay_set_child(ADW_TOAST_OVERLAY(toasts_), makePage(applicationName));
  gtk_widget_set_vexpand(toasts_, TRUE);
  for (GtkWidget* part : {header, problem_, toasts_}) gtk_box_append(GTK_BOX(content), part);
  adw_application_window_set_content(ADW_APPLICATION_WINDOW(window_), content);
  widgets::connect<void>(window_, "map", this, [](SettingsWindow& self) {
    if (self.shown_) std::exchange(self.shown_, nullptr)();
  });
  widgets::guard(window_, gate_);
  gateChanged(false);
  watchStore();
  refresh();
}

SettingsWindow::~SettingsWindow() {
  if (monitor_)
    g_signal_handlers_disconnect_matched(monitor_, G_SIGNAL_MATCH_ID, 0, 0, nullptr, nullptr,
                                         nullptr);
  g_clear_object(&monitor_);
}

GtkWidget* SettingsWindow::makePage(const std::string& applicationName) {
  GtkWidget* page = adw_preferences_page_new();
  bool first = true;
  for (const Group& group : groups()) {
    GtkWidget* list = adw_preferences_group_new();
    adw_preferences_group_set_title(ADW_PREFERENCES_GROUP(list), group.title);
    if (std::exchange(first, false)) {
      const std::string text = "What the assistant may do through " + applicationName +
                               ". While this window is open it cannot click or type.";
      adw_preferences_group_set_description(ADW_PREFERENCES_GROUP(list), text.c_str());
    }
    for (const Consent consent : group.consents)
      adw_preferences_group_add(ADW_PREFERENCES_GROUP(list), makeRow(consent));
    adw_preferences_page_add(ADW_PREFERENCES_PAGE(page), ADW_PREFERENCES_GROUP(list));
  }
  return page;
}

GtkWidget* SettingsWindow::makeRow(Consent consent) {
  const ConsentText& text = consentText(consent);
  const std::string title(text.title);
  GtkWidget* row = adw_action_row_new();
  adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), title.c_str());
  adw_action_row_set_subtitle(ADW_ACTION_ROW(row), std::string(text.explanation).c_str());
  adw_action_row_set_subtitle_lines(ADW_ACTION_ROW(row), 0);
  adw_action_row_add_prefix(ADW_ACTION_ROW(row),
                            gtk_image_new_from_icon_name(std::string(text.icon).c_str()));
  GtkWidget* state = gtk_label_new(nullptr);
  gtk_widget_add_css_class(state, "dim-label");
  gtk_widget_add_css_class(state, "caption");
  GtkWidget* toggle = gtk_switch_new();
  gtk_widget_set_valign(toggle, GTK_ALIGN_CENTER);
  gtk_accessible_update_property(GTK_ACCESSIBLE(toggle), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                 title.c_str(), -1);
  gtk_accessible_update_property(GTK_ACCESSIBLE(toggle), GTK_ACCESSIBLE_PROPERTY_DESCRIPTION,
                                 std::string(text.explanation).c_str(), -1);
  adw_action_row_add_suffix(ADW_ACTION_ROW(row), state);
  adw_action_row_add_suffix(ADW_ACTION_ROW(row), toggle);
  rows_[consent] = {row, state, toggle};
  Toggle& binding = toggles_[consent] = {this, consent};
  widgets::connect<void, GParamSpec*>(
      toggle, "notify::active", &binding, [](Toggle& self, GParamSpec*) {
        self.window->set(self.consent, gtk_switch_get_active(
                                           GTK_SWITCH(self.window->rows_.at(self.consent).toggle)));
      });
  return row;
}

void SettingsWindow::watchStore() {
  GFile* file = g_file_new_for_path(store_.file().c_str());
  monitor_ = g_file_monitor_file(file, G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr);
  g_object_unref(file);
  if (!monitor_) return;
  g_file_monitor_set_rate_limit(monitor_, followWithinMilliseconds);
  widgets::connect<void, GFile*, GFile*, GFileMonitorEvent>(
      monitor_, "changed", this,
      [](SettingsWindow& self, GFile*, GFile*, GFileMonitorEvent) { self.refresh(); });
}

void SettingsWindow::refresh() {
  refreshing_ = true;
  for (const auto& [consent, row] : rows_) refreshRow(consent, row);
  refreshing_ = false;
  const std::string problem = store_.problem();
  gtk_label_set_text(GTK_LABEL(problemText_),
                     ("The stored answers do not count, so nothing is allowed: the file is " +
                      problem + ". It is kept aside when you change a switch.")
                         .c_str());
  gtk_info_bar_set_revealed(GTK_INFO_BAR(problem_), !problem.empty());
  gtk_widget_set_visible(problem_, !problem.empty());
}

void SettingsWindow::refreshRow(Consent consent, const Row& row) {
  const ConsentState state = store_.state(consent);
  gtk_switch_set_active(GTK_SWITCH(row.toggle), state == ConsentState::granted);
  gtk_label_set_text(GTK_LABEL(row.state), std::string(consentStateText(state)).c_str());
}

void SettingsWindow::set(Consent consent, bool allowed) {
  if (refreshing_) return;
  // Assistive technology moves switches without an event.
  if (!gate_.open()) return refresh();
  const auto stored = store_.set(consent, allowed ? ConsentState::granted : ConsentState::denied);
  if (!stored)
    adw_toast_overlay_add_toast(
        ADW_TOAST_OVERLAY(toasts_),
        adw_toast_new(("The change could not be kept: " + stored.error()).c_str()));
  // Shows what holds, also where nothing was stored.
  refresh();
}

void SettingsWindow::present(std::optional<Consent> at) {
  gtk_window_present(window_);
  if (at) point(*at);
}

void SettingsWindow::point(Consent consent) {
  if (chosen_) gtk_widget_remove_css_class(rows_.at(*chosen_).row, "chosen");
  chosen_ = consent;
  const Row& row = rows_.at(consent);
  gtk_widget_add_css_class(row.row, "chosen");
  // The list scrolls to what has the focus. Not the switch: a reflex must not move it.
  gtk_widget_grab_focus(row.row);
  chosenTimer_ = loop_.after(chosenTime, [this] {
    gtk_widget_remove_css_class(rows_.at(*chosen_).row, "chosen");
    chosen_.reset();
  });
}

void SettingsWindow::gateChanged(bool open) {
  if (!open) focusBeforeClosing_ = gtk_window_get_focus(window_);
  for (const auto& [consent, row] : rows_) gtk_widget_set_sensitive(row.toggle, open);
  // A switch loses the focus with its sensitivity.
  if (open && focusBeforeClosing_ && !gtk_window_get_focus(window_))
    gtk_widget_grab_focus(focusBeforeClosing_);
}

}  // namespace vesko
