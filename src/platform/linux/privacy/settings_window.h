// The window in which every consent is shown and changed. Main thread; GTK is initialised.
#pragma once

#include <adwaita.h>

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "base/main_loop.h"
#include "platform/linux/consent_store.h"
#include "platform/linux/privacy/stray_input_gate.h"

namespace vesko {

/// Follows the stored answers, whoever changes them. Its switches move only for input that was
/// meant for them.
class SettingsWindow {
 public:
  /// `shown` is called once, when the window is on the screen. The window belongs to `application`,
  /// which ends when it is closed.
  SettingsWindow(GtkApplication* application, MainLoop& loop, ConsentStore& store,
                 const std::string& applicationName, std::function<void()> shown);
  SettingsWindow(const SettingsWindow&) = delete;
  SettingsWindow& operator=(const SettingsWindow&) = delete;
  ~SettingsWindow();

  /// Brings the window to the front, at a consent if one is given.
  void present(std::optional<Consent> at);

 private:
  struct Row {
    GtkWidget* row;
    GtkWidget* state;
    GtkWidget* toggle;
  };
  struct Toggle {
    SettingsWindow* window;
    Consent consent;
  };

  GtkWidget* makePage(const std::string& applicationName);
  GtkWidget* makeRow(Consent consent);
  void watchStore();
  void refresh();
  void refreshRow(Consent consent, const Row& row);
  void set(Consent consent, bool allowed);
  void point(Consent consent);
  void gateChanged(bool open);

  MainLoop& loop_;
  ConsentStore& store_;
  std::function<void()> shown_;
  GtkWindow* window_;
  GtkWidget* toasts_ = nullptr;
  GtkWidget* problem_ = nullptr;
  GtkWidget* problemText_ = nullptr;
  std::map<Consent, Row> rows_;
  std::map<Consent, Toggle> toggles_;
  GFileMonitor* monitor_ = nullptr;
  bool refreshing_ = false;  ///< the switches move by themselves
  StrayInputGate gate_;
  GtkWidget* focusBeforeClosing_ = nullptr;
  std::optional<Consent> chosen_;
  Timer chosenTimer_;
};

}  // namespace vesko
