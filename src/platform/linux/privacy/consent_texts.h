// How each consent is put to the user, in plain words. Any thread.
#pragma once

#include <string>
#include <string_view>

#include "platform/linux/consent_store.h"

namespace vesko {

struct ConsentText {
  std::string_view icon;         ///< a name of the icon theme
  std::string_view title;        ///< in the list of consents
  std::string_view wish;         ///< completes "<application> would like to ..."
  std::string_view meaning;      ///< what saying yes makes possible
  std::string_view explanation;  ///< the same in one sentence, for the list
};

const ConsentText& consentText(Consent consent);

/// "“<application>” would like to control this computer."
std::string consentQuestion(Consent consent, std::string_view application);

/// "Allowed", "Not allowed" or "Not asked yet".
std::string_view consentStateText(ConsentState state);

}  // namespace vesko
