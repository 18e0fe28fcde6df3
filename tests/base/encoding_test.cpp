#include <gtest/gtest.h>

#include <set>

#include "base/base64.h"
#include "base/digest.h"
#include "base/utf8.h"

namespace vesko {
namespace {

std::span<const std::byte> bytesOf(std::string_view text) {
  return std::as_bytes(std::span(text));
}

TEST(Base64, followsTheVectorsOfRfc4648) {
  const struct {
    std::string_view plain;
    const char* packed;
    const char* urlSafe;
  } cases[] = {
      {"", "", ""},
      {"f", "Zg==", "Zg"},
      {"fo", "Zm8=", "Zm8"},
      {"foo", "Zm9v", "Zm9v"},
      {"foob", "Zm9vYg==", "Zm9vYg"},
      {"foobar", "Zm9vYmFy", "Zm9vYmFy"},
      {"\xFB\xEF\xFF", "++//", "--__"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.packed);
    std::string packed = "kept:";
    appendBase64(packed, bytesOf(c.plain));
    EXPECT_EQ(packed, std::string("kept:") + c.packed);
    EXPECT_EQ(decodeBase64(c.packed), c.plain);
    EXPECT_EQ(base64UrlEncode(bytesOf(c.plain)), c.urlSafe);
  }
}

TEST(Base64, carriesEveryByteAtEveryLength) {
  std::string plain;
  for (int i = 0; i < 600; ++i) {
    std::string packed;
    appendBase64(packed, bytesOf(plain));
    ASSERT_EQ(decodeBase64(packed), plain);
    plain += static_cast<char>(i * 7);
  }
}

TEST(Base64, refusesWhatIsNotCanonical) {
  for (const char* text : {"Z", "Zg", "Zg=", "Zg===", "=", "====", "Zh==", "Zm9=", "Zm 8=",
                           "Zg==Zg==", "Zm9v\n", "-_8=", "Z=g=", "\xC3\xA9=="}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(decodeBase64(text), std::nullopt);
  }
}

TEST(Digest, agreesWithPublishedVectors) {
  EXPECT_EQ(sha256Hex(bytesOf("")),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(sha256Hex(bytesOf("abc")),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(hexLower(bytesOf(std::string_view("\0\x0F\xF0\xFF", 4))), "000ff0ff");
}

TEST(Digest, makesUuidsOfVersionFour) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const std::string uuid = randomUuid();
    ASSERT_EQ(uuid.size(), 36U);
    for (std::size_t at = 0; at < uuid.size(); ++at) {
      const bool dash = at == 8 || at == 13 || at == 18 || at == 23;
      EXPECT_EQ(uuid[at] == '-', dash) << uuid;
      if (!dash) EXPECT_NE(std::string_view("0123456789ABCDEF").find(uuid[at]), std::string::npos);
    }
    EXPECT_EQ(uuid[14], '4');
    EXPECT_NE(std::string_view("89AB").find(uuid[19]), std::string::npos);
    EXPECT_TRUE(seen.insert(uuid).second);
  }
}

TEST(Digest, comparesWholeTexts) {
  EXPECT_TRUE(constantTimeEqual("", ""));
  EXPECT_TRUE(constantTimeEqual("token", "token"));
  for (const char* other : {"", "toke", "tokens", "Token", "tokeN"})
    EXPECT_FALSE(constantTimeEqual("token", other)) << other;
  EXPECT_FALSE(constantTimeEqual("a", std::string_view("a\0", 2)));
}

TEST(Utf8, knowsWellFormedSequences) {
  const struct {
    std::string_view bytes;
    bool valid;
  } cases[] = {
      {"", true},
      {"plain", true},
      {std::string_view("\0", 1), true},
      {"\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80", true},
      {"\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", true},
      {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", true},
      {"\x80", false},
      {"\xC0\xAF", false},  // overlong
      {"\xC1\xBF", false},
      {"\xE0\x9F\xBF", false},
      {"\xF0\x8F\xBF\xBF", false},
      {"\xED\xA0\x80", false},  // surrogate
      {"\xED\xBF\xBF", false},
      {"\xF4\x90\x80\x80", false},  // beyond U+10FFFF
      {"\xF5\x80\x80\x80", false},
      {"\xFF", false},
      {"\xC3", false},  // cut off
      {"\xE2\x82", false},
      {"\xF0\x9F\x8D", false},
      {"\xC3x", false},
      {"\xE2\x82x", false},
  };
  for (const auto& c : cases) {
    // At every place of the blocks that are taken at once.
    for (std::size_t lead = 0; lead < 34; ++lead) {
      for (const std::size_t tail : {std::size_t{0}, std::size_t{17}}) {
        const std::string text =
            std::string(lead, 'a') + std::string(c.bytes) + std::string(tail, 'b');
        const bool cutOff = !c.valid && tail == 0;
        SCOPED_TRACE(testing::PrintToString(text) + (cutOff ? " at the end" : ""));
        ASSERT_EQ(isValidUtf8(text), c.valid);
        ASSERT_EQ(decodeUtf8(text).has_value(), c.valid);
      }
    }
  }
}

TEST(Utf8, convertsBothWaysAndCutsBetweenCharacters) {
  const std::string text = "aé€🍎";
  EXPECT_EQ(decodeUtf8(text), U"aé€🍎");
  std::string back;
  for (const char32_t c : U"aé€🍎") {
    if (c) appendUtf8(back, c);
  }
  EXPECT_EQ(back, text);
  const char* prefixes[] = {"", "a", "aé", "aé€", "aé€🍎", "aé€🍎"};
  for (std::size_t count = 0; count < 6; ++count)
    EXPECT_EQ(utf8Prefix(text, count), prefixes[count]);
}

}  // namespace
}  // namespace vesko
