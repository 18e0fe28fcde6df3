// How the companion and the program that asks the user for consents understand each other. A
// process of its own, so that neither an idle companion nor a fault of the toolkit concerns it.
#pragma once

#include <optional>
#include <string_view>

#include "platform/linux/consent_store.h"

namespace vesko::privacyProgram {

/// In the bundle's resources. Usage:
///   vesko-privacy [--consents FILE] ask CONSENT
///   vesko-privacy [--consents FILE] settings [CONSENT]
inline constexpr std::string_view name = "vesko-privacy";

/// "settings" ends with `granted` once its window is on the screen.
enum ExitCode {
  granted = 0,
  denied = 1,
  usage = 2,
  unanswered = 3,  ///< the window was closed without an answer
  notAsked = 4,    ///< there is no desktop to ask on, or the answer could not be kept
};

/// Its error messages are lines of standard error that begin so.
inline constexpr std::string_view errorPrefix = "vesko-privacy: ";

/// The consent at which the window opens for one of the settingsPages; nothing for another URL.
std::optional<Consent> settingsPage(std::string_view url);

}  // namespace vesko::privacyProgram
