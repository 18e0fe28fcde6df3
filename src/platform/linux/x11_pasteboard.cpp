#include "platform/linux/x11_pasteboard.h"

#include "platform/linux/x11_selection_owner.h"
#include "platform/linux/x11_selection_reader.h"
#include "platform/linux/x11_watch.h"

namespace vesko {

X11Pasteboard::X11Pasteboard(std::chrono::milliseconds readBound) : readBound_(readBound) {}
X11Pasteboard::~X11Pasteboard() = default;

std::optional<std::string> X11Pasteboard::text() {
  const MutexLock lock(readMutex_);
  if (!reading_.get()) return std::nullopt;
  const X11Watch watch(reading_.current());
  if (!reader_ || readingGeneration_ != reading_.generation()) {
    readingGeneration_ = reading_.generation();
    // First: a new connection may give out the identifier of the old window again.
    reader_.reset();
    reader_ = std::make_unique<X11SelectionReader>(reading_, readBound_, maxReadBytes);
  }
  return reader_->clipboardText();
}

bool X11Pasteboard::setText(std::string_view text) {
  const MutexLock lock(ownerMutex_);
  if (!owner_ || !owner_->alive()) owner_ = std::make_unique<X11SelectionOwner>();
  return owner_->offer(std::string(text));
}

std::uint64_t X11Pasteboard::reads() {
  const MutexLock lock(ownerMutex_);
  return owner_ ? owner_->reads() : 0;
}

void X11Pasteboard::awaitReadBeyond(std::uint64_t seen, std::chrono::milliseconds bound) {
  const MutexLock lock(ownerMutex_);
  if (owner_) owner_->awaitReadBeyond(seen, bound);
}

}  // namespace vesko
