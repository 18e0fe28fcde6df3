// A helper for measurements. As told by its environment it reports when the control server's
// handshake has reached it, or floods its output with lines or with one long line.
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

namespace {

constexpr char endLine[] = "[veskokit-status] {\"state\":\"connected\",\"deviceId\":\"END\"}\n";

std::size_t number(const char* name) {
  const char* text = std::getenv(name);
  return text ? std::strtoull(text, nullptr, 10) : 0;
}

void writeAll(const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const ssize_t count = ::write(STDOUT_FILENO, text.data() + at, text.size() - at);
    if (count <= 0) std::exit(1);
    at += static_cast<std::size_t>(count);
  }
}

}  // namespace

int main() {
  std::ios::sync_with_stdio(false);
  if (const std::size_t lines = number("BENCH_LINES")) {
    std::string block;
    for (std::size_t i = 0; i < lines; ++i) {
      block += "12:00:00.000 relay: message " + std::to_string(i) + " delivered in 12 ms\n";
      if (block.size() < 60'000 && i + 1 < lines) continue;
      writeAll(block);
      block.clear();
    }
    writeAll(endLine);
  } else if (const std::size_t bytes = number("BENCH_BYTES")) {
    writeAll(std::string(bytes, 'x') + "\n");
    writeAll(endLine);
  }
  std::string line;
  while (std::getline(std::cin, line)) {
    const char* report = std::getenv("BENCH_REPORT");
    if (!report || line.find("\"control_server\"") == std::string::npos) continue;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    std::ofstream(report) << std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()
                          << std::endl;
  }
  return 0;
}
