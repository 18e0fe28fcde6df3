// A test program with a user interface, and what its accessibility tells of it.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "../input/desktop.h"
#include "platform/accessibility.h"
#include "support/temporary_directory.h"

namespace vesko::test {

/// An element as a walk met it.
struct Met {
  AXElement element = 0;
  AXElement parent = 0;
  AXElementState state = {};
};

/// A session and the root of that process, once it has come to the bus: a loaded machine takes its
/// time over that.
struct Looked {
  std::unique_ptr<AccessibilitySession> session;
  AXElement root = 0;
};
Looked lookAt(Accessibility& accessibility, pid_t process);

/// All elements below a root, breadth first, as the accessibility tool walks them.
std::vector<Met> walk(AccessibilitySession& session, AXElement root, std::size_t limit = 3000);

/// The first of that role and title.
const Met* find(const std::vector<Met>& elements, std::string_view role, std::string_view title);

class AccessibleApp {
 public:
  /// `name` is the file name of the program; it runs and has drawn itself when this returns.
  AccessibleApp(const std::string& name, std::vector<std::string> arguments);

  Program& program() { return *program_; }
  pid_t pid() const { return program_->pid(); }
  void send(std::string_view command);
  /// Where the program itself says that its controls are, by their names.
  std::map<std::string, Rect> ownFrames();

 private:
  support::TemporaryDirectory directory_;
  UniqueFd commands_;
  std::unique_ptr<Program> program_;
};

}  // namespace vesko::test
