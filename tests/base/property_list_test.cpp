#include "base/property_list.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace vesko {
namespace {

using Array = PropertyList::Array;
using Dictionary = PropertyList::Dictionary;
using Data = PropertyList::Data;

std::string inPlist(std::string_view content) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//A>\" \"b\">\n"
         "<plist version=\"1.0\">\n" +
         std::string(content) + "\n</plist>\n";
}

// A binary list from its objects, the last of which is the root.
std::string binary(const std::vector<std::string>& objects) {
  std::string bytes = "bplist00";
  std::string offsets;
  for (const auto& object : objects) {
    offsets += static_cast<char>(bytes.size() >> 8);
    offsets += static_cast<char>(bytes.size());
    bytes += object;
  }
  const auto number = [](std::size_t value) {
    std::string field(8, '\0');
    field[6] = static_cast<char>(value >> 8);
    field[7] = static_cast<char>(value);
    return field;
  };
  const std::size_t table = bytes.size();
  return bytes + offsets + std::string("\0\0\0\0\0\0\2\1", 8) + number(objects.size()) +
         number(objects.size() - 1) + number(table);
}

TEST(PropertyList, keepsEveryTypeThroughItsXmlForm) {
  const PropertyList cases[] = {
      true,
      false,
      std::int64_t{0},
      std::int64_t{-5},
      std::numeric_limits<std::int64_t>::min(),
      std::numeric_limits<std::int64_t>::max(),
      1.5,
      0.1,
      -1e-300,
      std::numeric_limits<double>::infinity(),
      "",
      "  space \n\t around ",
      "line\r\nends\r",
      "<&>\"'; ]]> Küche 🍎",
      Data{},
      Data{std::string("\0\xFF\x80", 3)},
      Array{},
      Array{true, Array{"x"}, Dictionary{}},
      Dictionary{{"", 1.0}, {"a<b", "c"}, {"n", Dictionary{{"m", std::int64_t{1}}}}},
  };
  for (const PropertyList& list : cases) {
    SCOPED_TRACE(list.toXml());
    const auto parsed = PropertyList::parse(list.toXml());
    ASSERT_TRUE(parsed) << parsed.error();
    EXPECT_TRUE(*parsed == list);
  }
}

TEST(PropertyList, writesWhatXmlCannotExpressAsReplacementCharacters) {
  const PropertyList list(Dictionary{{"k\x01", std::string("a\0b", 3)}, {"n", "\xEF\xBF\xBF"}});
  const auto parsed = PropertyList::parse(list.toXml());
  ASSERT_TRUE(parsed);
  EXPECT_TRUE(*parsed == PropertyList(Dictionary{{"k\uFFFD", "a\uFFFDb"}, {"n", "\uFFFD"}}));
  EXPECT_TRUE(PropertyList::parse(PropertyList("\xFF\xC3").toXml()).value() ==
              PropertyList("\uFFFD\uFFFD"));
}

TEST(PropertyList, readsTheFormsOfXml) {
  const struct {
    const char* content;
    PropertyList expected;
  } cases[] = {
      {"<true></true>", true},
      {"<integer> 0x1F </integer>", std::int64_t{31}},
      {"<integer>+7</integer>", std::int64_t{7}},
      {"<real>+infinity</real>", std::numeric_limits<double>::infinity()},
      {"<string>&#233;&#x1F34E;&lt;&amp;&gt;&quot;&apos;</string>", "é🍎<&>\"'"},
      {"<string>a<![CDATA[<b>&amp;]]><!-- c -->\r\nd</string>", "a<b>&amp;\nd"},
      {"<string/>", ""},
      {"<data>\n\tAAEC\n\t/w==\n\t</data>", Data{std::string("\0\1\2\xFF", 4)}},
      {"<!-- <true/> --><dict><key>a</key><!-- --><true/><key>a</key><false/></dict>",
       Dictionary{{"a", false}}},
      {"<array><date>2026-01-01T00:00:00Z</date><integer>9223372036854775808</integer></array>",
       Array{PropertyList(), PropertyList()}},
      {"<dict attribute=\"a>b\"><key/><array/></dict>", Dictionary{{"", Array{}}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.content);
    const auto parsed = PropertyList::parse(inPlist(c.content));
    ASSERT_TRUE(parsed) << parsed.error();
    EXPECT_TRUE(*parsed == c.expected);
    EXPECT_TRUE(PropertyList::parse(c.content).has_value());
  }
}

TEST(PropertyList, refusesMalformedXml) {
  const std::string cases[] = {
      "",
      "plain text",
      "<plist/>",
      inPlist(""),
      inPlist("<true/><true/>"),
      inPlist("<true/>") + "x",
      inPlist("<dict><true/></dict>"),
      inPlist("<dict><key>a</key></dict>"),
      inPlist("<dict><key>a</key><true/>"),
      inPlist("<array><string>a</array>"),
      inPlist("<integer>5x</integer>"),
      inPlist("<integer></integer>"),
      inPlist("<integer>--5</integer>"),
      inPlist("<real>1,5</real>"),
      inPlist("<data>A</data>"),
      inPlist("<string>&unknown;</string>"),
      inPlist("<string>&#0;</string>"),
      inPlist("<string>&#xD800;</string>"),
      inPlist("<string>\xFF</string>"),
      inPlist(std::string("<string>a\0b</string>", 20)),
      inPlist("<set/>"),
      "<plist><true/>",
      "<!-- <plist><true/></plist>",
  };
  for (const std::string& text : cases) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(PropertyList::parse(text));
  }
}

