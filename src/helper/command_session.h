// One run of veskoctl: what was asked, where the helper is, and how results and errors come out.
// One thread.
#pragma once

#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/bundle.h"
#include "base/json.h"
#include "helper/command_line.h"
#include "helper/doctor/place.h"
#include "helper/local_client.h"

namespace vesko {

enum ExitCode {
  exitOk = 0,
  exitFailed = 1,
  exitUsage = 2,
  exitUnreachable = 3,
  exitPermissionMissing = 4,
};

/// The desktop's store of the user's consents, in the words that are shown and typed.
class ConsentEditor {
 public:
  struct Entry {
    std::string consent;
    std::string state;
  };

  virtual ~ConsentEditor() = default;
  virtual std::vector<Entry> list() = 0;
  /// Why the stored answers do not count; empty when they do.
  virtual std::string problem() = 0;
  /// `state` is one of the words that list() shows.
  virtual std::expected<void, std::string> set(std::string_view consent,
                                               std::string_view state) = 0;

  /// Has the user asked and waits for the answer: the state that holds then, undetermined when the
  /// question was closed. The error is a text for people: it could not be asked.
  virtual std::expected<std::string, std::string> request(std::string_view consent) = 0;
  /// Opens the window in which the user changes consents, at one of them unless it is empty;
  /// returns once it is on the screen.
  virtual std::expected<void, std::string> showSettings(std::string_view consent) = 0;
};

struct CommandEnvironment {
  std::string version;
  /// Where the helper's socket may be, in the order of looking; used unless --socket names one.
  std::vector<std::filesystem::path> sockets;
  /// Opens the consents of a state directory; empty on a desktop that keeps them itself.
  std::function<std::unique_ptr<ConsentEditor>(const std::filesystem::path& stateDirectory)>
      consents;
  std::optional<Bundle> bundle{};  ///< that this program lies in
  DoctorSystem doctor{};
};

/// The status word that a consent takes when it is granted or taken back.
inline constexpr std::string_view consentGranted = "granted";
inline constexpr std::string_view consentDenied = "denied";
inline constexpr std::string_view consentUndetermined = "not_determined";

/// How a value of an answer reads in plain text; "-" for none.
std::string plainText(const json::Value* value);

class CommandSession {
 public:
  CommandSession(const Invocation& invocation, const CommandEnvironment& environment)
      : invocation_(invocation), environment_(environment), json_(invocation.has("json")) {}

  const Invocation& invocation() const { return invocation_; }
  const CommandEnvironment& environment() const { return environment_; }
  const std::string& argument(std::size_t index) const { return invocation_.arguments[index]; }
  bool json() const { return json_; }
  const std::string& version() const { return environment_.version; }
  /// Where the helper may be, in the order of looking.
  std::vector<std::filesystem::path> sockets() const;

  /// The answer's body of a call that succeeded; otherwise the exit code, with everything said.
  std::expected<json::Value, int> call(const std::string& method, const std::string& path,
                                       std::optional<json::Value> body = std::nullopt);
  std::expected<json::Value, int> helperStatus();

  /// A command whose only result is that it was done.
  int perform(const std::string& path, json::Object body);

  /// "-" stands for standard input.
  std::expected<std::string, int> textArgument(std::size_t index);
  std::expected<double, int> numberArgument(std::size_t index);

  /// The consents beside the helper's socket.
  std::expected<std::unique_ptr<ConsentEditor>, int> consents();

  /// Writes to standard output; the exit code says whether all of it went out.
  int print(std::string_view text);
  int printJson(const json::Value& value);

  /// What --timeout says.
  std::expected<std::chrono::milliseconds, int> timeout(std::chrono::milliseconds otherwise);

  /// The folder of the first socket whose folder exists; the consents lie there too.
  std::filesystem::path stateDirectory() const;

  int usageError(std::string_view message);
  int fail(ExitCode exit, std::string_view code, std::string_view message,
           json::Object details = {});

 private:
  std::expected<LocalClient*, int> client();
  std::expected<json::Value, int> accept(std::expected<LocalAnswer, LocalClientError> answer);
  /// What to do about a permission that the companion asks for.
  std::string missing(const std::string& consent);

  const Invocation& invocation_;
  const CommandEnvironment& environment_;
  bool json_;
  std::optional<LocalClient> client_;
};

}  // namespace vesko
