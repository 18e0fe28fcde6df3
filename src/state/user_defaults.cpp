#include "state/user_defaults.h"

#include "base/file.h"

namespace vesko {

UserDefaults::UserDefaults(std::filesystem::path file) : file_(std::move(file)) {
  const auto bytes = readFile(file_, PropertyList::maxBytes);
  if (!bytes && bytes.error() == std::errc::no_such_file_or_directory) return;
  if (bytes) {
    auto parsed = PropertyList::parse(*bytes);
    if (parsed && parsed->dictionary()) {
      entries_ = *parsed->dictionary();
      return;
    }
    loadProblem_ = "settings file is damaged (" +
                   (parsed ? std::string("not a dictionary") : parsed.error()) + ")";
  } else {
    loadProblem_ = "settings could not be read (" + bytes.error().message() + ")";
  }
  auto aside = file_;
  aside += ".damaged";
  std::error_code error;
  std::filesystem::rename(file_, aside, error);
  *loadProblem_ += error ? "; it could not be kept aside: " + error.message() : "; kept aside";
}

const PropertyList* UserDefaults::value(std::string_view key) const {
  const auto found = entries_.find(key);
  return found == entries_.end() ? nullptr : &found->second;
}

bool UserDefaults::flag(std::string_view key) const {
  const PropertyList* entry = value(key);
  const bool* flag = entry ? entry->as<bool>() : nullptr;
  return flag && *flag;
}

std::optional<std::string> UserDefaults::text(std::string_view key) const {
  const PropertyList* entry = value(key);
  if (const std::string* text = entry ? entry->text() : nullptr) return *text;
  return std::nullopt;
}

std::expected<void, std::string> UserDefaults::set(std::string_view key, PropertyList value) {
  entries_.insert_or_assign(std::string(key), std::move(value));
  return save();
}

std::expected<void, std::string> UserDefaults::remove(std::string_view key) {
  const auto found = entries_.find(key);
  if (found == entries_.end()) return {};
  entries_.erase(found);
  return save();
}

std::expected<void, std::string> UserDefaults::save() const {
  auto written = createDirectories(file_.parent_path(), 0700);
  if (written) written = replaceFile(file_, PropertyList(entries_).toXml(), 0600);
  if (!written) return std::unexpected(written.error().message());
  return {};
}

}  // namespace vesko
