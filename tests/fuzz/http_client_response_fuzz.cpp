// The answers of a control server, cut into pieces as the first byte says.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "helper/http_response_reader.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using vesko::HttpResponseReader;
  if (size == 0) return 0;
  constexpr std::size_t maxBody = 4096;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  HttpResponseReader whole(maxBody);
  whole.feed(text);
  HttpResponseReader pieces(maxBody);
  const std::size_t step = data[0] % 64 + 1;
  for (std::size_t at = 0; at < text.size(); at += step) pieces.feed(text.substr(at, step));
  require(whole.state() == pieces.state());
  if (whole.state() != HttpResponseReader::State::complete) return 0;
  const auto response = whole.take();
  const auto same = pieces.take();
  require(response.status >= 200 && response.status <= 599 && response.status == same.status);
  require(response.body.size() <= maxBody && response.body == same.body);
  require(response.body.empty() || text.find(response.body) != std::string_view::npos);
  return 0;
}
