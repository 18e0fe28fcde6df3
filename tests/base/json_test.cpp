#include "base/json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "base/json_record.h"

namespace vesko {

enum class Shade { light, dark };

template <>
struct json::EnumNames<Shade> {
  static constexpr std::array values{std::pair{Shade::light, std::string_view("light")},
                                     std::pair{Shade::dark, std::string_view("very_dark")}};
};

namespace {

struct Inner {
  std::int32_t count = 0;
  Shade shade = Shade::light;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("count", &Inner::count), json::field("shade", &Inner::shade)};
  }
};

struct Outer {
  std::string name;
  bool flag = false;
  double ratio = 0;
  std::uint8_t small = 0;
  std::optional<std::string> note;
  std::vector<Inner> items;
  std::optional<Inner> extra;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("name", &Outer::name),   json::field("flag", &Outer::flag),
                      json::field("ratio", &Outer::ratio), json::field("small", &Outer::small),
                      json::field("note", &Outer::note),   json::field("items", &Outer::items),
                      json::field("extra", &Outer::extra)};
  }
};

TEST(Json, readsAndWritesTheSameText) {
  for (const char* text :
       {"null", "true", "-0", "9223372036854775807", "-9223372036854775808", "18446744073709551615",
        "1.5", "\"\"", "\"a\\\"\\\\/\\n\\r\\t\\u0000\\u001f\"", "\"Küche 🍎\"", "[]",
        "[1,[2,[]],{}]", "{\"a\":1,\"b\":{\"c\":[null,false]}}", "{\"a\":1,\"a\":2}"}) {
    SCOPED_TRACE(text);
    const auto value = json::parse(text);
    ASSERT_TRUE(value) << value.error();
    EXPECT_EQ(json::serialize(*value), std::string_view(text) == "-0" ? "0" : text);
  }
  EXPECT_EQ(json::serialize(json::parse("\" \\/\\b\\u00e9\\ud83c\\udf4e\"").value()),
            "\" /\\u0008é🍎\"");
  EXPECT_EQ(json::serialize(json::Value("é\u20ac🍎a"), json::Writer::Escaping::ascii),
            "\"\\u00e9\\u20ac\\ud83c\\udf4ea\"");
}

TEST(Json, refusesEverythingThatIsNotJson) {
  for (const std::string_view text : {"",
                                      " ",
                                      "nul",
                                      "nulll",
                                      "True",
                                      "01",
                                      "1.",
                                      ".5",
                                      "+1",
                                      "1e",
                                      "1e999",
                                      "-",
                                      "0x1",
                                      "NaN",
                                      "Infinity",
                                      "\"",
                                      "\"\\x\"",
                                      "\"\\u12\"",
                                      "\"\\ud800\"",
                                      "\"\\udc00x\"",
                                      "\"a\nb\"",
                                      "\"\xFF\"",
                                      "\"\xC0\xAF\"",
                                      "\"\xED\xA0\x80\"",
                                      "'a'",
                                      "[1,]",
                                      "[,1]",
                                      "[1 2]",
                                      "[",
                                      "]",
                                      "{\"a\"}",
                                      "{\"a\":}",
                                      "{\"a\":1,}",
                                      "{a:1}",
                                      "{1:1}",
                                      "1 2",
                                      "{}x",
                                      "// c\n1",
                                      "/**/1",
                                      "\xEF\xBB\xBF"
                                      "1"}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(json::parse(text));
  }
  EXPECT_FALSE(json::parse(std::string_view("1\0", 2)));
}

TEST(Json, boundsTheDepth) {
  const auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_TRUE(json::parse(nested(json::maxDepth)));
  EXPECT_FALSE(json::parse(nested(json::maxDepth + 1)));
  EXPECT_FALSE(json::parse(nested(1000000)));
}

TEST(Json, givesNumbersAsTheTypesThatHoldThem) {
  const struct {
    const char* text;
    std::optional<std::int64_t> integer;
  } cases[] = {
      {"5", 5},
      {"5.0", 5},
      {"5e2", 500},
      {"5.5", std::nullopt},
      {"9223372036854775808", std::nullopt},
      {"-9223372036854775808.0", std::numeric_limits<std::int64_t>::min()},
      {"9.3e18", std::nullopt},
      {"\"5\"", std::nullopt},
      {"true", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(json::parse(c.text)->asInteger(), c.integer) << c.text;
  EXPECT_EQ(json::parse("18446744073709551615")->asDouble(), 18446744073709551615.0);
  EXPECT_EQ(json::parse("943041e61")->asDouble(), 943041e61);
  EXPECT_EQ(json::parse("{\"a\":1,\"b\":0,\"a\":2}")->find("a")->asInteger(), 2);
  EXPECT_EQ(json::parse("[1]")->find("a"), nullptr);
}

TEST(Json, saysWhenAValueHasNoJsonForm) {
  for (const json::Value& value :
       {json::Value(std::nan("")), json::Value(std::numeric_limits<double>::infinity()),
        json::Value("\xFF"), json::Value(json::Object{{"\xC3", nullptr}})}) {
    EXPECT_EQ(json::serialize(value), std::nullopt);
    EXPECT_EQ(json::serialize(json::Array{value}), std::nullopt);
  }
}

TEST(JsonRecord, decodesAndEncodesItsFields) {
  const auto record = json::decode<Outer>(
      R"({"unknown":[1],"name":"n","flag":true,"ratio":2,"small":255.0,"note":null,
          "items":[{"count":-1,"shade":"very_dark"},{"shade":"light","count":2}]})");
  ASSERT_TRUE(record) << record.error().message;
  EXPECT_EQ(json::encode(*record),
            R"({"name":"n","flag":true,"ratio":2,"small":255,"items":[)"
            R"({"count":-1,"shade":"very_dark"},{"count":2,"shade":"light"}]})");
  auto full = *record;
  full.note = "";
  full.extra = Inner{};
  const auto again = json::decode<Outer>(*json::encode(full));
  ASSERT_TRUE(again);
  EXPECT_EQ(again->note, "");
  EXPECT_TRUE(again->extra);
  full.ratio = std::nan("");
  EXPECT_EQ(json::encode(full), std::nullopt);
}

TEST(JsonRecord, namesTheFieldThatDoesNotFit) {
  const std::string head = R"({"name":"n","flag":true,"ratio":1,"small":1,)";
  const struct {
    std::string text;
    const char* message;
  } cases[] = {
      {"[]", "expected an object"},
      {"{}", "name: missing"},
      {R"({"name":null})", "name: expected a string"},
      {R"({"name":"n","flag":1})", "flag: expected a boolean"},
      {R"({"name":"n","flag":true,"ratio":"1"})", "ratio: expected a number"},
      {R"({"name":"n","flag":true,"ratio":1,"small":256})", "small: expected an integer"},
      {R"({"name":"n","flag":true,"ratio":1,"small":-1})", "small: expected an integer"},
      {head + R"("items":{}})", "items: expected an array"},
      {head + R"("items":[{"count":1,"shade":"light"},{"count":1}]})", "items.[1].shade: missing"},
      {head + R"("items":[{"count":1,"shade":"Dark"}]})", "items.[0].shade: expected a known word"},
      {head + R"("items":[],"extra":{"count":1.5}})", "extra.count: expected an integer"},
      {head + R"("items":[],"note":5})", "note: expected a string"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const auto record = json::decode<Outer>(c.text);
    ASSERT_FALSE(record);
    EXPECT_EQ(record.error().message, c.message);
  }
}

}  // namespace
}  // namespace vesko
