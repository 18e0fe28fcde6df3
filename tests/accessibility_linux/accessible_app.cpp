#include "accessible_app.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

namespace vesko::test {

Looked lookAt(Accessibility& accessibility, pid_t process) {
  Looked looked;
  EXPECT_TRUE(eventually([&] {
    looked.session =
        accessibility.begin(std::chrono::steady_clock::now() + std::chrono::minutes(1));
    const auto root = looked.session->application(process);
    looked.root = root.value_or(0);
    return root.has_value();
  }));
  return looked;
}

std::vector<Met> walk(AccessibilitySession& session, AXElement root, std::size_t limit) {
  std::vector<Met> met;
  std::set<AXElement> seen{root};
  std::vector<AXElement> level{root};
  std::vector<AXElement> parents{root};
  while (!level.empty() && met.size() < limit) {
    level.resize(std::min(level.size(), limit - met.size()));
    auto states = session.read(level, axAttributes::all, limit);
    std::vector<AXElement> next;
    std::vector<AXElement> nextParents;
    for (std::size_t i = 0; i < level.size(); ++i) {
      for (const AXElement child : states[i].children) {
        if (!seen.insert(child).second) continue;
        next.push_back(child);
        nextParents.push_back(level[i]);
      }
      met.push_back({level[i], parents[i], std::move(states[i])});
    }
    level = std::move(next);
    parents = std::move(nextParents);
  }
  return met;
}

const Met* find(const std::vector<Met>& elements, std::string_view role, std::string_view title) {
  for (const Met& met : elements)
    if (met.state.role == role && met.state.title == title) return &met;
  return nullptr;
}

AccessibleApp::AccessibleApp(const std::string& name, std::vector<std::string> arguments) {
  const auto pipe = directory_.path() / "commands";
  EXPECT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  commands_ = UniqueFd(::open(pipe.c_str(), O_RDWR | O_CLOEXEC));
  std::vector<std::string> command{"sh", "-c",          "pipe=$1; shift; exec \"$@\" <\"$pipe\"",
                                   "sh", pipe.string(), VESKO_APPS "/" + name};
  command.insert(command.end(), arguments.begin(), arguments.end());
  program_ = std::make_unique<Program>(std::move(command));
  EXPECT_TRUE(program_->waitReady()) << name;
}

void AccessibleApp::send(std::string_view command) {
  const std::string line = std::string(command) + "\n";
  EXPECT_EQ(::write(commands_.get(), line.data(), line.size()), std::ssize(line));
}

std::map<std::string, Rect> AccessibleApp::ownFrames() {
  std::map<std::string, Rect> frames;
  send("frames");
  const auto done = program_->waitFor([&](std::string_view line) {
    int x = 0, y = 0, width = 0, height = 0;
    const std::string text(line);
    // The name may hold spaces; the numbers come last.
    std::size_t at = text.size();
    for (int number = 0; number < 4 && at != std::string::npos; ++number)
      at = text.rfind(' ', at - 1);
    if (text.starts_with("frame ") && at != std::string::npos && at > 5 &&
        std::sscanf(text.c_str() + at, "%d %d %d %d", &x, &y, &width, &height) == 4)
      frames[text.substr(6, at - 6)] = {double(x), double(y), double(width), double(height)};
    return line == "done";
  });
  EXPECT_TRUE(done);
  return frames;
}

}  // namespace vesko::test
