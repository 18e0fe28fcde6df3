#include "tools/element_path.h"

#include <gtest/gtest.h>

namespace vesko {
namespace {

TEST(ElementPath, encodesTitlesSoThatTheyComeBack) {
  for (const auto& [title, encoded] :
       std::vector<std::pair<std::string, std::string>>{{"Save as…", "Save as%E2%80%A6"},
                                                        {"a-b_c.d,e:f(g)", "a-b_c.d,e:f(g)"},
                                                        {"100%/[x]=\n", "100%25%2F%5Bx%5D%3D%0A"},
                                                        {"", ""}}) {
    EXPECT_EQ(percentEncodeTitle(title), encoded);
    EXPECT_EQ(percentDecodeTitle(encoded), title);
  }
  for (const char* broken : {"%", "%4", "%zz", "a%E2%80", "%FF"})
    EXPECT_EQ(percentDecodeTitle(broken), std::nullopt) << broken;
}

TEST(ElementPath, parsesWhatItNames) {
  const RunningApplication app{
      .pid = 77, .bundleIdentifier = "org.a,token=b", .name = "", .startToken = "9-f"};
  const auto path = ElementPath::parse(applicationSegment(app) + "/AXWindow[title=A%2FB]/" +
                                       elementSegment("AXButton", std::nullopt, 3));
  ASSERT_TRUE(path && path->application);
  EXPECT_EQ(path->application->pid, 77);
  EXPECT_EQ(path->application->bundleIdentifier, app.bundleIdentifier);
  EXPECT_EQ(path->application->startToken, "9-f");
  ASSERT_EQ(path->segments.size(), 2U);
  EXPECT_EQ(path->segments[0].title, "A/B");
  EXPECT_EQ(path->segments[1].role, "AXButton");
  EXPECT_EQ(path->segments[1].index, 3U);

  const auto system = ElementPath::parse("AXSystemWide/AXApplication[title=x]");
  ASSERT_TRUE(system);
  EXPECT_FALSE(system->application);
  // A title too long to repeat in every descendant's path does not name the element.
  EXPECT_EQ(elementSegment("AXText", std::string(5000, 'x'), 4), "AXText[4]");
}

TEST(ElementPath, refusesWhatIsNoPath) {
  const std::string root = "AXApplication[pid=1,bundle=b,token=t]";
  std::string million = root;
  for (int i = 0; i < 1'000'000; ++i) million += "/A[0]";
  for (const std::string& text :
       {std::string(), std::string("/"), std::string("AXWindow[0]"), root + "/", root + "//A[0]",
        root + "/A", root + "/A[", root + "/A[]", root + "/A[-1]", root + "/A[1x]", root + "/[0]",
        root + "/A[title=%4]", root + "/A[99999999999999999999999]",
        std::string("AXApplication[pid=1]"), std::string("AXApplication[pid=-1,bundle=,token=]"),
        std::string("AXApplication[pid=99999999999,bundle=,token=]"),
        std::string("AXApplication[pid=1,token=t,bundle=b]"), million})
    EXPECT_FALSE(ElementPath::parse(text)) << text.substr(0, 80);
}

}  // namespace
}  // namespace vesko