TEST(PropertyList, readsTheBinaryForm) {
  // A dictionary of every kind; its keys are the objects 0 to 8, its values 9 to 17.
  const auto parsed = PropertyList::parse(binary({
      "\x51"
      "a",
      "\x51"
      "b",
      "\x51"
      "c",
      "\x51"
      "d",
      "\x51"
      "e",
      "\x51"
      "f",
      "\x51"
      "g",
      std::string("\x61\0\xE9", 3),
      "\x51"
      "i",
      "\x09",
      "\x10\xFB",
      "\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFB",
      std::string("\x23\x3F\xF8\0\0\0\0\0\0", 9),
      std::string("\x22\x3F\xC0\0\0", 5),
      "\x42\xFF\x01",
      std::string("\x62\xD8\x3C\xDF\x4E", 5),
      "\x5F\x10\x0F"
      "fifteen letters",
      "\x80\x05",
      std::string("\xD9\0\1\2\3\4\5\6\7\x08\x09\x0A\x0B\x0C\x0D\x0E\x0F\x10\x11", 19),
  }));
  ASSERT_TRUE(parsed) << parsed.error();
  EXPECT_TRUE(*parsed == PropertyList(Dictionary{{"a", true},
                                                 {"b", std::int64_t{251}},
                                                 {"c", std::int64_t{-5}},
                                                 {"d", 1.5},
                                                 {"e", 1.5},
                                                 {"f", Data{"\xFF\x01"}},
                                                 {"g", "🍎"},
                                                 {"é", "fifteen letters"},
                                                 {"i", PropertyList()}}));
}

TEST(PropertyList, refusesDamagedAndExplosiveBinaryLists) {
  const std::string sound = binary({"\x09", std::string("\xA1\0", 2)});
  ASSERT_TRUE(PropertyList::parse(sound));
  for (std::size_t length = 0; length < sound.size(); ++length) {
    SCOPED_TRACE(length);
    EXPECT_FALSE(PropertyList::parse(sound.substr(0, length)));
  }
  // Thirty lists, each of which holds the one before twice.
  std::vector<std::string> doubling{"\x09"};
  for (char i = 0; i < 30; ++i) doubling.push_back({'\xA2', i, i});
  std::vector<std::string> nested{std::string("\xA0")};
  for (char i = 0; i < 100; ++i) nested.push_back({'\xA1', i});
  std::vector<std::string> fitting(nested.begin(), nested.begin() + 65);
  EXPECT_TRUE(PropertyList::parse(binary(fitting)));
  const std::string cases[] = {
      binary(doubling),
      binary(nested),
      binary({std::string("\xA1\0", 2)}),            // holds itself
      binary({"\xA1\x07"}),                          // of an object that is not there
      binary({"\x09", std::string("\xD1\0\0", 3)}),  // a key that is no string
      binary({"\x51\xE9"}),                          // not ASCII
      binary({"\x61\xD8\x3C"}),                      // half a surrogate pair
      binary({"\x5F\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"}),
      binary({"\xAF\x13\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF"}),
  };
  for (const std::string& bytes : cases) {
    SCOPED_TRACE(testing::PrintToString(bytes));
    EXPECT_FALSE(PropertyList::parse(bytes));
  }
}

TEST(PropertyList, boundsDepthAndSizeOfXml) {
  const auto nested = [](std::size_t depth) {
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) text += "<array>";
    for (std::size_t i = 0; i < depth; ++i) text += "</array>";
    return text;
  };
  EXPECT_TRUE(PropertyList::parse(nested(PropertyList::maxDepth + 1)));
  EXPECT_FALSE(PropertyList::parse(nested(PropertyList::maxDepth + 2)));
  EXPECT_FALSE(PropertyList::parse(nested(200000)));
  EXPECT_FALSE(PropertyList::parse("<true/>" + std::string(PropertyList::maxBytes, ' ')));
}

}  // namespace
}  // namespace vesko
