#include "state/process_killer.h"

#include <fmt/format.h>

#include <csignal>

namespace vesko {

void ProcessKiller::end(std::unique_ptr<ProcessReference> process, pid_t pid, std::string name) {
  if (!process || !process->signal(SIGTERM)) return;
  const auto entry = pending_.insert(pending_.end(), {std::move(process), {}});
  entry->process->notifyExit([this, entry] {
    assertMainThread();
    ended(entry);
  });
  entry->timer = loop_.after(grace, [this, entry, pid, name = std::move(name)] {
    if (!entry->process->alive()) return;
    log_.write(fmt::format("{} pid={} ignored SIGTERM; sending SIGKILL", name, pid));
    entry->process->signal(SIGKILL);
  });
}

void ProcessKiller::ended(std::list<Pending>::iterator entry) {
  entry->timer.cancel();
  // The reference owns the closure that is running: it must outlive this call.
  loop_.post([done = std::move(entry->process)] {});
  pending_.erase(entry);
  if (pending_.empty() && whenIdle_) loop_.post(std::exchange(whenIdle_, nullptr));
}

void ProcessKiller::whenIdle(Closure done) {
  if (pending_.empty()) {
    loop_.post(std::move(done));
  } else {
    whenIdle_ = std::move(done);
  }
}

}  // namespace vesko
