// Input requests of any content leave the desktop in order: nothing stays pressed, text arrives
// whole and in pieces that an event can carry.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <variant>

#include "../fakes/fake_input_events.h"
#include "../fakes/fake_pasteboard.h"
#include "base/utf8.h"
#include "tools/input_control.h"
#include "tools/text_chunks.h"

namespace {

using namespace vesko;

void require(bool condition) {
  if (!condition) std::abort();
}

std::string toUtf8(std::u16string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if ((c & 0xFC00) == 0xD800) {
      require(i + 1 < text.size() && (text[i + 1] & 0xFC00) == 0xDC00);
      c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00U);
    }
    appendUtf8(result, c);
  }
  return result;
}

template <class Request>
void run(std::string_view body, InputControl::Done (InputControl::*operation)(const Request&)) {
  const auto request = json::decode<Request>(body);
  if (!request) return;
  fakes::FakeInputEvents events;
  fakes::FakePasteboard pasteboard;
  InputControl input(events, pasteboard);
  const auto done = (input.*operation)(*request);
  const auto posted = events.takeEvents();
  require(!events.anythingPressed());
  require(posted.size() < 70 || std::is_same_v<Request, TypeRequest>);
  if (!done) {
    require(posted.empty() && !done.error().message().empty());
    return;
  }
  for (const InputEvent& event : posted) {
    if (const auto* mouse = std::get_if<MouseEvent>(&event))
      require(std::isfinite(mouse->at.x) && std::isfinite(mouse->at.y));
    if (const auto* key = std::get_if<KeyEvent>(&event))
      require(key->text.size() <= maxChunkUnits && toUtf8(key->text).size() >= key->text.size());
  }
  if constexpr (std::is_same_v<Request, TypeRequest>) {
    const std::string arrived = request->method.value_or("keystroke") == "paste"
                                    ? pasteboard.text().value_or("")
                                    : toUtf8(events.typed());
    require(arrived == request->text);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  run(body, &InputControl::move);
  run(body, &InputControl::click);
  run(body, &InputControl::drag);
  run(body, &InputControl::scroll);
  run(body, &InputControl::type);
  run(body, &InputControl::key);
  run(body, &InputControl::hotkey);
  run(body, &InputControl::clipboardSet);
  return 0;
}
