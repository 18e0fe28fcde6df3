#include "base/main_thread.h"

#include <cstdio>
#include <cstdlib>

namespace vesko {

MainThread mainThread;

namespace {
thread_local bool isMainThread = false;
}

void adoptMainThread() { isMainThread = true; }

void assertMainThread() {
  if (isMainThread) return;
  std::fputs("main-thread state was touched on another thread\n", stderr);
  std::abort();
}

}  // namespace vesko
