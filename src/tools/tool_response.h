// The success body of a tool that has nothing else to say.
#pragma once

#include <tuple>

#include "base/json_record.h"

namespace vesko {

struct OKResponse {
  bool ok = true;
  static constexpr auto jsonFields() { return std::tuple{json::field("ok", &OKResponse::ok)}; }
};

}  // namespace vesko
