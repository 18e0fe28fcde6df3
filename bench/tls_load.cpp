// Load for a TLS server on the loopback interface: every request on a new connection, no
// resumption, GET /healthz, the answer read to its end.
//
//   tls_load PORT CONNECTIONS THREADS [TOKEN-FILE]
//
// Prints "connections_per_second p50_us p99_us client_cpu_us_per_connection". The token comes from
// a file, because arguments are visible to everybody.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Load {
  sockaddr_in address{};
  std::string request;
  std::atomic<long> remaining;
  std::atomic<bool> failed = false;
};

bool oneConnection(const Load& load, SSL_CTX* context) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  // An aborting close leaves no TIME_WAIT behind: ports would run out.
  const linger abort{.l_onoff = 1, .l_linger = 0};
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  bool answered = false;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&load.address), sizeof load.address) == 0) {
    SSL* ssl = SSL_new(context);
    SSL_set_fd(ssl, fd);
    std::array<char, 4096> chunk{};
    if (SSL_connect(ssl) == 1 &&
        SSL_write(ssl, load.request.data(), static_cast<int>(load.request.size())) > 0) {
      int count = SSL_read(ssl, chunk.data(), static_cast<int>(chunk.size()));
      answered = count > 12 && std::string_view(chunk.data(), 12) == "HTTP/1.1 200";
      while (count > 0) count = SSL_read(ssl, chunk.data(), static_cast<int>(chunk.size()));
    }
    SSL_free(ssl);
  }
  ::close(fd);
  return answered;
}

void run(Load& load, std::vector<double>& latencies) {
  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_read_ahead(context, 1);
  while (load.remaining.fetch_sub(1) > 0 && !load.failed) {
    const auto start = Clock::now();
    if (!oneConnection(load, context)) load.failed = true;
    latencies.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  SSL_CTX_free(context);
}

double cpuMicroseconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto of = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_usec);
  };
  return of(usage.ru_utime) + of(usage.ru_stime);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fputs("usage: tls_load PORT CONNECTIONS THREADS [TOKEN-FILE]\n", stderr);
    return 2;
  }
  Load load;
  load.address.sin_family = AF_INET;
  load.address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[1])));
  load.address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  load.remaining = std::atol(argv[2]);
  std::string token = "none";
  if (argc > 4) std::getline(std::ifstream(argv[4]), token);
  load.request =
      "GET /healthz HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer " + token + "\r\n\r\n";

  std::vector<std::vector<double>> latencies(static_cast<std::size_t>(std::atoi(argv[3])));
  const double cpuBefore = cpuMicroseconds();
  const auto start = Clock::now();
  {
    std::vector<std::jthread> threads;
    for (auto& own : latencies) threads.emplace_back([&load, &own] { run(load, own); });
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const double cpu = cpuMicroseconds() - cpuBefore;
  if (load.failed) {
    std::fputs("tls_load: a request failed\n", stderr);
    return 1;
  }
  std::vector<double> all;
  for (const auto& own : latencies) all.insert(all.end(), own.begin(), own.end());
  std::ranges::sort(all);
  const auto count = static_cast<double>(all.size());
  std::printf("%.0f %.0f %.0f %.0f\n", count / seconds, all[all.size() / 2],
              all[all.size() * 99 / 100], cpu / count);
}
