// The question about one consent. Main thread; GTK is initialised.
#pragma once

#include "base/main_loop.h"
#include "platform/linux/consent_store.h"
#include "platform/linux/privacy_program.h"

namespace vesko {

/// Shows the question until it is answered or its window is closed; an answer has been stored when
/// this returns.
privacyProgram::ExitCode askForConsent(MainLoop& loop, ConsentStore& store, Consent consent,
                                       const std::string& application);

}  // namespace vesko
