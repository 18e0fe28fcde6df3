// Serves lines on a Unix socket: framing, peers, limits and workers; what a line means is its
// owner's business.
//
// Everything runs on the loop's thread but the jobs, each of which runs on a thread of its own, so
// that a slow one holds up only the client that asked for it.
#pragma once

#include <cstdint>
#include <deque>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "base/mutex.h"
#include "base/unique_fd.h"
#include "helper/bounded_lines.h"
#include "helper/local_socket.h"
#include "helper/poll_loop.h"

namespace vesko {

struct LocalServerLimits {
  std::size_t lineBytes;
  std::size_t clients;  ///< and the jobs that run at once
};

class LocalServer {
 public:
  /// Returns the answer without its newline. Any thread.
  using Job = std::move_only_function<std::string()>;
  using Work = std::variant<std::string, Job>;

  struct Protocol {
    /// Decides what a line leads to: an answer at once, or a job that gives it.
    std::function<Work(BoundedLines::Line)> begin;
    /// What a client reads that comes on top of the limit.
    std::string refusal;
    /// Plain sentences for the log.
    std::function<void(std::string_view)> log;
  };

  /// Borrows the loop. The error is a system message.
  static std::expected<std::unique_ptr<LocalServer>, std::string> start(PollLoop& loop,
                                                                        LocalSocket socket,
                                                                        LocalServerLimits limits,
                                                                        Protocol protocol);
  /// Waits for the jobs that run; make them end first.
  ~LocalServer();
  LocalServer(const LocalServer&) = delete;
  LocalServer& operator=(const LocalServer&) = delete;

 private:
  using ClientId = std::uint64_t;

  struct Client {
    UniqueFd fd;
    BoundedLines lines;
    std::string out{};
    std::size_t sent = 0;
    bool working = false;  ///< a job of this client runs or waits
    bool inputEnded = false;
  };

  struct Finished {
    std::uint64_t job;
    ClientId client;
    std::string answer;
  };

  LocalServer(PollLoop& loop, LocalSocket socket, LocalServerLimits limits, Protocol protocol,
              UniqueFd wakeRead, UniqueFd wakeWrite);

  void acceptClients();
  void refuse(int fd);
  void handle(ClientId id, short revents);
  /// Goes on with what the client has sent and what it waits for; ends it when nothing is left.
  void proceed(ClientId id);
  void drop(ClientId id);
  void startWaiting();
  void run(ClientId id, Job job);
  void finishJobs();

  // These are false when the client is gone.
  static bool read(Client& client);
  static bool write(Client& client);
  bool startNext(ClientId id, Client& client);

  PollLoop& loop_;
  LocalSocket socket_;
  LocalServerLimits limits_;
  Protocol protocol_;
  std::map<ClientId, Client> clients_;
  ClientId nextClient_ = 0;
  std::deque<std::pair<ClientId, Job>> waiting_;
  std::map<std::uint64_t, std::thread> jobs_;
  std::uint64_t nextJob_ = 0;
  UniqueFd wakeRead_;
  UniqueFd wakeWrite_;
  UniqueFd spare_;  ///< given up in order to turn a client away when there is no other descriptor
  Mutex mutex_;
  std::vector<Finished> finished_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko
