// The words of the tools. They are read by an assistant before every task, so each says when to use
// it and nothing twice.
#include <array>

#include "helper/mcp/tool.h"

namespace vesko::mcp {
namespace {

constexpr std::string_view outcome =
    R"({"type":"object","properties":{"outcome":{"enum":["confirmed","unchanged","not_verifiable"]},)"
    R"("detail":{"type":"string"}},"required":["outcome","detail"]})";

constexpr std::string_view elementsFound =
    R"({"type":"object","properties":{"elements":{"type":"array","items":{"type":"object",)"
    R"("properties":{"role":{"type":"string"},"title":{"type":"string"},"value":{"type":"string"},)"
    R"("element":{"type":"string"}}}}},"required":["elements"]})";

constexpr std::string_view applicationInput =
    R"({"type":"object","properties":{"bundle_id":{"type":"string","minLength":1,"maxLength":300},)"
    R"("name":{"type":"string","minLength":1,"maxLength":300}},"additionalProperties":false})";

constexpr auto table = std::to_array<ToolEntry>({
    {.name = "desktop_snapshot",
     .title = "Read the screen's elements",
     .description =
         "Reads a window, an application or one element as a tree: the first thing to do, and the "
         "way to see what an action led to. One element a line: role \"title\" =\"value\" states "
         "x,y WxH [reference]; coordinates are screen points. Give references to other tools. "
         "Without arguments: the window in front.",
     .inputSchema =
         R"({"type":"object","properties":{)"
         R"("scope":{"enum":["frontmost_window","focused_app","app","system"]},)"
         R"("bundle_id":{"type":"string","maxLength":300,"description":"for scope app"},)"
         R"("element":{"type":"string","maxLength":100000,"description":"only this element and what it holds"},)"
         R"("max_nodes":{"type":"integer","minimum":1,"maximum":2000,"default":400},)"
         R"("include_offscreen":{"type":"boolean"},)"
         R"("format":{"enum":["text","json"]},)"
         R"("paths":{"type":"boolean","description":"also whole paths, which outlive this server"}},)"
         R"("additionalProperties":false})",
     .outputSchema = {},
     .acts = false,
     .destructive = false,
     .idempotent = true,
     .run = desktopSnapshot},
    {.name = "find_elements",
     .title = "Find elements",
     .description = "Finds elements of an application (the one in front without bundle_id) by role "
                    "as AXButton, or by text within title or value, in any case. Cheaper than a "
                    "snapshot when you know what you look for.",
     .inputSchema =
         R"({"type":"object","properties":{)"
         R"("bundle_id":{"type":"string","maxLength":300},"role":{"type":"string","maxLength":100},)"
         R"("title":{"type":"string","maxLength":1000},"value_contains":{"type":"string","maxLength":1000},)"
         R"("near_point":{"type":"object","properties":{"x":{"type":"number"},"y":{"type":"number"}},)"
         R"("required":["x","y"],"additionalProperties":false},)"
         R"("limit":{"type":"integer","minimum":1,"maximum":100,"default":20},)"
         R"("paths":{"type":"boolean"}},"additionalProperties":false})",
     .outputSchema = elementsFound,
     .acts = false,
     .destructive = false,
     .idempotent = true,
     .run = findElements},
    {.name = "wait_for_element",
     .title = "Wait for an element",
     .description = "Waits until an element as in find_elements is there, or with gone until none "
                    "is. Use it after what takes time instead of looking again and again.",
     .inputSchema =
         R"({"type":"object","properties":{)"
         R"("bundle_id":{"type":"string","maxLength":300},"role":{"type":"string","maxLength":100},)"
         R"("title":{"type":"string","maxLength":1000},"value_contains":{"type":"string","maxLength":1000},)"
         R"("gone":{"type":"boolean"},)"
         R"("timeout":{"type":"integer","minimum":1,"maximum":120,"default":10,"description":"seconds"}},)"
         R"("additionalProperties":false})",
     .outputSchema = elementsFound,
     .acts = false,
     .destructive = false,
     .idempotent = true,
     .run = waitForElement},
    {.name = "element_action",
     .title = "Act on an element",
     .description = "Presses, focuses or otherwise operates an element, also one that is covered. "
                    "Prefer it to click.",
     .inputSchema =
         R"({"type":"object","properties":{"element":{"type":"string","minLength":1,"maxLength":100000},)"
         R"("action":{"enum":["press","focus","show_menu","confirm","cancel","increment","decrement","raise"]}},)"
         R"("required":["element","action"],"additionalProperties":false})",
     .outputSchema = outcome,
     .acts = true,
     .destructive = true,
     .idempotent = false,
     .run = elementAction},
    {.name = "set_value",
     .title = "Set an element's value",
     .description = "Replaces the text of a field or the value of a slider, check box (\"1\", "
                    "\"0\") or the like in one step. Prefer it to typing.",
     .inputSchema =
         R"({"type":"object","properties":{"element":{"type":"string","minLength":1,"maxLength":100000},)"
         R"("value":{"type":"string","maxLength":400000}},"required":["element","value"],)"
         R"("additionalProperties":false})",
     .outputSchema = outcome,
     .acts = true,
     .destructive = true,
     .idempotent = true,
     .run = setValue},
    {.name = "list_windows",
     .title = "List windows",
     .description = "Lists the open windows front to back: window_id \"title\" x,y WxH "
                    "\"bundle_id\" states. Also the way to see which applications run.",
     .inputSchema =
         R"({"type":"object","properties":{"bundle_id":{"type":"string","maxLength":300}},)"
         R"("additionalProperties":false})",
     .outputSchema =
         R"({"type":"object","properties":{"windows":{"type":"array","items":{"type":"object","properties":{)"
         R"("window_id":{"type":"integer"},"bundle_id":{"type":"string"},"title":{"type":"string"},)"
         R"("x":{"type":"number"},"y":{"type":"number"},"w":{"type":"number"},"h":{"type":"number"},)"
         R"("focused":{"type":"boolean"},"minimized":{"type":"boolean"}}}}},"required":["windows"]})",
     .acts = false,
     .destructive = false,
     .idempotent = true,
     .run = listWindows},
    {.name = "control_window",
     .title = "Control a window",
     .description = "Focuses, moves (x, y: its top left corner), resizes (w, h) or minimizes a "
                    "window, or turns full screen on or off.",
     .inputSchema =
         R"({"type":"object","properties":{"window_id":{"type":"integer"},)"
         R"("action":{"enum":["focus","move","resize","minimize","fullscreen"]},)"
         R"("x":{"type":"number"},"y":{"type":"number"},"w":{"type":"number"},"h":{"type":"number"}},)"
         R"("required":["window_id","action"],"additionalProperties":false})",
     .outputSchema = outcome,
     .acts = true,
     .destructive = false,
     .idempotent = false,
     .run = controlWindow},
    {.name = "launch_application",
     .title = "Start an application",
     .description = "Starts an installed application by its identifier or name. Give exactly one.",
     .inputSchema = applicationInput,
     .outputSchema = outcome,
     .acts = true,
     .destructive = false,
     .idempotent = false,
     .run = launchApplication},
    {.name = "activate_application",
     .title = "Bring an application to the front",
     .description = "Brings a running application to the front. Give bundle_id or name.",
     .inputSchema = applicationInput,
     .outputSchema = outcome,
     .acts = true,
     .destructive = false,
     .idempotent = true,
     .run = activateApplication},
    {.name = "quit_application",
     .title = "Quit an application",
     .description = "Asks an application to quit as its user would; it may ask about unsaved work. "
                    "Give bundle_id or name.",
     .inputSchema = applicationInput,
     .outputSchema = outcome,
     .acts = true,
     .destructive = true,
     .idempotent = true,
     .run = quitApplication},
    {.name = "list_displays",
     .title = "List displays",
     .description = "Lists the displays with their size in points.",
     .inputSchema = R"({"type":"object","additionalProperties":false})",
     .outputSchema =
         R"({"type":"object","properties":{"displays":{"type":"array","items":{"type":"object"}}},)"
         R"("required":["displays"]})",
     .acts = false,
     .destructive = false,
     .idempotent = true,
     .run = listDisplays},
    {.name = "capture_screen",
     .title = "Capture the screen",
     .description = "Takes a picture of a display (the main one), a window (what covers it is left "
                    "out) or a region of a display in points. Use it when elements do not "
                    "tell enough. To click what you see, pass pixel coordinates and the map that "
                    "comes with the picture to click, drag or scroll.",
     .inputSchema =
         R"({"type":"object","properties":{"display_id":{"type":"string","maxLength":20},)"
         R"("window_id":{"type":"integer"},)"
         R"("region":{"type":"object","properties":{"x":{"type":"number"},"y":{"type":"number"},)"
         R"("w":{"type":"number"},"h":{"type":"number"}},"required":["x","y","w","h"],)"
         R"("additionalProperties":false},)"
         R"("max_dim":{"type":"integer","minimum":1,"maximum":16384,"default":1568,)"
         R"("description":"longest side in pixels"}},"additionalProperties":false})",
     .outputSchema =
         R"({"type":"object","properties":{"width":{"type":"integer"},"height":{"type":"integer"},)"
         R"("scale":{"type":"number","description":"pixels for a point"},)"
         R"("origin":{"type":"object","properties":{"x":{"type":"number"},"y":{"type":"number"}}},)"
         R"("map":{"type":"string"}},"required":["width","height","scale"]})",
     .acts = false,
     .destructive = false,
     .idempotent = true,
     .run = captureScreen},
    {.name = "click",
     .title = "Click",
     .description = "Clicks the middle of an element, or a screen point, or with map a pixel of a "
                    "capture; without any of them where the pointer is.",
     .inputSchema =
         R"({"type":"object","properties":{"element":{"type":"string","minLength":1,"maxLength":100000},)"
         R"("x":{"type":"number"},"y":{"type":"number"},"map":{"type":"string","maxLength":120},)"
         R"("button":{"enum":["left","right"]},"count":{"type":"integer","minimum":1,"maximum":2}},)"
         R"("additionalProperties":false})",
     .outputSchema = outcome,
     .acts = true,
     .destructive = true,
     .idempotent = false,
     .run = click},
    {.name = "move_pointer",
     .title = "Move the pointer",
     .description = "Moves the pointer, as to see what hovering shows. Places as in click.",
     .inputSchema =
         R"({"type":"object","properties":{"element":{"type":"string","minLength":1,"maxLength":100000},)"
         R"("x":{"type":"number"},"y":{"type":"number"},"map":{"type":"string","maxLength":120}},)"
         R"("additionalProperties":false})",
     .outputSchema = outcome,
     .acts = true,
     .destructive = false,
     .idempotent = true,
     .run = movePointer},
    {.name = "drag",
     .title = "Drag",
     .description = "Drags with the left button from one place to another, both as in click.",
     .inputSchema =
         R"({"type":"object","properties":{"from_x":{"type":"number"},"from_y":{"type":"number"},)"
         R"("to_x":{"type":"number"},"to_y":{"type":"number"},"map":{"type":"string","maxLength":120}},)"
         R"("required":["from_x","from_y","to_x","to_y"],"additionalProperties":false})",
     .outputSchema = outcome,
     .acts = true,
     .destructive = true,
     .idempotent = false,
     .run = drag},
    {.name = "scroll",
     .title = "Scroll",
     .description = "Turns the wheel by pixels at a place as in click: dy below 0 shows what is "
                    "further down, dx below 0 what is further right.",
     .inputSchema =
         R"({"type":"object","properties":{"dx":{"type":"number"},"dy":{"type":"number"},)"
         R"("element":{"type":"string","minLength":1,"maxLength":100000},)"
         R"("x":{"type":"number"},"y":{"type":"number"},"map":{"type":"string","maxLength":120}},)"
         R"("additionalProperties":false})",
     .outputSchema = outcome,
     .acts = true,
     .destructive = false,
     .idempotent = false,
     .run = scroll},
    {.name = "type_text",
     .title = "Type text",
     .description = "Types text where the keyboard is, or into element after focusing it. paste "
                    "goes by way of the clipboard, faster for long texts.",
     .inputSchema =
         R"({"type":"object","properties":{"text":{"type":"string","minLength":1,"maxLength":100000},)"
         R"("element":{"type":"string","minLength":1,"maxLength":100000},)"
         R"("method":{"enum":["keystroke","paste"]}},"required":["text"],"additionalProperties":false})",
     .outputSchema = outcome,
     .acts = true,
     .destructive = true,
     .idempotent = false,
     .run = typeText},
    {.name = "press_key",
     .title = "Press a key",
     .description = "Presses a key or a combination: return, tab, escape, delete (backwards), "
                    "forward_delete, space, home, end, page_up, page_down, arrow_left, arrow_down, "
                    "f1 to f12, any sign; with control, shift, option, command as in "
                    "control+shift+s.",
     .inputSchema =
         R"({"type":"object","properties":{"keys":{"type":"string","minLength":1,"maxLength":100},)"
         R"("count":{"type":"integer","minimum":1,"maximum":100}},"required":["keys"],)"
         R"("additionalProperties":false})",
     .outputSchema = outcome,
     .acts = true,
     .destructive = true,
     .idempotent = false,
     .run = pressKey},
    {.name = "get_clipboard",
     .title = "Read the clipboard",
     .description = "Reads the clipboard's text.",
     .inputSchema = R"({"type":"object","additionalProperties":false})",
     .outputSchema = R"({"type":"object","properties":{"text":{"type":"string"},)"
                     R"("bytes":{"type":"integer"},"truncated":{"type":"boolean"}},)"
                     R"("required":["text","bytes","truncated"]})",
     .acts = false,
     .destructive = false,
     .idempotent = true,
     .run = getClipboard},
    {.name = "set_clipboard",
     .title = "Set the clipboard",
     .description = "Puts a text on the clipboard in place of what is there.",
     .inputSchema =
         R"({"type":"object","properties":{"text":{"type":"string","maxLength":400000}},)"
         R"("required":["text"],"additionalProperties":false})",
     .outputSchema = outcome,
     .acts = true,
     .destructive = true,
     .idempotent = true,
     .run = setClipboard},
    {.name = "get_photo",
     .title = "Fetch a photo",
     .description = "Fetches one picture of the user's photo library by its identifier, reduced "
                    "when it is large.",
     .inputSchema =
         R"({"type":"object","properties":{"uuid":{"type":"string","minLength":1,"maxLength":300},)"
         R"("max_bytes":{"type":"integer","minimum":1,"maximum":700000}},"required":["uuid"],)"
         R"("additionalProperties":false})",
     .outputSchema =
         R"({"type":"object","properties":{"filename":{"type":"string"},"mimeType":{"type":"string"},)"
         R"("width":{"type":"integer"},"height":{"type":"integer"}}})",
     .acts = false,
     .destructive = false,
     .idempotent = true,
     .run = getPhoto},
    {.name = "status",
     .title = "Companion and permissions",
     .description = "Says whether the companion runs and what the user allows. Use it when "
                    "something is refused.",
     .inputSchema = R"({"type":"object","additionalProperties":false})",
     .outputSchema = R"({"type":"object","properties":{"permissions":{"type":"object"}},)"
                     R"("required":["permissions"]})",
     .acts = false,
     .destructive = false,
     .idempotent = true,
     .run = status},
});

}  // namespace

std::span<const ToolEntry> toolTable() {
  return table;
}

}  // namespace vesko::mcp
