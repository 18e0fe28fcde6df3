// The CLIPBOARD selection of an X server, as text.
//
// Reference: Inter-Client Communication Conventions Manual, section 2 (selections, INCR transfers).
// Thread: any. Reading has a lock and a connection of its own; a selection that this process owns
// is served by a thread of its own, which sleeps until somebody asks.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/mutex.h"
#include "platform/linux/x11_connection.h"
#include "platform/pasteboard.h"

namespace vesko {

class X11SelectionOwner;
class X11SelectionReader;

class X11Pasteboard : public Pasteboard {
 public:
  /// Texts beyond this are not read.
  static constexpr std::size_t maxReadBytes = std::size_t{64} << 20;

  /// `readBound` is how long an owner may take for its answer and for each piece of a long one, of
  /// which all together may take ten times as long.
  explicit X11Pasteboard(std::chrono::milliseconds readBound = std::chrono::seconds(2));
  ~X11Pasteboard() override;

  std::optional<std::string> text() override;
  [[nodiscard]] bool setText(std::string_view text) override;
  std::uint64_t reads() override;
  void awaitReadBeyond(std::uint64_t seen, std::chrono::milliseconds bound) override;

 private:
  const std::chrono::milliseconds readBound_;
  Mutex readMutex_;
  X11Connection reading_ VESKO_GUARDED_BY(readMutex_);
  unsigned readingGeneration_ VESKO_GUARDED_BY(readMutex_) = 0;
  std::unique_ptr<X11SelectionReader> reader_ VESKO_GUARDED_BY(readMutex_);
  Mutex ownerMutex_;
  std::unique_ptr<X11SelectionOwner> owner_ VESKO_GUARDED_BY(ownerMutex_);
};

}  // namespace vesko
