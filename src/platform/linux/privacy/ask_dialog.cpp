#include "platform/linux/privacy/ask_dialog.h"

#include <adwaita.h>

#include <string>

#include "platform/linux/privacy/consent_texts.h"
#include "platform/linux/privacy/stray_input_gate.h"
#include "platform/linux/privacy/widgets.h"

namespace vesko {
namespace {

using privacyProgram::ExitCode;

class AskDialog {
 public:
  AskDialog(MainLoop& loop, ConsentStore& store, Consent consent, const std::string& application);
  AskDialog(const AskDialog&) = delete;
  AskDialog& operator=(const AskDialog&) = delete;
  ~AskDialog() { gtk_window_destroy(window_); }

  ExitCode run();

 private:
  GtkWidget* makeText(const std::string& application);
  GtkWidget* makeButtons();
  void gateChanged(bool open);
  void answer(ConsentState state);
  void end(ExitCode code);

  ConsentStore& store_;
  const Consent consent_;
  StrayInputGate gate_;
  GtkWindow* window_;
  GtkWidget* deny_ = nullptr;
  GtkWidget* allow_ = nullptr;
  GtkWidget* failure_ = nullptr;
  ExitCode code_ = privacyProgram::unanswered;
  bool ended_ = false;
};

AskDialog::AskDialog(MainLoop& loop, ConsentStore& store, Consent consent,
                     const std::string& application)
    : store_(store),
      consent_(consent),
      gate_(loop, [this](bool open) { gateChanged(open); }),
      window_(
          GTK_WINDOW(g_object_new(ADW_TYPE_WINDOW, "accessible-role",
                                  GTK_ACCESSIBLE_ROLE_ALERT_DIALOG, "resizable", FALSE, nullptr))) {
  gtk_window_set_title(window_, consentQuestion(consent, application).c_str());
  gtk_window_set_default_size(window_, 420, -1);
  GtkWidget* content = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  gtk_box_append(GTK_BOX(content), makeText(application));
  gtk_box_append(GTK_BOX(content), makeButtons());
  GtkWidget* handle = gtk_window_handle_new();
  gtk_window_handle_set_child(GTK_WINDOW_HANDLE(handle), content);
  adw_window_set_content(ADW_WINDOW(window_), handle);

  widgets::guard(window_, gate_);
  GtkEventController* keys = gtk_event_controller_key_new();
  widgets::connect<gboolean, guint, guint, GdkModifierType>(
      keys, "key-pressed", this,
      [](AskDialog& self, guint key, guint, GdkModifierType) -> gboolean {
        if (key != GDK_KEY_Escape) return GDK_EVENT_PROPAGATE;
        self.answer(ConsentState::denied);
        return GDK_EVENT_STOP;
      });
  gtk_widget_add_controller(GTK_WIDGET(window_), keys);
  widgets::connect<void>(window_, "map", this,
                         [](AskDialog& self) { widgets::keepAbove(self.window_); });
  widgets::connect<gboolean>(window_, "close-request", this, [](AskDialog& self) -> gboolean {
    self.end(privacyProgram::unanswered);
    return TRUE;
  });
}

GtkWidget* AskDialog::makeText(const std::string& application) {
  const ConsentText& text = consentText(consent_);
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 12);
  for (auto* set : {gtk_widget_set_margin_top, gtk_widget_set_margin_start,
                    gtk_widget_set_margin_end, gtk_widget_set_margin_bottom})
    set(box, 28);
  GtkWidget* icon = gtk_image_new_from_icon_name(std::string(text.icon).c_str());
  gtk_image_set_pixel_size(GTK_IMAGE(icon), 40);
  gtk_widget_set_halign(icon, GTK_ALIGN_CENTER);
  gtk_widget_add_css_class(icon, "consent-icon");
  GtkWidget* heading = widgets::paragraph(consentQuestion(consent_, application), "title-2");
  GtkWidget* body = widgets::paragraph(text.meaning);
  GtkWidget* note =
      widgets::paragraph("You can change this later in Privacy & Security.", "dim-label");
  gtk_widget_add_css_class(note, "caption");
  failure_ = widgets::paragraph("", "error");
  gtk_widget_set_visible(failure_, FALSE);
  for (GtkWidget* widget : {icon, heading, body, note, failure_})
    gtk_box_append(GTK_BOX(box), widget);
  // The title is its name.
  gtk_accessible_update_property(GTK_ACCESSIBLE(window_), GTK_ACCESSIBLE_PROPERTY_DESCRIPTION,
                                 std::string(text.meaning).c_str(), -1);
  return box;
}

GtkWidget* AskDialog::makeButtons() {
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 12);
  gtk_box_set_homogeneous(GTK_BOX(box), TRUE);
  for (auto* set :
       {gtk_widget_set_margin_start, gtk_widget_set_margin_end, gtk_widget_set_margin_bottom})
    set(box, 20);
  deny_ = widgets::button("_Don't Allow");
  allow_ = widgets::button("_Allow");
  for (GtkWidget* button : {deny_, allow_}) {
    gtk_widget_set_sensitive(button, FALSE);
    gtk_widget_add_css_class(button, "consent-answer");
    gtk_box_append(GTK_BOX(box), button);
  }
  widgets::connect<void>(deny_, "clicked", this,
                         [](AskDialog& self) { self.answer(ConsentState::denied); });
  widgets::connect<void>(allow_, "clicked", this,
                         [](AskDialog& self) { self.answer(ConsentState::granted); });
  return box;
}

void AskDialog::gateChanged(bool open) {
  gtk_widget_set_sensitive(deny_, open);
  gtk_widget_set_sensitive(allow_, open);
  if (!open) return;
  // A reflex is a no.
  gtk_widget_grab_focus(deny_);
  gtk_window_set_focus_visible(window_, TRUE);
}

void AskDialog::answer(ConsentState state) {
  // Assistive technology presses buttons without an event.
  if (!gate_.open()) return;
  if (const auto stored = store_.set(consent_, state); !stored) {
    gtk_label_set_text(GTK_LABEL(failure_),
                       ("Your answer could not be kept: " + stored.error()).c_str());
    gtk_widget_set_visible(failure_, TRUE);
    code_ = privacyProgram::notAsked;
    widgets::complain("the answer could not be kept: " + stored.error());
    return;
  }
  end(state == ConsentState::granted ? privacyProgram::granted : privacyProgram::denied);
}

void AskDialog::end(ExitCode code) {
  // Closed after an answer that could not be kept: that is what there is to report.
  if (code != privacyProgram::unanswered || code_ != privacyProgram::notAsked) code_ = code;
  ended_ = true;
}

ExitCode AskDialog::run() {
  gtk_window_present(window_);
  while (!ended_) g_main_context_iteration(nullptr, TRUE);
  return code_;
}

}  // namespace

ExitCode askForConsent(MainLoop& loop, ConsentStore& store, Consent consent,
                       const std::string& application) {
  return AskDialog(loop, store, consent, application).run();
}

}  // namespace vesko
