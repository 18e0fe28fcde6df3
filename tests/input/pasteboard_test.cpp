// The clipboard against xclip and against owners that misbehave.
#include "platform/linux/x11_connection.h"
#include "platform/linux/x11_pasteboard.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "desktop.h"

namespace vesko {
namespace {

using namespace std::chrono_literals;
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

/// Owns the clipboard with a text that has no end: a byte whenever the reader asks for more.
class EndlessOwner {
 public:
  EndlessOwner() : c_(x11_.get()), window_(xcb_generate_id(c_)) {
    xcb_create_window(c_, XCB_COPY_FROM_PARENT, window_, x11_.root(), 0, 0, 1, 1, 0,
                      XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, 0, nullptr);
    xcb_set_selection_owner(c_, window_, x11_.atom("CLIPBOARD"), XCB_CURRENT_TIME);
    incr_ = x11_.atom("INCR");
    xcb_flush(c_);
    thread_ = std::jthread([this](const std::stop_token& stop) { serve(stop); });
  }

 private:
  void serve(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      const auto event = nextEvent(c_, std::chrono::steady_clock::now() + 20ms);
      if (!event) continue;
      const int kind = event->response_type & 0x7F;
      if (kind == XCB_SELECTION_REQUEST) {
        begin(reinterpret_cast<const xcb_selection_request_event_t&>(*event));
      } else if (kind == XCB_PROPERTY_NOTIFY) {
        const auto& taken = reinterpret_cast<const xcb_property_notify_event_t&>(*event);
        if (taken.state == XCB_PROPERTY_DELETE) put(taken.window, taken.atom, type_, 8, "x");
      }
    }
  }

  void begin(const xcb_selection_request_event_t& request) {
    const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_change_window_attributes(c_, request.requestor, XCB_CW_EVENT_MASK, &events);
    type_ = request.target;
    const std::uint32_t least = 1;
    put(request.requestor, request.property, incr_, 32, &least);
    xcb_selection_notify_event_t notify{};
    notify.response_type = XCB_SELECTION_NOTIFY;
    notify.requestor = request.requestor;
    notify.selection = request.selection;
    notify.target = request.target;
    notify.property = request.property;
    xcb_send_event(c_, 0, request.requestor, 0, reinterpret_cast<const char*>(&notify));
  }

  void put(xcb_window_t window, xcb_atom_t property, xcb_atom_t type, std::uint8_t format,
           const void* one) {
    xcb_change_property(c_, XCB_PROP_MODE_REPLACE, window, property, type, format, 1, one);
  }

  X11Connection x11_;
  xcb_connection_t* c_;
  xcb_window_t window_;
  xcb_atom_t incr_ = XCB_ATOM_NONE;
  xcb_atom_t type_ = XCB_ATOM_NONE;
  std::jthread thread_;
};

TEST_F(PasteboardTest, TextWithoutAnEndIsGivenUp) {
  X11Pasteboard impatient(100ms);
  {
    const EndlessOwner endless;
    EXPECT_EQ(impatient.text(), std::nullopt);
  }
  copyElsewhere("after it");
  EXPECT_EQ(impatient.text(), "after it");
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
