// Typing while the user holds keys of a hardware keyboard, and beside an application that hangs.
#include <gtest/gtest.h>
#include <signal.h>
#include <xcb/xinput.h>
#include <xcb/xtest.h>

#include <string>
#include <string_view>
#include <thread>

#include "base/utf8.h"
#include "desktop.h"
#include "platform/linux/x11_connection.h"
#include "platform/linux/x11_pasteboard.h"
#include "platform/linux/xtest_input.h"
#include "tools/input_control.h"

namespace vesko {
namespace {

using test::escaped;
using test::outputOf;
using test::Program;

constexpr xcb_keycode_t shiftLeft = 50;
constexpr xcb_keycode_t letterX = 53;

/// The user's hands on the server's keyboard device that stands for hardware.
class Hardware {
 public:
  Hardware() {
    xcb_connection_t* const c = x11_.get();
    const XcbPtr<xcb_input_list_input_devices_reply_t> list(
        xcb_input_list_input_devices_reply(c, xcb_input_list_input_devices(c), nullptr));
    const auto* devices = xcb_input_list_input_devices_devices(list.get());
    auto name = xcb_input_list_input_devices_names_iterator(list.get());
    for (; name.rem > 0; xcb_str_next(&name), ++devices) {
      const auto length = static_cast<std::size_t>(xcb_str_name_length(name.data));
      if (std::string_view(xcb_str_name(name.data), length) == "Xvfb keyboard")
        device_ = devices->device_id;
    }
    firstEvent_ = xcb_get_extension_data(c, &xcb_input_id)->first_event;
  }
  Hardware(const Hardware&) = delete;
  Hardware& operator=(const Hardware&) = delete;
  ~Hardware() { letGo(shiftLeft); }

  bool found() const { return device_ != 0; }
  void press(xcb_keycode_t key) { send(XCB_INPUT_DEVICE_KEY_PRESS, key); }
  void letGo(xcb_keycode_t key) { send(XCB_INPUT_DEVICE_KEY_RELEASE, key); }
  void strike(xcb_keycode_t key) {
    press(key);
    letGo(key);
  }

  /// What applications see, whatever device it comes from.
  bool isDown(xcb_keycode_t key) {
    xcb_connection_t* const c = x11_.get();
    const XcbPtr<xcb_query_keymap_reply_t> keys(
        xcb_query_keymap_reply(c, xcb_query_keymap(c), nullptr));
    return keys && (keys->keys[key / 8] >> (key % 8) & 1) != 0;
  }

 private:
  void send(int event, xcb_keycode_t key) {
    xcb_connection_t* const c = x11_.get();
    const auto cookie =
        xcb_test_fake_input_checked(c, static_cast<std::uint8_t>(firstEvent_ + event), key,
                                    XCB_CURRENT_TIME, XCB_NONE, 0, 0, device_);
    const XcbPtr<xcb_generic_error_t> error(xcb_request_check(c, cookie));
    EXPECT_FALSE(error);
  }

  X11Connection x11_;
  std::uint8_t device_ = 0;
  int firstEvent_ = 0;
};

// More than fit on a keyboard's unused keys at once.
std::string manySymbols(char32_t first) {
  std::string text;
  for (char32_t c = first; c < first + 220; ++c) appendUtf8(text, c);
  return text;
}

class HeldKeysTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(hardware.found()); }

  static std::vector<std::string> app() {
    return {std::string(VESKO_APPS) + "/input_app_gtk3", "text"};
  }
  bool type(const std::string& text) { return input.type({text, {}}).has_value(); }
  void expectText(Program& program, const std::string& text) {
    const bool arrived = program.waitForLine("text " + escaped(text));
    EXPECT_TRUE(arrived) << "wanted: " << escaped(text) << "\n   got: " << program.lastLine();
  }

  /// Does something in the midst of typing: the application is stopped, and the second batch of
  /// symbols has to wait for it.
  template <class Act>
  void typeMeanwhile(Program& program, const std::string& text, const Act& act) {
    const std::string before = outputOf({"xmodmap", "-pke"});
    program.signal(SIGSTOP);
    bool typed = false;
    std::thread typing([&] { typed = type(text); });
    EXPECT_TRUE(test::eventually([&] { return outputOf({"xmodmap", "-pke"}) != before; }));
    act();
    program.signal(SIGCONT);
    typing.join();
    EXPECT_TRUE(typed);
  }

  Hardware hardware;
  XTestInput events;
  X11Pasteboard pasteboard;
  InputControl input{events, pasteboard};
};

TEST_F(HeldKeysTest, AModifierHeldThroughoutIsBackAndGoesUpWithTheUsersFinger) {
  Program program(app());
  ASSERT_TRUE(program.waitReady());
  std::string text;
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    hardware.press(shiftLeft);
    ASSERT_TRUE(type("aBc"));
    hardware.strike(letterX);
    expectText(program, text += "aBcX");
    hardware.letGo(shiftLeft);
    EXPECT_FALSE(hardware.isDown(shiftLeft));
    hardware.strike(letterX);
    ASSERT_TRUE(type("Bc"));
    expectText(program, text += "xBc");
  }
}

TEST_F(HeldKeysTest, AModifierLetGoOfWhileTypingStaysUp) {
  Program program(app());
  ASSERT_TRUE(program.waitReady());
  hardware.press(shiftLeft);
  // Held and given back once before: the synthetic keyboard holds the key as well by now.
  ASSERT_TRUE(type("a"));
  ASSERT_TRUE(hardware.isDown(shiftLeft));
  const std::string many = manySymbols(0x4E00);
  typeMeanwhile(program, many, [&] {
    EXPECT_FALSE(hardware.isDown(shiftLeft));
    hardware.letGo(shiftLeft);
  });
  EXPECT_FALSE(hardware.isDown(shiftLeft));
  hardware.strike(letterX);
  expectText(program, "a" + many + "x");
}

TEST_F(HeldKeysTest, AModifierThatAProgramHoldsComesBack) {
  Program program(app());
  ASSERT_TRUE(program.waitReady());
  outputOf({"xdotool", "keydown", "Shift_L"});
  ASSERT_TRUE(type("aBc"));
  ASSERT_TRUE(type("d"));
  EXPECT_TRUE(hardware.isDown(shiftLeft));
  outputOf({"xdotool", "keyup", "Shift_L"});
  EXPECT_FALSE(hardware.isDown(shiftLeft));
  expectText(program, "aBcd");
}

TEST_F(HeldKeysTest, AHungApplicationKeepsItsSymbolsAndDoesNotHoldUpOthers) {
  Program hung(app());
  ASSERT_TRUE(hung.waitReady());
  hung.signal(SIGSTOP);
  ASSERT_TRUE(type("日本語"));
  Program other(app());
  ASSERT_TRUE(other.waitReady());
  ASSERT_TRUE(type(manySymbols(0x4E00)));
  expectText(other, manySymbols(0x4E00));
  ASSERT_TRUE(type(manySymbols(0x5000)));
  expectText(other, manySymbols(0x4E00) + manySymbols(0x5000));
  hung.signal(SIGCONT);
  expectText(hung, "日本語");
}

}  // namespace
}  // namespace vesko
