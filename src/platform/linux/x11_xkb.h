// The XKB protocol binding, whose header has a member with the name of a C++ keyword.
#pragma once

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wkeyword-macro"
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit
#pragma GCC diagnostic pop
