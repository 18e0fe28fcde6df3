// The local helper: one process between the companion and the user's own programs.
//
// Ends when the companion closes its standard input, when the companion dies, and on SIGTERM or
// SIGINT. Sleeps in poll(2) in between. Main thread; construct it before other threads start.
#pragma once

#include <expected>
#include <string>

#include "helper/helper_reporter.h"
#include "helper/helper_settings.h"

namespace vesko {

/// Runs until one of the ends above; the error says why the helper could not start.
std::expected<void, std::string> runHelper(const HelperSettings& settings, int input,
                                           HelperReporter& reporter);

}  // namespace vesko
