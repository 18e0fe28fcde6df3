// Runs the default main context until something has happened.
#pragma once

#include <glib.h>

#include <chrono>

#include "platform/linux/glib_main_loop.h"

namespace vesko {

/// True once `done()` holds; false when it does not within a minute. The loop sleeps in between: it
/// is the event itself that wakes it.
template <class Condition>
bool runUntil(GlibMainLoop& loop, Condition done) {
  bool expired = false;
  const Timer bound = loop.after(std::chrono::minutes(1), [&] { expired = true; });
  while (!done() && !expired) g_main_context_iteration(nullptr, TRUE);
  return done();
}

}  // namespace vesko
