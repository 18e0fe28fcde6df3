// `veskoctl doctor`: says what works and what is missing on this machine. One thread.
#pragma once

#include "helper/command_session.h"

namespace vesko {

inline constexpr std::string_view doctorHelp =
    "say what works here, what is missing and what to do about it\n"
    "Each part is looked at for 5 seconds, or --timeout. Nothing is changed; the one thing that a "
    "look\nmay start is the accessibility bus, where its launcher already runs.\n"
    "exit codes: 0 nothing that is needed is missing (there may be warnings), 1 something is, 2 "
    "wrong\nusage.";

int doctor(CommandSession& session);

}  // namespace vesko
