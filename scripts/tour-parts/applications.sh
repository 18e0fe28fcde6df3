# Operates editors, a terminal and the screen with veskoctl. Sourced.
# shellcheck shell=bash disable=SC2154

echo "A text editor (GTK 3)"
greeting='Grüße, мир! Wired through: veskoctl, helper, HTTPS, tool, X. 👋🏽 e=mc²'
: >"$work/letter.txt"
mousepad --disable-server "$work/letter.txt" >"$work/mousepad.log" 2>&1 &
programs+=($!)
editor=$(window_of mousepad) || give_up "the editor shows a window"
# shellcheck disable=SC2046
check "a click lands in the editor" ctl click $(center "$editor")
check "text is typed" ctl type "$greeting"
check "the title shows the unsaved change" within 10 titled "$editor" "*"
check "a hotkey is pressed" ctl hotkey command+s
check "the file on the disk holds every character" within 10 holds "$work/letter.txt" "$greeting"
saved() { ! titled "$editor" "*"; }
check "the title shows it saved" within 10 saved
check "everything is selected and copied" eval 'ctl hotkey command+a && ctl hotkey command+c'
copied() { [[ $(ctl clipboard get) == "$greeting" ]]; }
check "the clipboard holds the text" within 10 copied
check "the clipboard takes text" ctl clipboard set "from the assistant 🛰"
check "the arrow key leaves the selection" ctl key arrow_right
check "another program's text is pasted" eval 'ctl key return && ctl hotkey command+v'
check "the file holds the pasted line too" within 10 saves "$work/letter.txt" \
  "$greeting"$'\n'"from the assistant 🛰"

echo "A text editor (GTK 4)"
: >"$work/notes.txt"
# Elsewhere, because it brings back at its next start what was open in it.
XDG_DATA_HOME=$work/data gnome-text-editor --standalone "$work/notes.txt" >"$work/gte.log" 2>&1 &
programs+=($!)
modern=$(window_of gnome-text-editor) || give_up "the second editor shows a window"
# shellcheck disable=SC2046
check "a click lands in the second editor" ctl click $(center "$modern")
check "text is pasted" ctl type --paste "Notizen: 𝛼 + 🦊 = ∞"
check "its file holds every character" within 10 saves "$work/notes.txt" "Notizen: 𝛼 + 🦊 = ∞"

echo "A terminal"
xterm -class TourTerminal -geometry 70x12+1100+700 -e bash --norc >"$work/xterm.log" 2>&1 &
programs+=($!)
terminal=$(window_of TourTerminal) || give_up "the terminal shows a window"
# shellcheck disable=SC2046
check "a click lands in the terminal" ctl click $(center "$terminal")
check "a command is typed" ctl type "echo 'naïve café ☕' > '$work/terminal.txt'"
check "return runs it" ctl key return
check "the command ran" within 10 holds "$work/terminal.txt" "naïve café ☕"

echo "Pictures"
xlogo -geometry 300x200+1500+80 >"$work/xlogo.log" 2>&1 &
programs+=($!)
still=$(window_of xlogo) || give_up "the picture shows a window"
ctl move 5 1070 >/dev/null
check "the display is captured" ctl capture --max-dim 16384 "$out/display.png"
check "the display is captured at the default size" ctl capture "$out/display-1600.png"
check "the editor's window is captured" ctl capture --window "$editor" "$out/window-editor.png"
check "a window behind others is captured" ctl capture --window "$still" "$out/window.png"
check "a region is captured" ctl capture --region "$(frame_of "$still" | tr ' ' ,)" "$out/region.png"
same() { # same A B: no pixel differs
  [[ $(compare -metric AE "$1" "$2" null: 2>&1) == 0 ]]
}
import -window "$still" "$work/still.png"
import -frame -window "$still" "$work/framed.png"
check "the region equals what another program sees" same "$out/region.png" "$work/still.png"
check "the window equals what another program sees" same "$out/window.png" "$work/framed.png"
# Text cursors blink, so the whole screens are grabbed again until both show the same moment.
screens() {
  ctl capture --max-dim 16384 "$out/display.png" >/dev/null && import -window root "$work/root.png" &&
    convert "$out/display.png" -crop 1900x1060+20+0 +repage "$work/a.png" &&
    convert "$work/root.png" -crop 1900x1060+20+0 +repage "$work/b.png" &&
    same "$work/a.png" "$work/b.png"
}
check "the display equals what another program sees" within 20 screens
size() { [[ $(identify -format '%wx%h' "$1") == "$2" ]]; }
check "the default size is 1600x900" size "$out/display-1600.png" 1600x900

# What follows starts editors of its own, and is not to mistake these for them.
for program in "${programs[@]}"; do kill "$program"; done
for window in "$editor" "$modern" "$terminal" "$still"; do within 10 gone "$window"; done
