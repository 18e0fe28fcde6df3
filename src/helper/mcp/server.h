// The Model Context Protocol server over a pair of streams: one message a line.
//
// run() reads on its own thread and answers at once what needs no tool, so a slow tool never holds
// up a ping or a cancellation. Tools that only look run side by side; those that change the desktop
// run one after another, in the order in which their calls came.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/mutex.h"
#include "helper/mcp/companion_link.h"
#include "helper/mcp/element_refs.h"
#include "helper/mcp/lane.h"
#include "helper/mcp/protocol.h"

namespace vesko::mcp {

class Server {
 public:
  struct Limits {
    std::size_t lineBytes = 4 << 20;
    /// Calls that run or wait; more are refused.
    std::size_t calls = 64;
    std::size_t reading = 6;  ///< calls that look at the same time
    /// How long calls may go on once the client has ended its stream.
    std::chrono::milliseconds leave{2000};
    /// How long the output may be full once the client has ended its stream.
    std::chrono::milliseconds stall{30'000};
  };

  /// Borrows the descriptors.
  Server(int in, int out, std::string version, std::vector<std::filesystem::path> sockets,
         Limits limits);
  Server(int in, int out, std::string version, std::vector<std::filesystem::path> sockets)
      : Server(in, out, std::move(version), std::move(sockets), Limits()) {}

  /// Until the client ends its stream or reads no more. False when the output failed.
  bool run();

 private:
  /// Answers of one array, sent as one array when the last is there.
  struct Batch {
    std::size_t missing = 0;
    std::vector<std::string> answers;
  };
  struct Running {
    std::shared_ptr<CallContext> context;  ///< empty for a subscription, which nobody carries out
    std::shared_ptr<Batch> batch;
  };

  void handleLine(std::string_view line);
  void handleMessage(const json::Value& message, const std::shared_ptr<Batch>& batch);
  void handleBatch(const json::Array& messages);
  void handleCall(const RpcMessage& request, Revision revision,
                  const std::shared_ptr<Batch>& batch);
  void handleListen(const RpcMessage& request);
  void cancel(const json::Value& params);
  void finish();

  bool full();
  /// Nothing when a request of that id runs already.
  std::shared_ptr<CallContext> begin(const json::Value& id, CallContext::Report report,
                                     const std::shared_ptr<Batch>& batch);
  /// Sends the answer, unless the request was cancelled meanwhile.
  void complete(const json::Value& id, const CallContext& context, const std::string& answer);
  void respond(std::string answer, const std::shared_ptr<Batch>& batch);
  void settle(const std::shared_ptr<Batch>& batch);
  void write(std::string_view line);
  bool writable() const;

  const int in_;
  const int out_;
  const Limits limits_;
  Protocol protocol_;
  CompanionLink link_;
  ElementRefs refs_;

  // The analysis does not know condition variables: running_ and the batches are used with mutex_
  // held, which is never taken by who holds output_.
  std::mutex mutex_;
  std::condition_variable settled_;
  std::map<std::string, Running> running_;  ///< by the id as JSON
  Mutex output_;
  std::atomic<bool> broken_{false};   ///< the output takes no more
  std::atomic<bool> leaving_{false};  ///< nothing further is begun
  std::atomic<bool> ended_{false};    ///< the input was read to its end

  // They end first, while everything that they use is still there.
  Lane acting_{1};
  Lane looking_;
};

}  // namespace vesko::mcp
