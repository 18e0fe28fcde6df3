// Text and keys typed into real GTK, Qt and xterm windows.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "base/utf8.h"
#include "desktop.h"
#include "platform/linux/x11_pasteboard.h"
#include "platform/linux/xtest_input.h"
#include "tools/input_control.h"

namespace vesko {
namespace {

using test::escaped;
using test::outputOf;
using test::Program;

// One of every kind: ASCII with shift, Latin, combining marks, CJK, right to left, emoji with skin
// tone, joined and flag emoji, and symbols that have a legacy key symbol as well as a Unicode one.
const std::string mixed =
    "Hello, World! ~`{}|\\ \"q\" 'a' <b> 100% #1 @me *x* (y)_+-=\n"
    "\tÄpfel & Größe für 5 € – naïve café, cafe\u0301 e\u0302\n"
    "Привет мир, Ελληνικά, עברית\n"
    "日本語 中文字 한국어 かな\n"
    "😀👍🏽👨‍👩‍👧‍👦🇩🇪❤️ √∞≠≤\n"
    "aaaa ÄÄÄÄ 😀😀😀 日日 bookkeeper\n";

// More different characters than a keyboard has unused keys: several batches are needed.
std::string manyCharacters() {
  std::string text;
  for (char32_t c = 0x4E00; c < 0x4E00 + 220; ++c) {
    appendUtf8(text, c);
    if (c % 20 == 0) text += "\n";
    if (c % 7 == 0) text += "ab";
  }
  for (char32_t c = 0x1F600; c < 0x1F600 + 60; ++c) appendUtf8(text, c);
  return text;
}

class TypingTest : public testing::Test {
 protected:
  static std::string app(const std::string& name) { return std::string(VESKO_APPS) + "/" + name; }

  void expectText(Program& program, const std::string& text) {
    const bool arrived = program.waitForLine("text " + escaped(text));
    EXPECT_TRUE(arrived) << "wanted: " << escaped(text) << "\n   got: " << program.lastLine();
  }
  bool type(const std::string& text) { return input.type({text, {}}).has_value(); }

  std::string clipboard() {
    const auto answer = input.clipboardGet();
    return answer ? answer->text : "(" + answer.error().message() + ")";
  }

  XTestInput events;
  X11Pasteboard pasteboard;
  InputControl input{events, pasteboard};
};

struct Toolkit {
  const char* name;
  std::vector<std::string> command;
};

class ToolkitTest : public TypingTest, public testing::WithParamInterface<Toolkit> {
 protected:
  std::vector<std::string> command() const {
    auto result = GetParam().command;
    result[0] = app(result[0]);
    return result;
  }
};

TEST_P(ToolkitTest, MixedTextArrivesIntact) {
  Program program(command());
  ASSERT_TRUE(program.waitReady());
  ASSERT_TRUE(type(mixed));
  expectText(program, mixed);
  ASSERT_TRUE(type(mixed));
  expectText(program, mixed + mixed);
}

TEST_P(ToolkitTest, MoreCharactersThanUnusedKeysArriveIntact) {
  Program program(command());
  ASSERT_TRUE(program.waitReady());
  ASSERT_TRUE(type(manyCharacters()));
  expectText(program, manyCharacters());
}

TEST_P(ToolkitTest, ApplicationThatIsStoppedGetsItsTextLater) {
  Program program(command());
  ASSERT_TRUE(program.waitReady());
  program.signal(SIGSTOP);
  ASSERT_TRUE(type(mixed));
  ASSERT_TRUE(type("日本語!"));
  program.signal(SIGCONT);
  expectText(program, mixed + "日本語!");
}

TEST_P(ToolkitTest, KeysAreNotUsedAnewBeforeAStoppedApplicationReadThem) {
  const std::string before = outputOf({"xmodmap", "-pke"});
  Program program(command());
  ASSERT_TRUE(program.waitReady());
  program.signal(SIGSTOP);
  bool typed = false;
  std::thread typing([&] { typed = type(manyCharacters()); });
  // The first batch is in place, the second needs the same keys.
  EXPECT_TRUE(test::eventually([&] { return outputOf({"xmodmap", "-pke"}) != before; }));
  program.signal(SIGCONT);
  typing.join();
  EXPECT_TRUE(typed);
  expectText(program, manyCharacters());
}

TEST_P(ToolkitTest, PasteLeavesItsTextOnTheClipboard) {
  Program program(command());
  ASSERT_TRUE(program.waitReady());
  ASSERT_TRUE(input.type({mixed, "paste"}).has_value());
  expectText(program, mixed);
  EXPECT_EQ(clipboard(), mixed);
}

TEST_P(ToolkitTest, ShortcutsSelectCopyAndDelete) {
  Program program(command());
  ASSERT_TRUE(program.waitReady());
  ASSERT_TRUE(type("ab"));
  expectText(program, "ab");
  ASSERT_TRUE(input.hotkey({{"command", "a"}}).has_value());
  ASSERT_TRUE(input.hotkey({{"command", "x"}}).has_value());
  expectText(program, "");
  EXPECT_EQ(clipboard(), "ab");
  ASSERT_TRUE(input.hotkey({{"command", "v"}}).has_value());
  expectText(program, "ab");
  ASSERT_TRUE(input.key({"arrow_left", {}}).has_value());
  ASSERT_TRUE(input.key({"delete", {}}).has_value());
  expectText(program, "b");
  ASSERT_TRUE(input.key({"+", {}}).has_value());
  expectText(program, "+b");
  ASSERT_TRUE(input.key({"forward_delete", {}}).has_value());
  expectText(program, "+");
}

TEST_P(ToolkitTest, TheClipboardMayChangeOnceAPasteHasReturned) {
  Program program(command());
  ASSERT_TRUE(program.waitReady());
  std::string expected;
  for (int round = 0; round < 10; ++round) {
    ASSERT_TRUE(input.type({"pasted日 ", "paste"}).has_value());
    ASSERT_TRUE(input.clipboardSet({"another text"}).has_value());
    expected += "pasted日 ";
  }
  expectText(program, expected);
}

INSTANTIATE_TEST_SUITE_P(Toolkits, ToolkitTest,
                         testing::Values(Toolkit{"Gtk3", {"input_app_gtk3", "text"}},
                                         Toolkit{"Gtk4", {"input_app_gtk4"}},
                                         Toolkit{"Qt5", {"input_app_qt5"}}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(TypingTest, KeystrokesLeaveTheClipboardAlone) {
  ASSERT_TRUE(pasteboard.setText("kept"));
  Program program({app("input_app_gtk3"), "text"});
  ASSERT_TRUE(program.waitReady());
  ASSERT_TRUE(type(mixed));
  expectText(program, mixed);
  EXPECT_EQ(pasteboard.text(), "kept");
}

TEST_F(TypingTest, LineFeedInAnEntryIsReturn) {
  Program program({app("input_app_gtk3"), "entry"});
  ASSERT_TRUE(program.waitReady());
  ASSERT_TRUE(type("你好\r\n"));
  expectText(program, "你好");
  EXPECT_TRUE(program.waitForLine("activated"));
}

TEST_F(TypingTest, HeldAndLockedModifiersDoNotChangeTextAndComeBack) {
  struct Case {
    const char* key;
    std::vector<std::string> hold;
    std::vector<std::string> letGo;
    const char* afterwards;
  };
  const Case cases[] = {
      {"Shift_L", {"keydown", "Shift_L"}, {"keyup", "Shift_L"}, "X"},
      {"Caps_Lock", {"key", "Caps_Lock"}, {"key", "Caps_Lock"}, "X"},
      {"ISO_Level3_Shift", {"keydown", "ISO_Level3_Shift"}, {"keyup", "ISO_Level3_Shift"}, "x"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    Program program({app("input_app_gtk3"), "text"});
    ASSERT_TRUE(program.waitReady());
    outputOf({"xdotool", c.hold[0], c.hold[1]});
    ASSERT_TRUE(type("aBc 日Ä!"));
    expectText(program, "aBc 日Ä!");
    // Keycode 53 is the letter X: what it makes shows whether the user's modifier is back.
    outputOf({"xdotool", "key", "--delay", "0", "53"});
    outputOf({"xdotool", c.letGo[0], c.letGo[1]});
    expectText(program, std::string("aBc 日Ä!") + c.afterwards);
  }
}

class Layout {
 public:
  explicit Layout(const std::string& name) { outputOf({"setxkbmap", "-layout", name}); }
  ~Layout() { outputOf({"setxkbmap", "-layout", "us"}); }
};

TEST_F(TypingTest, OtherLayoutsTypeTheSameTextAndShortcuts) {
  for (const char* name : {"de", "fr", "us,ru", "ru,us"}) {
    SCOPED_TRACE(name);
    const Layout layout(name);
    Program program({app("input_app_gtk3"), "text"});
    ASSERT_TRUE(program.waitReady());
    ASSERT_TRUE(type(mixed));
    expectText(program, mixed);
    ASSERT_TRUE(input.hotkey({{"command", "a"}}).has_value());
    ASSERT_TRUE(input.hotkey({{"command", "x"}}).has_value());
    expectText(program, "");
    EXPECT_EQ(clipboard(), mixed);
  }
}

TEST_F(TypingTest, KeymapIsAsBeforeOnceTheServiceIsGone) {
  const std::string before = outputOf({"xmodmap", "-pke"});
  {
    Program program({app("input_app_gtk3"), "text"});
    ASSERT_TRUE(program.waitReady());
    XTestInput other;
    InputControl control(other, pasteboard);
    ASSERT_TRUE(control.type({mixed, {}}).has_value());
    EXPECT_NE(outputOf({"xmodmap", "-pke"}), before);
    expectText(program, mixed);
  }
  EXPECT_EQ(outputOf({"xmodmap", "-pke"}), before);
}

TEST_F(TypingTest, KeysThatACrashLeftBehindAreTakenOver) {
  const std::string before = outputOf({"xmodmap", "-pke"});
  // In a program of its own, as it starts threads; no destructor runs, as in a crash.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        XTestInput dying;
        InputControl control(dying, pasteboard);
        ::_exit(control.type({"日本語", {}}).has_value() ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
  ASSERT_NE(outputOf({"xmodmap", "-pke"}), before);
  {
    XTestInput next;
    InputControl control(next, pasteboard);
    ASSERT_TRUE(control.type({"é", {}}).has_value());
  }
  EXPECT_EQ(outputOf({"xmodmap", "-pke"}), before);
}

TEST_F(TypingTest, TerminalGetsText) {
  const std::string path =
      (std::filesystem::temp_directory_path() / ("vesko-typed-" + std::to_string(getpid())))
          .string();
  const Program program({"xterm", "-u8", "-T", "vesko terminal", "-e", "sh", "-c",
                         "stty raw -echo; printf 'ready\\n' >" + path + "; exec cat >>" + path});
  const auto contents = [&] {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  const std::string ready = "ready\n";
  ASSERT_TRUE(test::eventually([&] {
    return contents() == ready &&
           outputOf({"xdotool", "getwindowfocus", "getwindowname"}) == "vesko terminal\n";
  }));
  const std::string text = "ls -l \"a b\" | grep 'Ä€' 日本語😀";
  ASSERT_TRUE(type(text + "\n"));
  std::string wanted = ready + text + "\r";
  EXPECT_TRUE(test::eventually([&] { return contents() == wanted; })) << escaped(contents());
  std::string many = manyCharacters();
  ASSERT_TRUE(type(many));
  std::ranges::replace(many, '\n', '\r');
  wanted += many;
  EXPECT_TRUE(test::eventually([&] { return contents() == wanted; })) << escaped(contents());
  std::filesystem::remove(path);
}

TEST_F(TypingTest, CharactersThatNoKeyTypesAreRefused) {
  EXPECT_EQ(input.type({std::string("a\x01", 2), {}}).error().message(),
            "could not create input event");
}

}  // namespace
}  // namespace vesko
