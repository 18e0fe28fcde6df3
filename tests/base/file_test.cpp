#include "base/file.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "support/temporary_directory.h"

namespace vesko {
namespace {

namespace fs = std::filesystem;

struct FileTest : testing::Test {
  support::TemporaryDirectory directory;
  const fs::path file = directory / "file";

  std::ptrdiff_t entries() const {
    return std::distance(fs::directory_iterator(directory.path()), fs::directory_iterator());
  }
};

TEST_F(FileTest, readsWholeFilesUpToALimit) {
  const std::string content = std::string(100000, 'x') + std::string(1, '\0') + "end";
  ASSERT_TRUE(replaceFile(file, content, 0600));
  EXPECT_EQ(readFile(file, content.size()), content);
  EXPECT_EQ(readFile(file, content.size() - 1).error(), std::errc::file_too_large);
  EXPECT_EQ(readFile(directory / "missing", 1).error(), std::errc::no_such_file_or_directory);
  EXPECT_EQ(readFile(directory.path(), 1).error(), std::errc::is_a_directory);
}

TEST_F(FileTest, replacesWithTheModeThatWasAskedFor) {
  const mode_t before = ::umask(077);
  EXPECT_TRUE(replaceFile(file, "one", 0644));
  ::umask(before);
  EXPECT_EQ(support::modeOf(file), 0644U);
  EXPECT_TRUE(replaceFile(file, "", 0600));
  EXPECT_EQ(support::modeOf(file), 0600U);
  EXPECT_EQ(readFile(file, 10), "");
  EXPECT_EQ(entries(), 1);
}

// A disk that fills up in the middle of the write, by the process's limit on file sizes.
TEST_F(FileTest, aFailedReplacementLeavesTheOldContent) {
  ASSERT_TRUE(replaceFile(file, "old", 0600));
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{.rlim_cur = 1000, .rlim_max = before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  const auto result = replaceFile(file, std::string(5000, 'n'), 0600);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  std::signal(SIGXFSZ, handler);
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error(), std::errc::file_too_large);
  EXPECT_EQ(readFile(file, 10), "old");
  EXPECT_EQ(entries(), 1);

  fs::create_directory(directory / "folder");
  EXPECT_FALSE(replaceFile(directory / "folder", "new", 0600));
  EXPECT_FALSE(replaceFile(directory / "none/file", "new", 0600));
  EXPECT_EQ(entries(), 2);
}

TEST_F(FileTest, readersSeeOneContentOrTheOther) {
  ASSERT_TRUE(replaceFile(file, std::string(50000, 'a'), 0600));
  std::atomic<bool> done = false;
  std::jthread reader([&] {
    while (!done) {
      const auto content = readFile(file, 100000);
      if (!content || content->size() != 50000 ||
          content->find_first_not_of(content->front()) != std::string::npos) {
        ADD_FAILURE() << "a torn file";
        return;
      }
    }
  });
  for (int i = 0; i < 50; ++i)
    EXPECT_TRUE(replaceFile(file, std::string(50000, static_cast<char>('a' + i % 2)), 0600));
  done = true;
}

TEST_F(FileTest, createsDirectoriesWithTheirParents) {
  EXPECT_TRUE(createDirectories(directory / "a/b/c", 0700));
  EXPECT_TRUE(createDirectories(directory / "a/b/c", 0755));
  for (const char* name : {"a", "a/b", "a/b/c"})
    EXPECT_EQ(support::modeOf(directory / name), 0700U) << name;
  ASSERT_TRUE(replaceFile(file, "", 0600));
  EXPECT_EQ(createDirectories(file, 0700).error(), std::errc::not_a_directory);
  EXPECT_EQ(createDirectories(file / "below", 0700).error(), std::errc::not_a_directory);
}

}  // namespace
}  // namespace vesko
