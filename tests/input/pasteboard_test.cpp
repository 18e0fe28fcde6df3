// The clipboard against xclip and against owners that misbehave.
#include "platform/linux/x11_connection.h"
#include "platform/linux/x11_pasteboard.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "desktop.h"

namespace vesko {
namespace {

using test::outputOf;
using test::Program;

// Text that is no repetition, so that lost, doubled or swapped pieces show.
std::string longText(std::size_t bytes) {
  std::string text;
  for (std::size_t i = 0; text.size() < bytes; ++i) text += std::to_string(i) + " Ä日😀\n";
  return text;
}

std::string clipboardOf(const std::string& target) {
  return outputOf({"xclip", "-selection", "clipboard", "-o", "-t", target});
}

xcb_window_t owner() {
  X11Connection x11;
  xcb_connection_t* const c = x11.get();
  const XcbPtr<xcb_get_selection_owner_reply_t> reply(
      xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, x11.atom("CLIPBOARD")), nullptr));
  return reply ? reply->owner : XCB_NONE;
}

void copyElsewhere(const std::string& text, const char* target = "UTF8_STRING") {
  // xclip stays behind as the owner and ends when it loses the selection; it goes there before it
  // has it.
  const xcb_window_t before = owner();
  outputOf({"sh", "-c", std::string("xclip -selection clipboard -i -t ") + target + " >/dev/null"},
           text);
  ASSERT_TRUE(test::eventually([&] { return owner() != before; }));
}

class PasteboardTest : public testing::Test {
 protected:
  X11Pasteboard pasteboard;
};

TEST_F(PasteboardTest, TextsOfAllLengthsGoBothWays) {
  for (const std::size_t size : {0U, 1U, 262'143U, 262'144U, 262'145U, 3'000'000U}) {
    SCOPED_TRACE(size);
    const std::string text = size < 2 ? std::string(size, 'x') : longText(size);
    ASSERT_TRUE(pasteboard.setText(text));
    EXPECT_TRUE(pasteboard.text() == text) << "own";
    EXPECT_TRUE(clipboardOf("UTF8_STRING") == text) << "to xclip";
    copyElsewhere(text + "!");
    EXPECT_TRUE(pasteboard.text() == text + "!") << "from xclip";
  }
}

TEST_F(PasteboardTest, OffersTheUsualForms) {
  ASSERT_TRUE(pasteboard.setText("Größe 日"));
  EXPECT_EQ(clipboardOf("text/plain;charset=utf-8"), "Größe 日");
  EXPECT_EQ(clipboardOf("STRING"),
            "Gr\xF6\xDF"
            "e ?");
  const std::string targets = clipboardOf("TARGETS");
  for (const char* target : {"TARGETS", "TIMESTAMP", "MULTIPLE", "UTF8_STRING", "STRING"})
    EXPECT_NE(targets.find(target), std::string::npos) << target;
  EXPECT_EQ(clipboardOf("image/png"), "");
}

TEST_F(PasteboardTest, ReadsOwnersThatOnlyKnowLatin1) {
  copyElsewhere(
      "Gr\xF6\xDF"
      "e",
      "STRING");
  EXPECT_EQ(pasteboard.text(), "Größe");
}

TEST_F(PasteboardTest, LosesAndRegainsTheSelection) {
  for (int round = 0; round < 20; ++round) {
    ASSERT_TRUE(pasteboard.setText("ours"));
    EXPECT_EQ(clipboardOf("UTF8_STRING"), "ours");
    copyElsewhere("theirs");
    EXPECT_EQ(pasteboard.text(), "theirs");
  }
}

TEST_F(PasteboardTest, NothingToReadIsNothing) {
  ASSERT_TRUE(X11Pasteboard().setText("gone with its owner"));
  EXPECT_EQ(pasteboard.text(), std::nullopt);
  copyElsewhere("PNG", "image/png");
  EXPECT_EQ(pasteboard.text(), std::nullopt);
  copyElsewhere("not UTF-8: \xFF");
  EXPECT_EQ(pasteboard.text(), std::nullopt);
}

TEST_F(PasteboardTest, OwnerThatDoesNotAnswerIsGivenUp) {
  X11Pasteboard impatient(std::chrono::seconds(1));
  Program xclip({"xclip", "-selection", "clipboard", "-i", "-quiet"}, "late");
  ASSERT_TRUE(test::eventually([&] { return pasteboard.text() == "late"; }));
  xclip.signal(SIGSTOP);
  EXPECT_EQ(impatient.text(), std::nullopt);
  xclip.signal(SIGCONT);
  // Requests are answered in their order: once this one is, the late answer is there as well and
  // must not be taken for the next.
  ASSERT_EQ(pasteboard.text(), "late");
  EXPECT_EQ(impatient.text(), "late");
}

TEST_F(PasteboardTest, LongTextThatWasGivenUpDoesNotBlockItsOwner) {
  X11Pasteboard impatient(std::chrono::milliseconds(100));
  const std::string text = longText(3'000'000);
  Program xclip({"xclip", "-selection", "clipboard", "-i", "-quiet"}, text);
  ASSERT_TRUE(test::eventually([&] { return pasteboard.text() == text; }));
  xclip.signal(SIGSTOP);
  EXPECT_EQ(impatient.text(), std::nullopt);
  xclip.signal(SIGCONT);
  EXPECT_TRUE(test::eventually([&] { return impatient.text() == text; }));
}

TEST_F(PasteboardTest, ReaderThatStopsHalfWayDisturbsNobody) {
  const std::string text = longText(3'000'000);
  ASSERT_TRUE(pasteboard.setText(text));
  for (int round = 0; round < 5; ++round) {
    const Program reader({"xclip", "-selection", "clipboard", "-o", "-t", "UTF8_STRING"});
    // Killed at the end of the scope, in the middle of its transfer or before.
  }
  EXPECT_TRUE(clipboardOf("UTF8_STRING") == text);
}

TEST_F(PasteboardTest, WorksFromSeveralThreads) {
  ASSERT_TRUE(pasteboard.setText("0"));
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        EXPECT_TRUE(pasteboard.setText(std::to_string(round)));
        EXPECT_TRUE(pasteboard.text().has_value());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(pasteboard.text(), "49");
}

}  // namespace
}  // namespace vesko
