#include "helper/mcp/snapshot_text.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "helper/mcp/capture_map.h"
#include "helper/mcp/schema_check.h"
#include "helper/mcp/tool.h"

namespace vesko::mcp {
namespace {

std::string render(std::string_view tree, std::size_t maxNodes = 0, bool paths = false) {
  ElementRefs refs;
  const auto response = json::parse("{\"tree\":" + std::string(tree) + "}", 8192);
  return snapshotText(response.value(), refs, {.maxNodes = maxNodes, .paths = paths});
}

TEST(SnapshotText, ShowsWhatAPersonWouldName) {
  EXPECT_EQ(
      render(
          R"({"role":"AXWindow","title":"Notes","frame":{"x":0,"y":0,"w":640,"h":480},"path":"w","children":[)"
          R"({"role":"AXGroup","path":"g","children":[{"role":"AXGroup","title":" ","path":"h","children":[)"
          R"({"role":"AXButton","title":"Save","enabled":false,"frame":{"x":7.6,"y":30,"w":60,"h":24},"path":"b","children":[)"
          R"({"role":"AXStaticText","title":"Save","path":"l","children":[]}]},)"
          R"({"role":"AXCheckBox","title":"Wrap","value":"1","path":"c","children":[]}]}]},)"
          R"({"role":"AXUnknown","path":"u","children":[]},)"
          R"({"role":"AXGroup","focused":true,"path":"f","children":[]},)"
          R"({"role":"AXTextArea","value":"first \"line\"\nsecond","focused":true,"path":"t","children":[]}]})"),
      "window \"Notes\" 0,0 640x480 [e1]\n"
      " button \"Save\" disabled 8,30 60x24 [e2]\n"
      " checkbox \"Wrap\" =\"1\" [e3]\n"
      " group focused [e4]\n"
      " textarea =\"first \\\"line\\\"\\nsecond\" focused [e5]\n"
      "(4 unnamed or repeating elements are left out)\n");
  EXPECT_EQ(
      render(R"({"role":"AXButton","path":"AXApplication[p]/AXButton[0]","children":[]})", 1, true),
      "button [e1] path=AXApplication[p]/AXButton[0]\n"
      "Cut at max_nodes=1: there may be more. Raise it (up to 2000), pass element for one "
      "part, or use find_elements.\n");
}

