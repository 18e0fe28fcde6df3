#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "helper/consents.h"
#include "helper/helper_system.h"
#include "platform/linux/consent_store.h"
#include "platform/linux/privacy_program.h"

namespace vesko {
namespace {

template <class E>
std::optional<E> named(std::string_view word) {
  for (const auto& [value, name] : json::EnumNames<E>::values) {
    if (name == word) return value;
  }
  return std::nullopt;
}

class StoredConsents : public ConsentEditor {
 public:
  explicit StoredConsents(const std::filesystem::path& stateDirectory)
      : store_(stateDirectory / "consents.plist") {}

  std::vector<Entry> list() override {
    std::vector<Entry> entries;
    for (const auto& [consent, word] : json::EnumNames<Consent>::values)
      entries.push_back({std::string(word), std::string(json::wordOf(store_.state(consent)))});
    return entries;
  }

  std::string problem() override { return store_.problem(); }

  std::expected<void, std::string> set(std::string_view consent, std::string_view state) override {
    const auto which = named<Consent>(consent);
    const auto answer = named<ConsentState>(state);
    if (!which || !answer) return std::unexpected("unknown consent or state");
    return store_.set(*which, *answer);
  }

  std::expected<std::string, std::string> request(std::string_view consent) override {
    const auto code = runProgram({"ask", std::string(consent)});
    if (!code) return std::unexpected(code.error());
    const auto which = named<Consent>(consent);
    if (!which || *code > privacyProgram::unanswered || *code == privacyProgram::usage)
      return std::unexpected("the question could not be shown");
    return std::string(json::wordOf(store_.state(*which)));
  }

  std::expected<void, std::string> showSettings(std::string_view consent) override {
    std::vector<std::string> words{"settings"};
    if (!consent.empty()) words.emplace_back(consent);
    const auto code = runProgram(std::move(words));
    if (!code) return std::unexpected(code.error());
    if (*code != privacyProgram::granted) return std::unexpected("the window could not be shown");
    return {};
  }

 private:
  /// The exit code. What the program has to say goes to our own standard error.
  std::expected<int, std::string> runProgram(std::vector<std::string> words) {
    const auto program = ownExecutable().parent_path() / privacyProgram::name;
    words.insert(words.begin(), {program, "--consents", store_.file()});
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_t pid = 0;
    if (const int error =
            ::posix_spawn(&pid, program.c_str(), nullptr, nullptr, arguments.data(), environ))
      return std::unexpected(fmt::format("cannot start {}: {}", program.native(),
                                         std::generic_category().message(error)));
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
      if (errno != EINTR) return std::unexpected(std::generic_category().message(errno));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : privacyProgram::notAsked;
  }

  ConsentStore store_;
};

}  // namespace

decltype(CommandEnvironment::consents) desktopConsents() {
  return [](const std::filesystem::path& stateDirectory) {
    return std::make_unique<StoredConsents>(stateDirectory);
  };
}

}  // namespace vesko
