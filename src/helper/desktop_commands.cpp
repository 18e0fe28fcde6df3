#include "helper/desktop_commands.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

#include "base/base64.h"
#include "base/file.h"
#include "base/text.h"
#include "helper/command_session.h"
#include "helper/key_combination.h"

namespace vesko {
namespace {

using json::Object;
using json::Value;

int displays(CommandSession& session) {
  const auto answer = session.call("POST", "/displays");
  if (!answer) return answer.error();
  if (session.json()) return session.printJson(*answer);
  const Value* list = answer->find("displays");
  std::string text;
  for (const Value& display : list && list->asArray() ? *list->asArray() : json::Array()) {
    const Value* primary = display.find("primary");
    text += fmt::format("{}  {}x{}  scale {}{}\n", plainText(display.find("id")),
                        plainText(display.find("width")), plainText(display.find("height")),
                        plainText(display.find("scale")),
                        primary && primary->asBool() == true ? "  main" : "");
  }
  return session.print(text);
}

std::optional<Value> parseRegion(std::string_view text) {
  const auto parts = json::parse(fmt::format("[{}]", text));
  const json::Array* numbers = parts ? parts->asArray() : nullptr;
  if (!numbers || numbers->size() != 4 ||
      !std::ranges::all_of(*numbers, [](const Value& v) { return v.asDouble().has_value(); }))
    return std::nullopt;
  return Object{
      {"x", (*numbers)[0]}, {"y", (*numbers)[1]}, {"w", (*numbers)[2]}, {"h", (*numbers)[3]}};
}

/// What is no file, as /dev/null, is not to be replaced by one.
int writePicture(CommandSession& session, const std::string& file, std::string_view content) {
  std::error_code ignored;
  const auto there = std::filesystem::status(file, ignored);
  const bool special = std::filesystem::exists(there) && !std::filesystem::is_regular_file(there);
  // A picture of the screen, or of somebody's life, is nobody else's business.
  const auto written = special ? writeInto(file, content) : replaceFile(file, content, 0600);
  if (written) return exitOk;
  return session.fail(exitFailed, "output",
                      fmt::format("cannot write {}: {}", file, written.error().message()));
}

int capture(CommandSession& session) {
  const Invocation& given = session.invocation();
  const std::string& file = session.argument(0);
  const bool toOutput = file == "-";
  if (given.has("window") && (given.has("display") || given.has("region")))
    return session.usageError("--window goes without --display and --region");
  if (toOutput && session.json())
    return session.usageError("--json and - both write to standard output");
  if (toOutput && ::isatty(STDOUT_FILENO))
    return session.usageError("will not write an image to a terminal");

  Object body{{"target", given.has("window")   ? "window"
                         : given.has("region") ? "region"
                                               : "display"}};
  if (const auto display = given.value("display")) body.emplace_back("display_id", *display);
  for (const auto& [option, key] :
       {std::pair{"window", "window_id"}, std::pair{"max-dim", "max_dim"}}) {
    const auto text = given.value(option);
    if (!text) continue;
    const auto number = parseDecimal(*text);
    if (!number) return session.usageError(fmt::format("--{} takes a whole number", option));
    body.emplace_back(key, *number);
  }
  if (const auto text = given.value("region")) {
    auto region = parseRegion(*text);
    if (!region) return session.usageError("--region takes four numbers: X,Y,W,H");
    body.emplace_back("rect", std::move(*region));
  }
  const auto answer = session.call("POST", "/capture", std::move(body));
  if (!answer) return answer.error();
  const Value* encoded = answer->find("png_base64");
  const auto image = encoded && encoded->asString() ? decodeBase64(*encoded->asString())
                                                    : std::optional<std::string>();
  if (!image || !image->starts_with("\x89PNG\r\n\x1a\n"))
    return session.fail(exitFailed, "bad_answer", "the companion's answer holds no PNG image");
  if (toOutput) return session.print(*image);
  if (const int written = writePicture(session, file, *image); written != exitOk) return written;
  Object result{{"file", file}};
  for (const char* key : {"width", "height", "scale"}) {
    const Value* value = answer->find(key);
    result.emplace_back(key, value ? *value : Value());
  }
  if (session.json()) return session.printJson(result);
  return session.print(
      fmt::format("{}: {}x{}\n", file, plainText(&result[1].second), plainText(&result[2].second)));
}

int photo(CommandSession& session) {
  const std::string& file = session.argument(1);
  const bool toOutput = file == "-";
  if (toOutput && session.json())
    return session.usageError("--json and - both write to standard output");
  if (toOutput && ::isatty(STDOUT_FILENO))
    return session.usageError("will not write an image to a terminal");
  Object body{{"uuid", session.argument(0)}};
  if (const auto text = session.invocation().value("max-bytes")) {
    const auto number = parseDecimal(*text);
    if (!number) return session.usageError("--max-bytes takes a whole number");
    body.emplace_back("maxBytes", *number);
  }
  const auto answer = session.call("POST", "/photos/export", std::move(body));
  if (!answer) return answer.error();
  const Value* encoded = answer->find("dataBase64");
  const auto image = encoded && encoded->asString() ? decodeBase64(*encoded->asString())
                                                    : std::optional<std::string>();
  if (!image) return session.fail(exitFailed, "bad_answer", "the companion's answer holds no file");
  if (toOutput) return session.print(*image);
  if (const int written = writePicture(session, file, *image); written != exitOk) return written;
  Object result{{"file", file}};
  for (const char* key : {"mimeType", "filename", "width", "height", "transcoded"}) {
    const Value* value = answer->find(key);
    result.emplace_back(key, value ? *value : Value());
  }
  if (session.json()) return session.printJson(result);
  return session.print(fmt::format("{}: {}, {}x{}\n", file, plainText(answer->find("mimeType")),
                                   plainText(answer->find("width")),
                                   plainText(answer->find("height"))));
}

/// Numbers for the given keys, from the front of the arguments.
std::expected<Object, int> numbers(CommandSession& session,
                                   std::initializer_list<const char*> keys) {
  Object body;
  for (const char* key : keys) {
    const auto number = session.numberArgument(body.size());
    if (!number) return std::unexpected(number.error());
    body.emplace_back(key, *number);
  }
  return body;
}

int performWithNumbers(CommandSession& session, const std::string& path,
                       std::initializer_list<const char*> keys) {
  auto body = numbers(session, keys);
  return body ? session.perform(path, std::move(*body)) : body.error();
}

int move(CommandSession& session) {
  return performWithNumbers(session, "/input/move", {"x", "y"});
}

int drag(CommandSession& session) {
  return performWithNumbers(session, "/input/drag", {"from_x", "from_y", "to_x", "to_y"});
}

int scroll(CommandSession& session) {
  return performWithNumbers(session, "/input/scroll", {"dx", "dy"});
}

int click(CommandSession& session) {
  Object body;
  const std::size_t count = session.invocation().arguments.size();
  if (count == 1) return session.usageError("click takes both coordinates or none");
  if (count == 2) {
    auto point = numbers(session, {"x", "y"});
    if (!point) return point.error();
    body = std::move(*point);
  }
  if (const auto button = session.invocation().value("button"))
    body.emplace_back("button", *button);
  if (const auto text = session.invocation().value("count")) {
    const auto times = parseDecimal(*text);
    if (!times) return session.usageError("--count takes a whole number");
    body.emplace_back("count", *times);
  }
  return session.perform("/input/click", std::move(body));
}

int type(CommandSession& session) {
  auto text = session.textArgument(0);
  if (!text) return text.error();
  const char* method = session.invocation().has("paste") ? "paste" : "keystroke";
  return session.perform("/input/type", {{"text", std::move(*text)}, {"method", method}});
}

int key(CommandSession& session) {
  Object body{{"key", session.argument(0)}};
  const auto modifiers = session.invocation().options.find("modifier");
  if (modifiers != session.invocation().options.end()) {
    json::Array names;
    for (const std::string& name : modifiers->second) names.emplace_back(fullModifierName(name));
    body.emplace_back("modifiers", std::move(names));
  }
  return session.perform("/input/key", std::move(body));
}

int hotkey(CommandSession& session) {
  std::string text;
  for (const std::string& word : session.invocation().arguments) text += word + " ";
  const auto words = parseKeyCombination(text);
  if (!words) return session.usageError("a combination ends in a key, as in ctrl+s");
  return session.perform("/input/hotkey", {{"combo", json::Array(words->begin(), words->end())}});
}

int clipboardGet(CommandSession& session) {
  const auto answer = session.call("POST", "/clipboard/get");
  if (!answer) return answer.error();
  if (session.json()) return session.printJson(*answer);
  const Value* text = answer->find("text");
  if (!text || !text->asString())
    return session.fail(exitFailed, "bad_answer", "the companion's answer holds no text");
  const bool lineEnd = ::isatty(STDOUT_FILENO) && !text->asString()->ends_with('\n');
  return session.print(*text->asString() + (lineEnd ? "\n" : ""));
}

int clipboardSet(CommandSession& session) {
  auto text = session.textArgument(0);
  if (!text) return text.error();
  return session.perform("/clipboard/set", {{"text", std::move(*text)}});
}

constexpr OptionEntry captureOptions[] = {
    {"display", "ID", "the display to capture (the main one)"},
    {"window", "NUMBER", "capture one window"},
    {"region", "X,Y,W,H", "capture a part of the display, in points from its top left"},
    {"max-dim", "PIXELS", "longest side of the image (1600)"},
};
constexpr OptionEntry photoOptions[] = {
    {"max-bytes", "NUMBER", "how long the file may be (4500000)"},
};
constexpr OptionEntry clickOptions[] = {
    {"button", "left|right", "the button (left)"},
    {"count", "1|2", "2 for a double click (1)"},
};
constexpr OptionEntry typeOptions[] = {
    {"paste", "", "by way of the clipboard, where the text then stays"},
};
constexpr OptionEntry keyOptions[] = {
    {"modifier", "NAME", "command, shift, option or control; may be repeated", true},
};

constexpr CommandEntry commands[] = {
    {"displays", "", 0, 0, "list the displays", {}, displays},
    {"capture", "FILE.png|-", 1, 1,
     "take a picture of the screen\nThe file is replaced in one step; - writes the image to "
     "standard "
     "output.",
     captureOptions, capture},
    {"photo", "UUID FILE|-", 2, 2,
     "fetch a picture of the photo library\nThe file as it is where it is short enough and of a "
     "type for the web, else a JPEG. It is\nreplaced in one step; - writes it to standard output.",
     photoOptions, photo},
    {"move", "X Y", 2, 2, "move the pointer", {}, move},
    {"click", "[X Y]", 0, 2, "click, where the pointer is or at a point", clickOptions, click},
    {"drag", "FROM_X FROM_Y TO_X TO_Y", 4, 4, "drag with the left button", {}, drag},
    {"scroll", "DX DY", 2, 2, "turn the wheel, in pixels", {}, scroll},
    {"type", "TEXT|-", 1, 1,
     "type a text\nWith - the text comes from standard input and shows in no list of processes.",
     typeOptions, type},
    {"key", "NAME", 1, 1,
     "press a key\nA letter, a digit, a sign such as + or ;, or one of: return, tab, space, "
     "delete,\n"
     "forward_delete, escape, home, end, page_up, page_down, arrow_left, arrow_right, arrow_up,\n"
     "arrow_down, f1 to f12.",
     keyOptions, key},
    {"hotkey",
     "COMBINATION...",
     1,
     8,
     "press a combination such as ctrl+s or command shift z",
     {},
     hotkey},
    {"clipboard get", "", 0, 0, "show the clipboard's text", {}, clipboardGet},
    {"clipboard set",
     "[TEXT|-]",
     0,
     1,
     "put a text on the clipboard\nWithout TEXT, or with -, it comes from standard input.",
     {},
     clipboardSet},
};

}  // namespace

std::span<const CommandEntry> desktopCommands() {
  return commands;
}

}  // namespace vesko
