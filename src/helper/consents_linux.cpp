#include "helper/consents.h"
#include "platform/linux/consent_store.h"

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

 private:
  ConsentStore store_;
};

}  // namespace

decltype(CommandEnvironment::consents) desktopConsents() {
  return [](const std::filesystem::path& stateDirectory) {
    return std::make_unique<StoredConsents>(stateDirectory);
  };
}

}  // namespace vesko
