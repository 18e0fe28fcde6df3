#!/usr/bin/env python3
"""An assistant's session on real applications, through the Model Context Protocol of veskoctl.

The assistant knows nothing but the protocol. Whether what it did came about is judged without it:
by files on the disk, and by what xprop, xwininfo, xdotool and ImageMagick see.

    assistant.py BUNDLE OUTPUT_DIRECTORY WORK_DIRECTORY
"""

import base64
import json
import math
import pathlib
import re
import subprocess
import sys
import time


class Assistant:
    """A client of the protocol: one request at a time, over the server's standard streams."""

    def __init__(self, veskoctl):
        self.server = subprocess.Popen(
            [veskoctl, "mcp"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.requests = 0
        self.revision = self.request("initialize", {
            "protocolVersion": "2025-11-25", "capabilities": {},
            "clientInfo": {"name": "tour", "version": "1"}})["protocolVersion"]
        self.send({"jsonrpc": "2.0", "method": "notifications/initialized"})

    def send(self, message):
        self.server.stdin.write(json.dumps(message) + "\n")
        self.server.stdin.flush()

    def request(self, method, params):
        self.requests += 1
        self.send({"jsonrpc": "2.0", "id": self.requests, "method": method, "params": params})
        for line in self.server.stdout:
            answer = json.loads(line)
            if answer.get("id") == self.requests:
                if "error" in answer:
                    raise RuntimeError(f"{method}: {answer['error']}")
                return answer["result"]
        raise RuntimeError(f"{method}: the server has ended")

    def use(self, tool, /, **arguments):
        """A tool's result; a tool that fails ends the session with what it says."""
        result = self.request("tools/call", {"name": tool, "arguments": arguments})
        texts = [part["text"] for part in result["content"] if part["type"] == "text"]
        log(tool, arguments, texts)
        if result.get("isError"):
            raise RuntimeError(f"{tool}: {' '.join(texts)}")
        return result

    def elements(self, application, role, title=""):
        """Those of that role whose title begins so, as far as they are shown and can be used."""
        found = self.use("find_elements", bundle_id=application, role=role,
                         **({"title": title} if title else {}))["structuredContent"]["elements"]
        return [element for element in found
                if element.get("title", "").startswith(title) and element.get("enabled")
                and element.get("frame", {}).get("w", 0) > 0]

    def element(self, application, role, title=""):
        """The first of them, once there is one."""
        if not (found := within(10, lambda: self.elements(application, role, title))):
            raise RuntimeError(f"no {role} {title!r} in {application}")
        return found[0]

    def window(self, title):
        """The window whose title contains it, once there is one."""
        if not (found := within(10, lambda: [
                window for window in self.use("list_windows")["structuredContent"]["windows"]
                if title in window["title"]])):
            raise RuntimeError(f"no window {title!r}")
        return found[0]

    def fill(self, application, role, value, title=""):
        self.use("set_value", element=self.element(application, role, title)["element"],
                 value=value)

    def press(self, application, title):
        button = self.element(application, "AXButton", title)
        self.use("element_action", element=button["element"], action="press")

    def capture(self, file, **what):
        result = self.use("capture_screen", **what)
        image = next(part for part in result["content"] if part["type"] == "image")
        file.write_bytes(base64.b64decode(image["data"]))
        return result["structuredContent"]

    def leave(self):
        """True when the server ends as its client leaves."""
        self.server.stdin.close()
        return self.server.wait(timeout=10) == 0


def within(seconds, holds):
    """Looks again until it holds: the effect lies with another program."""
    deadline = time.monotonic() + seconds
    while not (held := holds()) and time.monotonic() < deadline:
        time.sleep(0.1)
    return held


def output_of(*command):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    return done.stdout + done.stderr


def log(tool, arguments, texts):
    with open(work / "assistant.log", "a", encoding="utf-8") as file:
        print(tool, json.dumps(arguments, ensure_ascii=False), *texts, sep="\n  ", file=file)


failures = 0


def check(what, holds):
    global failures
    held = within(10, holds)
    failures += not held
    print(f"  {'ok   ' if held else 'FAIL '} {what}", flush=True)


# --- What other programs see ------------------------------------------------------------------

def frame(window):
    """x, y, width and height with the window manager's frame around it."""
    inside = output_of("xwininfo", "-id", str(window))
    x, y, width, height = (int(number) for number in re.findall(
        r"(?:Absolute upper-left [XY]|Width|Height):\s+(-?\d+)", inside))
    around = output_of("xprop", "-id", str(window), "_NET_FRAME_EXTENTS")
    left, right, top, bottom = (int(number) for number in re.findall(r"\b\d+\b", around))
    return x - left, y - top, width + left + right, height + top + bottom


def has_state(window, state):
    return state in output_of("xprop", "-id", str(window), "_NET_WM_STATE", "WM_STATE")


def on_screen(window):
    return "IsViewable" in output_of("xwininfo", "-id", str(window))


def differing_pixels(a, b):
    return int(float(output_of("compare", "-metric", "AE", str(a), str(b), "null:").split()[0]))


def content(file):
    return file.read_text(encoding="utf-8") if file.exists() else None


def pointer():
    text = output_of("xdotool", "getmouselocation")
    return tuple(map(int, re.search(r"x:(\d+) y:(\d+)", text).groups()))


def inside(point, rectangle):
    x, y, width, height = rectangle
    return x <= point[0] < x + width and y <= point[1] < y + height


# --- The session ------------------------------------------------------------------------------

def write_a_letter(assistant):
    print("An assistant writes a letter (GTK 3)")
    editor = "org.xfce.mousepad"
    assistant.use("launch_application", bundle_id=editor)
    main = assistant.window("Mousepad")["window_id"]
    check("the editor it started is an application of its own",
          lambda: "mousepad" in output_of("xprop", "-id", str(main), "WM_CLASS").lower())
    assistant.fill(editor, "AXTextArea", "A letter from Wien. 🥨\nWien lies on the Danube.\n")
    assistant.capture(out / "assistant-before.png", window_id=main)

    assistant.use("press_key", keys="control+r")
    dialog = assistant.window("Find and Replace")["window_id"]
    fields = assistant.elements(editor, "AXTextField")
    for field, value in zip(sorted(fields, key=lambda f: f["frame"]["y"]), ("Wien", "Vienna")):
        assistant.use("set_value", element=field["element"], value=value)
    assistant.fill(editor, "AXCheckBox", "1", "Replace all in")
    assistant.press(editor, "Replace All")

    # A click on what the picture shows: from its pixels to a point of the screen.
    picture = assistant.capture(out / "assistant-form.png", window_id=dialog)
    button = assistant.element(editor, "AXButton", "Close")["frame"]
    middle = button["x"] + button["w"] / 2, button["y"] + button["h"] / 2
    pixels = [(at - origin) * picture["scale"] for at, origin in
              zip(middle, (picture["origin"]["x"], picture["origin"]["y"]))]
    assistant.use("click", x=round(pixels[0]), y=round(pixels[1]), map=picture["map"])
    check("a click on a picture's pixel lands where the pixel was",
          lambda: math.dist(pointer(), middle) <= 1.5)
    check("it closed the form", lambda: not on_screen(dialog))

    letter = work / "vienna.txt"
    assistant.use("press_key", keys="control+s")
    assistant.window("Save As")
    assistant.fill(editor, "AXTextField", str(letter))
    assistant.press(editor, "Save")
    check("the file on the disk holds what the form made of the text",
          lambda: content(letter) == "A letter from Vienna. 🥨\nVienna lies on the Danube.\n")

    arrange_windows(assistant, main)
    compare_pictures(assistant, main)
    assistant.use("quit_application", bundle_id=editor)
    check("the editor quits", lambda: not on_screen(main))


def arrange_windows(assistant, window):
    print("It arranges windows")
    _, _, width, height = frame(window)
    assistant.use("control_window", window_id=window, action="move", x=120, y=90)
    check("the window moved, and kept its size",
          lambda: frame(window) == (120, 90, width, height))
    assistant.use("control_window", window_id=window, action="resize", w=900, h=640)
    check("it has the new size where it was", lambda: frame(window) == (120, 90, 900, 640))
    assistant.use("control_window", window_id=window, action="minimize")
    check("it is minimized", lambda: has_state(window, "Iconic"))
    assistant.use("control_window", window_id=window, action="focus")
    check("it is back, with the keyboard",
          lambda: has_state(window, "Normal") and
          int(output_of("xdotool", "getactivewindow")) == window)
    assistant.use("control_window", window_id=window, action="fullscreen")
    check("it fills the screen", lambda: has_state(window, "_NET_WM_STATE_FULLSCREEN"))
    assistant.use("control_window", window_id=window, action="fullscreen")
    check("and is as it was before", lambda: frame(window) == (120, 90, 900, 640))


def compare_pictures(assistant, window):
    after = out / "assistant-after.png"
    grabbed = work / "assistant-grabbed.png"

    def same():  # text cursors blink: until both show the same moment
        assistant.capture(after, window_id=window, max_dim=16384)
        output_of("import", "-frame", "-window", str(window), str(grabbed))
        return differing_pixels(after, grabbed) == 0

    check("its picture of the letter equals what another program sees", same)


def write_a_list(assistant):
    print("It writes a list (GTK 4)")
    editor = "org.gnome.TextEditor"
    assistant.use("launch_application", name="Text Editor")
    main = assistant.window("Text Editor")["window_id"]
    text = assistant.element(editor, "AXTextArea")
    assistant.use("click", element=text["element"])
    check("a click on an element lands in its window", lambda: inside(pointer(), frame(main)))
    assistant.use("set_value", element=text["element"], value="Einkauf: 🥨 und 🍎")
    assistant.use("press_key", keys="control+s")
    assistant.window("Save As")
    assistant.fill(editor, "AXTextField", str(work / "list.txt"), "Name")
    assistant.press(editor, "Save")
    check("the file on the disk holds it",
          lambda: content(work / "list.txt") == "Einkauf: 🥨 und 🍎\n")
    assistant.use("quit_application", bundle_id=editor)
    check("the editor quits", lambda: not on_screen(main))


def fetch_a_photo(assistant, uuid, original):
    print("It fetches a photo")
    result = assistant.use("get_photo", uuid=uuid, max_bytes=200_000)
    image = next(part for part in result["content"] if part["type"] == "image")
    photo = out / "assistant-photo.jpg"
    photo.write_bytes(base64.b64decode(image["data"]))
    check("it is a JPEG of at most 200,000 bytes, as asked",
          lambda: image["mimeType"] == "image/jpeg" and photo.stat().st_size <= 200_000 and
          output_of("identify", "-format", "%m", str(photo)) == "JPEG")
    size = output_of("identify", "-format", "%wx%h", str(photo))
    smaller = work / "photo-reduced.png"
    # Upright, as its orientation says: what the viewer shows, not what the file holds.
    output_of("convert", str(original), "-auto-orient", "-resize", size + "!", str(smaller))
    check("it shows what the original shows, upright", lambda: float(re.search(
        r"\(([\d.e-]+)\)", output_of("compare", "-metric", "RMSE", str(smaller), str(photo),
                                     "null:"))[1]) < 0.03)


if __name__ == "__main__":
    bundle, out, work = (pathlib.Path(argument).absolute() for argument in sys.argv[1:4])
    client = Assistant(bundle / "Contents/Resources/veskoctl")
    try:
        write_a_letter(client)
        write_a_list(client)
        fetch_a_photo(client, sys.argv[4], pathlib.Path(sys.argv[5]))
    except (RuntimeError, OSError, LookupError, TypeError) as error:
        check(f"the session goes on: {error}", lambda: False)
    check("its server ends with the session", client.leave)
    sys.exit(failures > 0)
