#include "helper/mcp/server.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include "base/text.h"
#include "helper/bounded_lines.h"

namespace vesko::mcp {
namespace {

using json::Object;
using json::Value;

constexpr std::size_t maxBatch = 64;

/// What poll says of an output that nobody reads any more: a pipe's error, a socket's hang-up.
constexpr short noReader = POLLERR | POLLHUP | POLLNVAL;

RpcError invalidRequest(std::string message) {
  return {RpcErrorCode::invalidRequest, std::move(message)};
}

std::string keyOf(const Value& id) {
  return json::serialize(id).value_or("");
}

}  // namespace

Server::Server(int in, int out, std::string version, std::vector<std::filesystem::path> sockets,
               Limits limits)
    : in_(in),
      out_(out),
      limits_(limits),
      protocol_(std::move(version)),
      link_(std::move(sockets)),
      looking_(limits.reading) {}

bool Server::run() {
  BoundedLines lines(limits_.lineBytes);
  std::array<char, 65536> chunk;
  for (;;) {
    std::array<pollfd, 2> ready{pollfd{in_, POLLIN, 0}, pollfd{out_, 0, 0}};
    if (::poll(ready.data(), ready.size(), -1) < 0 && errno != EINTR) break;
    if (ready[1].revents & noReader) {
      broken_ = true;
      break;
    }
    if (!ready[0].revents) continue;
    const ssize_t count = ::read(in_, chunk.data(), chunk.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) break;
    lines.append({chunk.data(), static_cast<std::size_t>(count)});
    while (auto line = lines.next()) {
      if (line->tooLong)
        write(errorMessage(Value(), invalidRequest("the message is too long")));
      else if (!trim(line->text).empty())
        handleLine(line->text);
    }
  }
  ended_ = true;
  finish();
  return !broken_;
}

void Server::handleLine(std::string_view line) {
  const auto message = json::parse(line);
  if (!message) return write(errorMessage(Value(), {RpcErrorCode::parseError, message.error()}));
  if (const json::Array* messages = message->asArray()) return handleBatch(*messages);
  handleMessage(*message, nullptr);
}

void Server::handleBatch(const json::Array& messages) {
  if (!protocol_.batches() || messages.empty() || messages.size() > maxBatch)
    return write(errorMessage(
        Value(), invalidRequest(!protocol_.batches() ? "a message is an object"
                                                     : "a batch has 1 to 64 messages")));
  const auto batch = std::make_shared<Batch>();
  // One more than there are, so that the array goes out only when all have been looked at.
  batch->missing = 1;
  for (const Value& message : messages) handleMessage(message, batch);
  settle(batch);
}

void Server::handleMessage(const Value& message, const std::shared_ptr<Batch>& batch) {
  if (batch) {
    const std::lock_guard lock(mutex_);
    ++batch->missing;
  }
  const auto read = readMessage(message);
  if (!read) return respond(errorMessage(read.error().id, read.error().error), batch);
  if (!*read) return settle(batch);
  const RpcMessage& request = **read;
  if (request.isNotification()) {
    if (request.method == "notifications/cancelled") cancel(request.params);
    return settle(batch);
  }
  const auto refuse = [&](const RpcError& error) {
    respond(errorMessage(*request.id, error), batch);
  };
  const auto revision = protocol_.revisionOf(request);
  if (!revision) return refuse(revision.error());
  if (request.method == "tools/call") return handleCall(request, *revision, batch);
  if (!batch && request.method == "subscriptions/listen" && *revision == Revision::v2026_07_28)
    return handleListen(request);
  if (batch && request.method == "initialize")
    return refuse(invalidRequest("initialize comes alone"));
  const auto answer = protocol_.answer(request, *revision);
  if (!answer) return refuse(answer.error());
  respond(resultMessage(*request.id, *answer), batch);
}

void Server::handleCall(const RpcMessage& request, Revision revision,
                        const std::shared_ptr<Batch>& batch) {
  const Value& id = *request.id;
  auto prepared = protocol_.prepareCall(request);
  if (!prepared) return respond(errorMessage(id, prepared.error()), batch);
  if (auto* result = std::get_if<ToolResult>(&*prepared))
    return respond(protocol_.callAnswer(id, std::move(*result), revision), batch);

  CallContext::Report report;
  const Value* meta = objectMember(request.params, "_meta");
  const Value* token = meta ? meta->find("progressToken") : nullptr;
  if (token && (token->asString() || token->asInteger())) {
    report = [this, key = keyOf(id), token = *token](double done, std::optional<double> total,
                                                     const std::string& message) {
      Object params{{"progressToken", token}, {"progress", done}};
      if (total) params.emplace_back("total", *total);
      params.emplace_back("message", message);
      {
        const std::lock_guard lock(mutex_);
        if (!running_.contains(key)) return;
      }
      write(notificationMessage("notifications/progress", std::move(params)));
    };
  }
  if (full()) {
    auto busy = ToolResult::failure("Too many calls wait already; wait for their answers.");
    return respond(protocol_.callAnswer(id, std::move(busy), revision), batch);
  }
  auto context = begin(id, std::move(report), batch);
  if (!context)
    return respond(errorMessage(id, invalidRequest("a request with this id runs already")), batch);
  auto& call = std::get<PreparedCall>(*prepared);
  Lane& lane = call.tool->acts ? acting_ : looking_;
  lane.post([this, id, revision, call = std::move(call), context = std::move(context)] {
    if (context->cancelled() || leaving_) return;
    ToolResult result = call.tool->run({call.arguments, link_, refs_, *context});
    if (context->cancelled()) return;
    complete(id, *context, protocol_.callAnswer(id, std::move(result), revision));
  });
}

void Server::handleListen(const RpcMessage& request) {
  bool taken = full();
  if (!taken) {
    const std::lock_guard lock(mutex_);
    taken = !running_.try_emplace(keyOf(*request.id)).second;
  }
  if (taken)
    return write(errorMessage(*request.id, invalidRequest("too many, or the same id twice")));
  // Nothing of ours ever changes while the server runs, so there is nothing to agree on.
  write(notificationMessage(
      "notifications/subscriptions/acknowledged",
      Object{{"_meta", Object{{"io.modelcontextprotocol/subscriptionId", *request.id}}},
             {"notifications", Object{}}}));
}

void Server::cancel(const Value& params) {
  const Value* id = params.find("requestId");
  if (!id) return;
  std::shared_ptr<CallContext> context;
  std::shared_ptr<Batch> batch;
  {
    const std::lock_guard lock(mutex_);
    const auto found = running_.find(keyOf(*id));
    if (found == running_.end()) return;
    context = std::move(found->second.context);
    batch = std::move(found->second.batch);
    running_.erase(found);
    settled_.notify_all();
  }
  if (context) context->cancel();
  settle(batch);
}

void Server::finish() {
  std::map<std::string, Running> left;
  {
    std::unique_lock lock(mutex_);
    std::erase_if(running_, [](const auto& entry) { return !entry.second.context; });
    const auto end = std::chrono::steady_clock::now() + limits_.leave;
    // Who has gone altogether must not have the desktop operated any further.
    while (!running_.empty() && !broken_ && std::chrono::steady_clock::now() < end) {
      settled_.wait_for(lock, std::chrono::milliseconds(50));
      pollfd reader{out_, 0, 0};
      if (::poll(&reader, 1, 0) > 0 && (reader.revents & noReader)) broken_ = true;
    }
    left.swap(running_);
  }
  // Before the first is cancelled: its lane would go on with the next.
  leaving_ = true;
  for (const auto& [id, running] : left) running.context->cancel();
}

bool Server::full() {
  const std::lock_guard lock(mutex_);
  return running_.size() >= limits_.calls;
}

std::shared_ptr<CallContext> Server::begin(const Value& id, CallContext::Report report,
                                           const std::shared_ptr<Batch>& batch) {
  auto context = std::make_shared<CallContext>(std::move(report));
  const std::lock_guard lock(mutex_);
  return running_.try_emplace(keyOf(id), context, batch).second ? context : nullptr;
}

void Server::complete(const Value& id, const CallContext& context, const std::string& answer) {
  std::shared_ptr<Batch> batch;
  {
    const std::lock_guard lock(mutex_);
    const auto found = running_.find(keyOf(id));
    if (found == running_.end() || found->second.context.get() != &context) return;
    batch = std::move(found->second.batch);
    running_.erase(found);
    settled_.notify_all();
  }
  respond(answer, batch);
}

void Server::respond(std::string answer, const std::shared_ptr<Batch>& batch) {
  if (!batch) return write(answer);
  {
    const std::lock_guard lock(mutex_);
    batch->answers.push_back(std::move(answer));
  }
  settle(batch);
}

void Server::settle(const std::shared_ptr<Batch>& batch) {
  if (!batch) return;
  std::string line;
  {
    const std::lock_guard lock(mutex_);
    if (--batch->missing > 0) return;
    for (const std::string& answer : batch->answers) line += (line.empty() ? "[" : ",") + answer;
  }
  if (!line.empty()) write(line + "]");
}

void Server::write(std::string_view line) {
  std::string message(line);
  message += '\n';
  const MutexLock lock(output_);
  std::string_view unsent = message;
  while (!unsent.empty() && !broken_) {
    if (!writable()) {
      broken_ = true;
      break;
    }
    // This much never blocks once poll has said that there is room: a client that does not read
    // must not hold a thread that could see it leave.
    const ssize_t count =
        ::write(out_, unsent.data(), std::min<std::size_t>(unsent.size(), PIPE_BUF));
    if (count >= 0)
      unsent.remove_prefix(static_cast<std::size_t>(count));
    else if (errno != EINTR && errno != EAGAIN)
      broken_ = true;
  }
}

/// Waits until the output takes something. False when nobody will ever read it.
bool Server::writable() const {
  for (;;) {
    pollfd output{out_, POLLOUT, 0};
    const int ready = ::poll(&output, 1, static_cast<int>(limits_.stall.count()));
    if (ready < 0 && errno != EINTR) return false;
    if (ready > 0) return !(output.revents & noReader);
    // The thread that reads may be the one that waits here, so the input is asked itself.
    pollfd input{in_, 0, 0};
    if (ready == 0 && (ended_ || (::poll(&input, 1, 0) > 0 && input.revents))) return false;
  }
}

}  // namespace vesko::mcp