TEST(SnapshotText, StaysBelowItsBoundAndSaysSo) {
  std::string tree = R"({"role":"AXWindow","path":"w","children":[)";
  for (int i = 0; i < 2000; ++i)
    tree += fmt::format(R"({}{{"role":"AXButton","title":"{}","path":"{}","children":[]}})",
                        i > 0 ? "," : "", std::string(199, '\x7f') + "\\\"", i);
  tree += "]}";
  const std::string text = render(tree);
  EXPECT_LT(jsonBytes(text), maxTextBytes + 300);
  EXPECT_GT(jsonBytes(text), maxTextBytes - 300);
  EXPECT_TRUE(text.contains(" more lines are left out")) << text.substr(text.size() - 200);
  const auto json = snapshotJson(json::parse("{\"tree\":" + tree + "}").value(), 50'000);
  EXPECT_LT(json.size(), 50'000U);
  ASSERT_TRUE(json::parse(json));
  EXPECT_TRUE(json.contains("subtrees are left out"));

  std::string deep;
  for (int i = 0; i < 2000; ++i) deep += R"({"role":"AXGroup","title":"g","path":"p","children":[)";
  for (int i = 0; i < 2000; ++i) deep += "]}";
  EXPECT_LT(render(deep).size(), 100'000U);
}

TEST(ElementRefs, KeepPathsApartAndEndOldestFirst) {
  ElementRefs refs({.count = 2, .bytes = 100});
  EXPECT_EQ(refs.refOf("AXa"), "e1");
  EXPECT_EQ(refs.refOf("AXb"), "e2");
  EXPECT_EQ(refs.refOf("AXa"), "e1");
  EXPECT_EQ(refs.refOf("AXc"), "e3");
  EXPECT_EQ(refs.pathOf("e3"), "AXc");
  EXPECT_TRUE(refs.pathOf("e1").error().contains("too old"));
  EXPECT_EQ(refs.refOf("AXa"), "e4");
  EXPECT_EQ(refs.refOf("AX" + std::string(200, 'd')), "e5");
  EXPECT_TRUE(refs.pathOf("e4").error().contains("too old"));
  EXPECT_EQ(refs.pathOf("AXApplication[x]"), "AXApplication[x]");
  for (const char* bad : {"", "e", "e0", "e6", "12", "e-1", "e99999999999999999999", "x3"})
    EXPECT_FALSE(refs.pathOf(bad)) << bad;
}

TEST(CaptureMap, LeadsFromPixelsToPoints) {
  const CaptureMap map{.origin = {-100.5, 40}, .scale = 2.0 / 3, .width = 300, .height = 200};
  EXPECT_EQ(map.text(), "-100.5,40,0.6666666667,300,200");
  const auto read = CaptureMap::parse(map.text());
  ASSERT_TRUE(read);
  const auto point = read->screenPoint({30, 199.9});
  ASSERT_TRUE(point);
  EXPECT_NEAR(point->x, -100.5 + 30.5 * 1.5, 1e-6);
  EXPECT_NEAR(point->y, 40 + 199.5 * 1.5, 1e-6);
  for (const Point out : {Point{-0.1, 0}, Point{300, 0}, Point{0, 200}})
    EXPECT_FALSE(read->screenPoint(out)) << out.x << ',' << out.y;
  EXPECT_EQ(CaptureMap::parse("1,2,1,3,4,77")->window, 77);
  for (const char* bad :
       {"", "1,2,1,3", "1,2,1,3,", "1,2,0,3,4", "1,2,-1,3,4", "1,2,nan,3,4", "1,2,1,0,4",
        "1,2,1,3,4,5,6", "1,2,1,3,4 ", "inf,2,1,3,4", "1;2;1;3;4", "1,2,1,3,99999999999999999999"})
    EXPECT_FALSE(CaptureMap::parse(bad)) << bad;
}

TEST(Texts, AreCutWhereTheyMay) {
  EXPECT_EQ(jsonPrefix("\"\"\"", 5), "\"\"");
  EXPECT_EQ(jsonPrefix("a\xE4\xB8\x96", 3), "a");
  EXPECT_EQ(jsonPrefix(std::string(3, '\x01'), 12).size(), 2U);
  std::size_t rest = 0;
  EXPECT_EQ(wholeLines("ab\ncd\nef", 7, rest), "ab\n");
  EXPECT_EQ(rest, 2U);
  EXPECT_EQ(wholeLines("ab\ncd\n", 8, rest), "ab\ncd\n");
  EXPECT_EQ(rest, 0U);
  EXPECT_EQ(quoted("\xE4\xB8\x96\xE7\x95\x8C\n!", 2),
            "\"\xE4\xB8\x96\xE7\x95\x8C\"…(4 characters)");
}

TEST(Schemas, JudgeArguments) {
  const auto schema = json::parse(
      R"({"type":"object","properties":{"n":{"type":"integer","minimum":1,"maximum":9},)"
      R"("s":{"type":"string","maxLength":2},"e":{"enum":["a","b"]},"f":{"type":"boolean"},)"
      R"("p":{"type":"object","properties":{"x":{"type":"number"}},"required":["x"],)"
      R"("additionalProperties":false},"l":{"type":"array","maxItems":2,"items":{"type":"string"}}},)"
      R"("required":["n"],"additionalProperties":false})");
  const struct {
    const char* arguments;
    const char* problem;
  } cases[] = {
      {R"({"n":1})", ""},
      {R"({"n":9.0,"s":"世界","e":"b","f":true,"p":{"x":-1.5},"l":["a","b"]})", ""},
      {R"({})", "n: missing"},
      {R"({"n":10})", "n: expected an integer from 1 to 9"},
      {R"({"n":1.5})", "n: expected an integer from 1 to 9"},
      {R"({"n":"1"})", "n: expected an integer from 1 to 9"},
      {R"({"n":null})", "n: expected an integer from 1 to 9"},
      {R"({"n":1,"s":"abc"})", "s: expected a text of up to 2 characters"},
      {R"({"n":1,"e":"c"})", "e: expected one of a, b"},
      {R"({"n":1,"f":1})", "f: expected true or false"},
      {R"({"n":1,"p":{}})", "p.x: missing"},
      {R"({"n":1,"p":{"x":1,"y":1}})", "p: unknown argument \"y\"; there are: x"},
      {R"({"n":1,"l":["a","b","c"]})", "l: expected an array of up to 2 elements"},
      {R"({"n":1,"l":["a",2]})", "l[1]: expected a text"},
      {R"({"n":1,"z":1})", "unknown argument \"z\"; there are: n, s, e, f, p, l"},
      {R"([])", "expected an object"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.arguments);
    EXPECT_EQ(checkSchema(*schema, json::parse(each.arguments).value()).value_or(""), each.problem);
  }
}

// A slip in a table's JSON would let every argument pass.
TEST(Schemas, OfTheToolsAreWhole) {
  for (const ToolEntry& tool : toolTable()) {
    SCOPED_TRACE(tool.name);
    const auto input = json::parse(tool.inputSchema);
    ASSERT_TRUE(input);
    EXPECT_EQ(checkSchema(*input, json::parse(R"({"surprise":1})").value()).has_value(), true);
    EXPECT_TRUE(tool.outputSchema.empty() || json::parse(tool.outputSchema));
  }
}

}  // namespace
}  // namespace vesko::mcp
