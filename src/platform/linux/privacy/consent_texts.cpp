#include "platform/linux/privacy/consent_texts.h"

#include <fmt/format.h>

#include <utility>

namespace vesko {

const ConsentText& consentText(Consent consent) {
  static constexpr ConsentText accessibility{
      .icon = "preferences-desktop-accessibility-symbolic",
      .title = "Accessibility",
      .wish = "control this computer",
      .meaning =
          "The assistant could read what is in the windows of all applications, use the "
          "clipboard, move the pointer, click and type. It could do at this desktop "
          "whatever you can do.",
      .explanation =
          "Read windows, use the clipboard, move the pointer, click and type in all "
          "applications"};
  static constexpr ConsentText screenRecording{
      .icon = "video-display-symbolic",
      .title = "Screen Recording",
      .wish = "record this computer’s screen",
      .meaning =
          "The assistant could take pictures of your screen and of single windows at any "
          "time, with everything private that they show. Vesko Companion restarts once to "
          "begin.",
      .explanation =
          "Take pictures of the screen and of windows; Vesko Companion restarts once "
          "when you allow it"};
  static constexpr ConsentText messages{
      .icon = "mail-unread-symbolic",
      .title = "Automation of Messages",
      .wish = "control Messages",
      .meaning =
          "The assistant could read your conversations in Messages and send messages in "
          "your name.",
      .explanation = "Read your conversations and send messages in your name"};
  static constexpr ConsentText notes{
      .icon = "document-edit-symbolic",
      .title = "Automation of Notes",
      .wish = "control Notes",
      .meaning = "The assistant could read, write and change your notes.",
      .explanation = "Read, write and change your notes"};
  static constexpr ConsentText photos{
      .icon = "image-x-generic-symbolic",
      .title = "Photos",
      .wish = "see your photos",
      .meaning =
          "The assistant could look through your photo library and fetch pictures from it, "
          "with the places and times that are stored in them.",
      .explanation = "Look through your photo library and fetch pictures from it"};
  static constexpr ConsentText contacts{
      .icon = "x-office-address-book-symbolic",
      .title = "Contacts",
      .wish = "see your contacts",
      .meaning =
          "The assistant could read the names, numbers and addresses in your address book, "
          "to tell who a message is from.",
      .explanation = "Read the names, numbers and addresses in your address book"};
  switch (consent) {
    case Consent::accessibility:
      return accessibility;
    case Consent::screenRecording:
      return screenRecording;
    case Consent::messagesAutomation:
      return messages;
    case Consent::notesAutomation:
      return notes;
    case Consent::photos:
      return photos;
    case Consent::contacts:
      return contacts;
  }
  std::unreachable();
}

std::string consentQuestion(Consent consent, std::string_view application) {
  return fmt::format("“{}” would like to {}.", application, consentText(consent).wish);
}

std::string_view consentStateText(ConsentState state) {
  switch (state) {
    case ConsentState::granted:
      return "Allowed";
    case ConsentState::denied:
      return "Not allowed";
    case ConsentState::notDetermined:
      break;
  }
  return "Not asked yet";
}

}  // namespace vesko
