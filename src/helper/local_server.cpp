#include "helper/local_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>

#include "base/main_loop.h"
#include "base/text.h"
#include "helper/helper_system.h"

namespace vesko {
namespace {

void prepare(int fd) {
  ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  ::fcntl(fd, F_SETFL, O_NONBLOCK);
}

UniqueFd spareDescriptor() {
  return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

bool wouldBlock() {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

}  // namespace

std::expected<std::unique_ptr<LocalServer>, std::string> LocalServer::start(
    PollLoop& loop, LocalSocket socket, LocalServerLimits limits, Protocol protocol) {
  int ends[2];
  if (::pipe(ends) != 0) return std::unexpected(std::string(std::strerror(errno)));
  prepare(ends[0]);
  prepare(ends[1]);
  return std::unique_ptr<LocalServer>(new LocalServer(
      loop, std::move(socket), limits, std::move(protocol), UniqueFd(ends[0]), UniqueFd(ends[1])));
}

LocalServer::LocalServer(PollLoop& loop, LocalSocket socket, LocalServerLimits limits,
                         Protocol protocol, UniqueFd wakeRead, UniqueFd wakeWrite)
    : loop_(loop),
      socket_(std::move(socket)),
      limits_(limits),
      protocol_(std::move(protocol)),
      wakeRead_(std::move(wakeRead)),
      wakeWrite_(std::move(wakeWrite)),
      spare_(spareDescriptor()) {
  loop_.watch(wakeRead_.get(), POLLIN, [this](short) { finishJobs(); });
  loop_.watch(socket_.fd(), POLLIN, [this](short) { acceptClients(); });
}

LocalServer::~LocalServer() {
  loop_.forget(socket_.fd());
  loop_.forget(wakeRead_.get());
  for (const auto& [id, client] : clients_) loop_.forget(client.fd.get());
  for (auto& [number, thread] : jobs_) thread.join();
}

void LocalServer::acceptClients() {
  for (;;) {
    UniqueFd fd(::accept(socket_.fd(), nullptr, nullptr));
    if (!fd) {
      if (errno != EMFILE && errno != ENFILE) return;
      // The queue stays readable. Either one of our descriptors will be closed, and we look again
      // then, or nobody but those in the queue can go.
      if (!(clients_.empty() && jobs_.empty())) {
        loop_.setEvents(socket_.fd(), 0);
        return;
      }
      spare_.reset();
      const bool turnedAway = UniqueFd(::accept(socket_.fd(), nullptr, nullptr)).get() >= 0;
      spare_ = spareDescriptor();
      if (!turnedAway) return;
      continue;
    }
    prepare(fd.get());
    if (peerUser(fd.get()) != ::geteuid()) {
      protocol_.log("refused a local client of another user");
      continue;
    }
    if (clients_.size() >= limits_.clients) {
      const std::string refusal = protocol_.refusal + "\n";
      ::send(fd.get(), refusal.data(), refusal.size(), MSG_NOSIGNAL);
      continue;
    }
    const ClientId id = nextClient_++;
    const int number = fd.get();
    clients_.emplace(id, Client{.fd = std::move(fd), .lines = BoundedLines(limits_.lineBytes)});
    loop_.watch(number, POLLIN, [this, id](short revents) { handle(id, revents); });
  }
}

void LocalServer::handle(ClientId id, short revents) {
  Client& client = clients_.at(id);
  bool alive = true;
  if (revents & POLLIN) {
    alive = read(client);
  } else if (revents & POLLOUT) {
    alive = write(client);
  } else {
    alive = false;  // hung up with nothing left to read
  }
  alive ? proceed(id) : drop(id);
}

void LocalServer::proceed(ClientId id) {
  Client& client = clients_.at(id);
  const bool alive = startNext(id, client);
  const bool idle = !client.working && client.out.empty();
  if (!alive || (idle && client.inputEnded)) return drop(id);
  const int events = (idle ? POLLIN : 0) | (client.out.empty() ? 0 : POLLOUT);
  loop_.setEvents(client.fd.get(), static_cast<short>(events));
}

void LocalServer::drop(ClientId id) {
  const auto found = clients_.find(id);
  loop_.forget(found->second.fd.get());
  clients_.erase(found);
  loop_.setEvents(socket_.fd(), POLLIN);
}

bool LocalServer::read(Client& client) {
  std::array<char, 65536> chunk;
  const ssize_t count = ::read(client.fd.get(), chunk.data(), chunk.size());
  if (count > 0) {
    client.lines.append({chunk.data(), static_cast<std::size_t>(count)});
    return true;
  }
  if (count < 0) return wouldBlock();
  client.inputEnded = true;
  return true;
}

bool LocalServer::write(Client& client) {
  while (client.sent < client.out.size()) {
    const ssize_t count = ::send(client.fd.get(), client.out.data() + client.sent,
                                 client.out.size() - client.sent, MSG_NOSIGNAL);
    if (count < 0) return wouldBlock();
    client.sent += static_cast<std::size_t>(count);
  }
  std::string().swap(client.out);
  client.sent = 0;
  return true;
}

bool LocalServer::startNext(ClientId id, Client& client) {
  while (!client.working && client.out.empty()) {
    auto line = client.lines.next();
    if (!line) return true;
    if (!line->tooLong && trim(line->text).empty()) continue;
    Work work = protocol_.begin(std::move(*line));
    if (auto* answer = std::get_if<std::string>(&work)) {
      client.out = std::move(*answer) + '\n';
      if (!write(client)) return false;
    } else {
      client.working = true;
      waiting_.emplace_back(id, std::move(std::get<Job>(work)));
      startWaiting();
    }
  }
  return true;
}

void LocalServer::startWaiting() {
  // Clients that left do not stop their jobs, so there can be more jobs than clients.
  while (!waiting_.empty() && jobs_.size() < limits_.clients) {
    auto [id, job] = std::move(waiting_.front());
    waiting_.pop_front();
    if (clients_.contains(id)) run(id, std::move(job));
  }
}

void LocalServer::run(ClientId id, Job job) {
  const std::uint64_t number = nextJob_++;
  auto work = std::make_shared<Closure>([this, number, id, job = std::move(job)]() mutable {
    Finished finished{.job = number, .client = id, .answer = job()};
    {
      const MutexLock lock(mutex_);
      finished_.push_back(std::move(finished));
    }
    // A full pipe wakes the loop just as well.
    while (::write(wakeWrite_.get(), "", 1) < 0 && errno == EINTR) {
    }
  });
  try {
    jobs_.emplace(number, std::thread([work] { (*work)(); }));
  } catch (const std::system_error&) {
    (*work)();  // no thread to be had: better a loop held up than a request lost
  }
}

void LocalServer::finishJobs() {
  std::array<char, 256> drained;
  while (::read(wakeRead_.get(), drained.data(), drained.size()) > 0) {
  }
  std::vector<Finished> finished;
  {
    const MutexLock lock(mutex_);
    finished.swap(finished_);
  }
  for (Finished& one : finished) {
    if (const auto job = jobs_.find(one.job); job != jobs_.end()) {
      job->second.join();
      jobs_.erase(job);
    }
    const auto client = clients_.find(one.client);
    if (client == clients_.end()) continue;
    client->second.working = false;
    client->second.out = std::move(one.answer) + '\n';
    write(client->second) ? proceed(one.client) : drop(one.client);
  }
  loop_.setEvents(socket_.fd(), POLLIN);
  startWaiting();
}

}  // namespace vesko
