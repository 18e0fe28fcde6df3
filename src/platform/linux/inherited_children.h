// Children left by what this process was before it executed itself anew. Main thread.
#pragma once

namespace vesko {

/// Reaps each of them when it ends, so that none stays as a zombie. Before the first child of this
/// process's own, with the main loop made.
void reapInheritedChildren();

}  // namespace vesko
