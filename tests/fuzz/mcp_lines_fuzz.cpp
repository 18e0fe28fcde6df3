// What an assistant writes: messages, the arguments of tools, and maps of captures.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "helper/mcp/capture_map.h"
#include "helper/mcp/protocol.h"

namespace {

using namespace vesko;
using namespace vesko::mcp;

void check(bool holds) {
  if (!holds) std::abort();
}

/// Whatever goes out is one line of JSON-RPC with one outcome.
void checkAnswer(const std::string& line) {
  const auto answer = json::parse(line);
  check(answer && line.find('\n') == std::string::npos && line.size() <= maxResultBytes);
  check((answer->find("result") == nullptr) != (answer->find("error") == nullptr));
  check(answer->find("id") != nullptr);
}

void handle(Protocol& protocol, const json::Value& value) {
  const auto message = readMessage(value);
  if (!message) return checkAnswer(errorMessage(message.error().id, message.error().error));
  if (!*message || (*message)->isNotification()) return;
  const RpcMessage& request = **message;
  const auto revision = protocol.revisionOf(request);
  if (!revision) return checkAnswer(errorMessage(*request.id, revision.error()));
  if (request.method != "tools/call") {
    const auto answer = protocol.answer(request, *revision);
    return checkAnswer(answer ? resultMessage(*request.id, *answer)
                              : errorMessage(*request.id, answer.error()));
  }
  auto prepared = protocol.prepareCall(request);
  if (!prepared) return checkAnswer(errorMessage(*request.id, prepared.error()));
  if (auto* result = std::get_if<ToolResult>(&*prepared))
    return checkAnswer(protocol.callAnswer(*request.id, std::move(*result), *revision));
  const json::Value& arguments = std::get<PreparedCall>(*prepared).arguments;
  check(arguments.asObject() != nullptr);
  const std::string* map = textMember(arguments, "map");
  if (!map) return;
  check(map->size() <= std::size_t{4} * 120);
  if (const auto read = CaptureMap::parse(*map)) {
    const auto again = CaptureMap::parse(read->text());
    check(again && again->width == read->width && again->window == read->window);
    check(read->screenPoint({0, 0}).has_value());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  Protocol protocol("1");
  while (!text.empty()) {
    const auto end = std::min(text.find('\n'), text.size());
    if (const auto value = json::parse(text.substr(0, end))) handle(protocol, *value);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return 0;
}
