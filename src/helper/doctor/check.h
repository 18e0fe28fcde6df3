// One look at the machine and what came of it. Any thread but where said otherwise.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "base/json_record.h"

namespace vesko {

enum class CheckStatus {
  ok,
  warning,  ///< works, but not all of it or not for long
  missing,  ///< something the companion needs
  unknown,  ///< could not be looked at
};

template <>
struct json::EnumNames<CheckStatus> {
  static constexpr std::array values{std::pair{CheckStatus::ok, std::string_view("ok")},
                                     std::pair{CheckStatus::warning, std::string_view("warning")},
                                     std::pair{CheckStatus::missing, std::string_view("missing")},
                                     std::pair{CheckStatus::unknown, std::string_view("unknown")}};
};

/// For people to read, but for the id.
struct Finding {
  std::string id;
  CheckStatus status = CheckStatus::unknown;
  std::string summary{};
  std::string advice{};  ///< what to do; may be empty

  static constexpr auto jsonFields() {
    using F = Finding;
    return std::tuple{json::field("id", &F::id), json::field("status", &F::status),
                      json::field("summary", &F::summary), json::field("advice", &F::advice)};
  }
};

struct Check {
  std::string id;      ///< of the finding that stands for all of them when none comes
  CheckStatus silent;  ///< what it then means
  std::string silentAdvice;
  std::function<std::vector<Finding>()> run;
};

/// Runs them side by side, each in a process of its own: one that waits for a hung bus, server or
/// file system, or crashes in a library, takes nothing with it. What has not ended within `bound`
/// is ended. The findings are in the order of the checks, and their texts fit a terminal. Call it
/// before threads start.
std::vector<Finding> runChecks(const std::vector<Check>& checks, std::chrono::milliseconds bound);

}  // namespace vesko
