#include "platform/linux/host_names.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "base/file.h"
#include "support/temporary_directory.h"

namespace vesko {
namespace {

TEST(LinuxHostNames, takesTheComputerNameFromMachineInfo) {
  const support::TemporaryDirectory directory;
  const auto file = directory / "machine-info";
  EXPECT_EQ(LinuxHostNames(file).computerName(), "");
  const struct {
    const char* content;
    const char* name;
  } cases[] = {
      {"", ""},
      {"PRETTY_HOSTNAME=Studio\n", "Studio"},
      {"# PRETTY_HOSTNAME=no\nICON_NAME=computer\nPRETTY_HOSTNAME=\"Ada's \\\"Studio\\\"\"",
       "Ada's \"Studio\""},
      {"  PRETTY_HOSTNAME='Küche oben'  \r\n", "Küche oben"},
      {"PRETTY_HOSTNAME=one\nPRETTY_HOSTNAME=two\n", "two"},
      {"PRETTY_HOSTNAME=\"unfinished\n", ""},
      {"PRETTY_HOSTNAME=\"\xFF\"\n", ""},
      {"OTHER_PRETTY_HOSTNAME=no\n", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.content);
    ASSERT_TRUE(replaceFile(file, c.content, 0600));
    EXPECT_EQ(LinuxHostNames(file).computerName(), c.name);
  }
}

TEST(LinuxHostNames, hostNameIsTheKernels) {
  char name[256] = {};
  ASSERT_EQ(::gethostname(name, sizeof name - 1), 0);
  EXPECT_EQ(LinuxHostNames().hostName(), name);
}

}  // namespace
}  // namespace vesko
