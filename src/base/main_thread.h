// The main thread as a capability: members marked VESKO_GUARDED_BY(mainThread) are checked at
// compile time, and assertMainThread() checks at run time that the claim is true.
#pragma once

#include "base/thread_annotations.h"

namespace vesko {

struct VESKO_CAPABILITY("main thread") MainThread {};

/// Stands for the thread that runs the main loop. Holds nothing.
extern MainThread mainThread;

/// Declares the calling thread to be the main thread. Called once, before threads start; tests
/// that run a main loop of their own call it too.
void adoptMainThread();

/// Aborts when called off the main thread. Every closure handed to a MainLoop begins with it,
/// because the analysis looks at a closure's body on its own.
void assertMainThread() VESKO_ASSERT_CAPABILITY(mainThread);

}  // namespace vesko
