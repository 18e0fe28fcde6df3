// Reads and operates the user interfaces of other applications: snapshots of element trees, finding
// elements, acting on one.
//
// Any thread, several at once; nothing is kept between requests. Every request ends within some
// seconds, also when the application it concerns hangs; what could be read until then is answered.
#pragma once

#include <cstdint>
#include <expected>
#include <string>
#include <utility>

#include "platform/accessibility.h"
#include "platform/applications.h"
#include "tools/accessibility_records.h"
#include "tools/tool_response.h"

namespace vesko {

class AccessibilityControl {
 public:
  struct ControlError {
    enum class Kind { invalid, axFailure, applicationNotFound, elementGone };

    Kind kind = Kind::invalid;
    std::string detail = {};  ///< the text of `invalid`, the operation of `axFailure`
    AXError code = AXError::success;

    static ControlError invalid(std::string message) { return {Kind::invalid, std::move(message)}; }
    std::string message() const;
    bool operator==(const ControlError&) const = default;
  };
  template <class T>
  using Result = std::expected<T, ControlError>;

  AccessibilityControl(Accessibility& accessibility, Applications& applications,
                       WindowSystem& windows)
      : accessibility_(accessibility), applications_(applications), windows_(windows) {}

  Result<SnapshotResponse> snapshot(const SnapshotRequest& request);
  Result<FindResponse> find(const FindRequest& request);
  Result<OKResponse> performAction(const ActionRequest& request);
  Result<OKResponse> setValue(const SetValueRequest& request);

 private:
  struct Root;
  struct Target;

  std::unique_ptr<AccessibilitySession> begin();
  Result<Root> rootOf(const SnapshotRequest& request);
  Result<Root> rootOfScope(std::string_view scope, const std::optional<std::string>& bundleID);
  Result<Root> rootOfApplication(const RunningApplication& application);
  Result<Root> frontmostWindow();
  Result<Target> resolve(std::string_view path);

  Accessibility& accessibility_;
  Applications& applications_;
  WindowSystem& windows_;
};

}  // namespace vesko
