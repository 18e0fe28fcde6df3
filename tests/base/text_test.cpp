#include "base/text.h"

#include <gtest/gtest.h>

#include "base/bundle.h"
#include "base/directories.h"
#include "base/file.h"
#include "support/temporary_directory.h"

namespace vesko {
namespace {

TEST(Text, trimsAndLowersAsciiOnly) {
  EXPECT_EQ(trim(" \t\r\n\v\fa b\u00A0 \n"), "a b\u00A0");
  EXPECT_EQ(trim(" \n "), "");
  EXPECT_EQ(lowerAscii("AbZ-@[`{ÄÉ"), "abz-@[`{ÄÉ");
}

TEST(Text, splitsIntoThePiecesThatAreThere) {
  using Pieces = std::vector<std::string_view>;
  EXPECT_EQ(splitDroppingEmpty("", ','), Pieces());
  EXPECT_EQ(splitDroppingEmpty(",,", ','), Pieces());
  EXPECT_EQ(splitDroppingEmpty(",a,,b c,", ','), (Pieces{"a", "b c"}));
  EXPECT_EQ(splitDroppingEmpty("a", ','), Pieces{"a"});
}

TEST(Text, parsesDecimalsStrictly) {
  const struct {
    const char* text;
    std::optional<std::int64_t> value;
  } cases[] = {
      {"0", 0},
      {"+7", 7},
      {"-7", -7},
      {"007", 7},
      {"9223372036854775807", INT64_MAX},
      {"-9223372036854775808", INT64_MIN},
      {"9223372036854775808", std::nullopt},
      {"", std::nullopt},
      {"+", std::nullopt},
      {"-", std::nullopt},
      {"+-7", std::nullopt},
      {"--7", std::nullopt},
      {" 7", std::nullopt},
      {"7 ", std::nullopt},
      {"7.0", std::nullopt},
      {"0x7", std::nullopt},
      {"٧", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(parseDecimal(c.text), c.value) << c.text;
}

TEST(Directories, onlyTheReleaseIdentifierUsesTheReleaseFolders) {
  const struct {
    std::optional<std::string> identifier;
    const char* state;
    const char* logs;
    const char* defaults;
  } cases[] = {
      {"com.vesko.companion-kit", "Application Support/VeskoKit", "Logs/veskokit",
       "com.vesko.companion-kit.plist"},
      {std::nullopt, "Application Support/VeskoKit", "Logs/veskokit",
       "com.vesko.companion-kit.plist"},
      {"com.vesko.companion-kit.dev", "Application Support/VeskoKit-Dev", "Logs/veskokit-dev",
       "com.vesko.companion-kit.dev.plist"},
      {"COM.vesko.companion-kit", "Application Support/VeskoKit-Dev", "Logs/veskokit-dev",
       "COM.vesko.companion-kit.plist"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.defaults);
    const auto found = Directories::under("/home/u", c.identifier);
    EXPECT_EQ(found.state, std::filesystem::path("/home/u/Library") / c.state);
    EXPECT_EQ(found.logs, std::filesystem::path("/home/u/Library") / c.logs);
    EXPECT_EQ(found.cache.filename(), found.state.filename());
    EXPECT_EQ(found.launchAgents, "/home/u/Library/LaunchAgents");
    EXPECT_EQ(found.defaultsFile,
              std::filesystem::path("/home/u/Library/Preferences") / c.defaults);
  }
}

TEST(Bundle, isTheInnermostOneThatHoldsTheFile) {
  const support::TemporaryDirectory directory;
  const auto outer = directory / "Outer.app";
  const auto inner = outer / "Contents/Resources/Inner.app";
  ASSERT_TRUE(createDirectories(inner / "Contents/Resources", 0755));
  const auto info = [](const char* identifier) {
    return PropertyList(PropertyList::Dictionary{{"CFBundleIdentifier", identifier},
                                                 {"CFBundleVersion", std::int64_t{3}}})
        .toXml();
  };
  ASSERT_TRUE(replaceFile(outer / "Contents/Info.plist", info("outer"), 0644));
  ASSERT_TRUE(replaceFile(inner / "Contents/Info.plist", info("inner"), 0644));
  ASSERT_TRUE(replaceFile(inner / "Contents/Resources/daemon", "", 0755));

  const auto bundle = Bundle::containing(inner / "Contents/Resources/daemon");
  ASSERT_TRUE(bundle);
  EXPECT_EQ(bundle->path(), inner);
  EXPECT_EQ(bundle->identifier(), "inner");
  EXPECT_EQ(bundle->infoString("CFBundleVersion"), std::nullopt);
  EXPECT_EQ(bundle->resource("daemon"), inner / "Contents/Resources/daemon");
  EXPECT_EQ(bundle->resource("missing"), std::nullopt);
  EXPECT_EQ(Bundle::containing(outer / "Contents/MacOS/x")->identifier(), "outer");
  EXPECT_EQ(Bundle::containing("/usr/bin/program"), std::nullopt);
  EXPECT_EQ(Bundle::containing("/opt/name.apparatus/program"), std::nullopt);

  ASSERT_TRUE(replaceFile(outer / "Contents/Info.plist", "damaged", 0644));
  EXPECT_EQ(Bundle::at(outer).identifier(), std::nullopt);
  EXPECT_EQ(Bundle::at(directory / "None.app").identifier(), std::nullopt);
}

}  // namespace
}  // namespace vesko
