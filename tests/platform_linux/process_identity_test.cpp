#include "platform/linux/process_identity.h"

#include <gtest/gtest.h>

#include "base/file.h"
#include "process_fixture.h"
#include "support/temporary_directory.h"

namespace vesko {
namespace {

namespace fs = std::filesystem;

class ProcessIdentity : public ProcessTest {
 protected:
  fs::path copyOfChild(std::string_view name) const {
    const auto path = directory / name;
    fs::create_directories(path.parent_path());
    fs::copy_file(scriptedChild, path);
    return path;
  }
  fs::path script(std::string_view name, std::string_view content) const {
    const auto path = directory / name;
    EXPECT_TRUE(replaceFile(path, content, 0755));
    return path;
  }
  std::optional<fs::path> identityOf(const LaunchedChild& child) const {
    return processExecutable(child.process->pid());
  }

  const support::TemporaryDirectory directory;
};

TEST_F(ProcessIdentity, anExecutableKeepsItsPathWhenItIsReplacedOrRemoved) {
  const auto path = copyOfChild("A.app/Contents/Resources/daemon");
  const auto really = copyOfChild("odd (deleted)");
  const auto child = launch(path, environmentFor("echo"));
  const auto odd = launch(really, environmentFor("echo"));
  EXPECT_EQ(identityOf(*child), path);
  EXPECT_EQ(identityOf(*odd), really);
  fs::copy_file(scriptedChild, directory / "update");
  fs::rename(directory / "update", path);
  EXPECT_EQ(identityOf(*child), path);
  fs::remove_all(directory / "A.app");
  EXPECT_EQ(identityOf(*child), path);
  fs::remove(really);
  EXPECT_EQ(identityOf(*odd), really);
}

TEST_F(ProcessIdentity, aScriptIsTheProgramWhereItsInterpreterLineStartedIt) {
  constexpr std::string_view body = "\necho ready\nread line\n";
  const Environment environment{{"PATH", std::getenv("PATH")}};
  for (const char* line : {"#!/bin/sh", "#! /bin/sh  ", "#!/bin/sh -e", "#!/usr/bin/env bash"}) {
    SCOPED_TRACE(line);
    const auto path = script("daemon", line + std::string(body));
    const auto child = launch(path, environment);
    ASSERT_TRUE(says(*child, "ready\n"));
    EXPECT_EQ(identityOf(*child), path);
    child->process->closeInput();
    ASSERT_TRUE(ended(*child));
  }
}

TEST_F(ProcessIdentity, aProgramThatNamesAScriptIsNotThatScript) {
  const auto target = script("daemon", "#!/bin/bash\necho ready\nread line\n");
  const Environment environment{{"PATH", std::getenv("PATH")}, {"TARGET", target}};
  const struct {
    const char* command;
    const char* program;
  } cases[] = {
      {"exec cat \"$TARGET\" -", "cat"},  // a viewer or an editor
      {"exec -a /bin/bash cat \"$TARGET\" -", "cat"},
      {"exec bash +e \"$TARGET\"", "bash"},  // not how the line starts it
      {"exec bash -c 'echo ready; read line' \"$TARGET\"", "bash"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    const auto starter = script("starter", "#!/bin/bash\n" + std::string(c.command) + "\n");
    const auto child = launch(starter, environment);
    ASSERT_TRUE(says(*child, "ready"));
    const auto identity = identityOf(*child);
    ASSERT_TRUE(identity);
    EXPECT_EQ(identity->filename(), c.program);
    child->process->closeInput();
    ASSERT_TRUE(ended(*child));
  }
}

}  // namespace
}  // namespace vesko
