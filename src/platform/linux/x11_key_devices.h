// Which keys the keyboards behind the X server's one keyboard hold down.
//
// The keyboard that applications see is fed by every hardware keyboard and by the one that stands
// for synthetic input, and cannot tell from which of them a key that is down came.
// Reference: X Input Device Extension protocol, QueryDeviceState; xserver-properties.h for the
// property that marks synthetic devices.
#pragma once

#include <bitset>

#include "platform/linux/x11_connection.h"

namespace vesko {

/// By keycode.
struct KeysDown {
  std::bitset<256> hardware;
  std::bitset<256> synthetic;
};

/// As the server has it now; nothing is down when the server cannot tell.
KeysDown keysDown(X11Connection& x11);

}  // namespace vesko
