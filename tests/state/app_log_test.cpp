#include "state/app_log.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

#include "support/temporary_directory.h"

namespace vesko {
namespace {

using support::contentOf;

constexpr std::size_t dateBytes = sizeof("[1970-01-01 00:00:00 +0000] ") - 1;

TEST(AppLog, writesDatedLinesAndAppendsToWhatIsThere) {
  const support::TemporaryDirectory root;
  const auto directory = root / "Library/Logs/veskokit";
  AppLog(directory, [] { return std::time_t{1'769'903'999}; }).write("first");
  AppLog(directory, [] { return std::time_t{0}; }).write("ERROR second");
  EXPECT_EQ(contentOf(directory / "app.log"),
            "[2026-01-31 23:59:59 +0000] first\n[1970-01-01 00:00:00 +0000] ERROR second\n");
}

TEST(AppLog, rotatesBehindTheLineThatCrossesTheLimitAndKeepsOneGeneration) {
  const support::TemporaryDirectory root;
  AppLog log(root.path(), [] { return std::time_t{0}; });
  const auto fill = [&](char mark) {
    // Lines that leave the file at exactly the limit, which does not rotate yet.
    constexpr std::size_t lineBytes = AppLog::maxMessageBytes;
    static_assert(AppLog::logMaxBytes % lineBytes == 0);
    for (std::size_t size = 0; size < AppLog::logMaxBytes; size += lineBytes)
      log.write(std::string(lineBytes - dateBytes - 1, mark));
  };
  fill('a');
  EXPECT_FALSE(std::filesystem::exists(root / "app.log.1"));
  log.write("crossing");
  EXPECT_FALSE(std::filesystem::exists(root / "app.log"));
  EXPECT_TRUE(contentOf(root / "app.log.1").ends_with("] crossing\n"));
  fill('b');
  log.write("second");
  log.write("new");
  EXPECT_TRUE(contentOf(root / "app.log.1").ends_with("] second\n"));
  EXPECT_EQ(contentOf(root / "app.log"), "[1970-01-01 00:00:00 +0000] new\n");
}

TEST(AppLog, keepsEveryMessageOnOneLineOfBoundedLength) {
  const support::TemporaryDirectory root;
  AppLog log(root.path(), [] { return std::time_t{0}; });
  const std::string date = "[1970-01-01 00:00:00 +0000] ";
  log.write("one\n" + date + "two\n");
  const std::string most(AppLog::maxMessageBytes, 'a');
  log.write(most);
  log.write(most + "a");
  // The third byte of the euro sign would be the first that no longer fits.
  log.write(most.substr(2) + "\u20AC!");
  EXPECT_EQ(contentOf(root / "app.log"), date + "one " + date + "two \n" + date + most + "\n" +
                                             date + most + " ... (65537 bytes)\n" + date +
                                             most.substr(2) + " ... (65538 bytes)\n");
}

TEST(AppLog, losesOnlyTheLinesThatAFullDiskRefuses) {
  const support::TemporaryDirectory root;
  AppLog log(root.path(), [] { return std::time_t{0}; });
  log.write("before");
  // A file size limit stands in for the full disk: the write that meets it is cut short.
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  const auto previous = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit tight{60, old.rlim_max};
  setrlimit(RLIMIT_FSIZE, &tight);
  log.write("a line that no longer fits into the sixty bytes");
  setrlimit(RLIMIT_FSIZE, &old);
  std::signal(SIGXFSZ, previous);
  log.write("after");
  EXPECT_EQ(contentOf(root / "app.log"),
            "[1970-01-01 00:00:00 +0000] before\n[1970-01-01 00:00:00 +0000] after\n");
}

TEST(AppLog, survivesADirectoryThatCannotBeMadeAndStartsOnceItCan) {
  const support::TemporaryDirectory root;
  support::writeFile(root / "Logs", "a file in the way");
  AppLog log(root / "Logs/veskokit", [] { return std::time_t{0}; });
  log.write("lost");
  std::filesystem::remove(root / "Logs");
  log.write("kept");
  EXPECT_EQ(contentOf(root / "Logs/veskokit/app.log"), "[1970-01-01 00:00:00 +0000] kept\n");
}

}  // namespace
}  // namespace vesko
