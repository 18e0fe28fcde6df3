// The lines that the helper reads: the companion's on standard input and those of local clients.
// The first byte says how the bytes arrive.
#include <fcntl.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "helper/bounded_lines.h"
#include "helper/companion_input.h"
#include "helper/local_requests.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vesko;
  static const UniqueFd null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  static const ControlClient client;
  if (size == 0) return 0;
  constexpr std::size_t maxLine = 2048;
  const std::size_t step = data[0] % 128 + 1;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);

  HelperReporter reporter(null.get(), null.get());
  CompanionInput companion(reporter, {}, std::nullopt);
  LocalRequests requests(companion, client, -1, [] { return LocalStatus{}; }, reporter);
  BoundedLines lines(maxLine);
  for (std::size_t at = 0; at < text.size(); at += step) {
    lines.append(text.substr(at, step));
    while (auto line = lines.next()) {
      require(line->text.size() <= maxLine && line->text.find('\n') == std::string::npos);
      companion.handleLine(line->text);
      require(!companion.controlServer() || companion.controlServer()->usable());
      // Jobs are made, never run: they would connect to whatever port the input names.
      const LocalServer::Work work = requests.begin(std::move(*line));
      if (const auto* answer = std::get_if<std::string>(&work)) {
        require(answer->find('\n') == std::string::npos);
        const auto value = json::parse(*answer);
        require(value && value->find("ok") && value->find("id"));
      }
    }
  }
  return 0;
}
