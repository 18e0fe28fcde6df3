// The companion's side of the conversation: one JSON object a line on the helper's standard input.
//
// Keeps what the lines tell and answers the commands that need an answer. Unknown lines are logged
// by their kind alone. One thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"
#include "helper/control_client.h"
#include "helper/helper_reporter.h"

namespace vesko {

class CompanionInput {
 public:
  /// A longer line is dropped.
  static constexpr std::size_t maxLineBytes = 16 << 20;

  /// Borrows the reporter.
  CompanionInput(HelperReporter& reporter, std::vector<std::string> grantedDirs,
                 std::optional<std::string> photosLibrary)
      : reporter_(reporter),
        grantedDirs_(std::move(grantedDirs)),
        photosLibrary_(std::move(photosLibrary)) {}

  void handleLine(std::string_view line);

  /// The latest announcement that could be used.
  const std::optional<ControlEndpoint>& controlServer() const { return controlServer_; }
  const std::vector<std::string>& grantedDirs() const { return grantedDirs_; }
  const std::optional<std::string>& photosLibrary() const { return photosLibrary_; }

 private:
  void announce(const json::Value& message);
  void command(std::string_view name, const json::Value& message);
  void notice(std::string_view type, const json::Value& message);
  void unknown(std::string_view kind);

  HelperReporter& reporter_;
  std::optional<ControlEndpoint> controlServer_;
  std::vector<std::string> grantedDirs_;
  std::optional<std::string> photosLibrary_;
};

}  // namespace vesko
