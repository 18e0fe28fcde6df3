# The user is asked for a consent, answers with the keyboard, and looks at the privacy window.
# Sourced.
# shellcheck shell=bash disable=SC2154

echo "Privacy"
# A window is on the screen before its program has painted it.
pictured() { ctl capture --window "$1" "$2" && [[ $(identify -format %k "$2") -gt 100 ]]; }
ctl consent request photos >"$work/asked.txt" 2>&1 &
asked=$!
pids+=("$asked")
question=$(window_titled "would like") || give_up "a question shows a window"
check "the question is captured" within 10 pictured "$question" "$out/privacy-question.png"
check "an assistant cannot answer it" refused 1 click 960 540
# The question opens to answers a moment after it came up.
opened() { # the button that says yes may be pressed
  ctl call POST /ax/find '{"role":"AXButton","title":"Allow"}' | grep -q '"enabled":true'
}
check "it waits for an answer" within 20 opened
xdotool key alt+a
check "the user's yes is its outcome" wait "$asked"
granted() { grep -A1 "<key>photos</key>" "$state/consents.plist" | grep -q granted; }
check "it is kept on the disk" granted

check "the privacy window is opened" ctl privacy photos
privacy=$(window_titled "Privacy") || give_up "the privacy window shows"
check "the privacy window is captured" within 10 pictured "$privacy" "$out/privacy-window.png"
xdotool windowactivate --sync "$privacy" key alt+F4
check "it closes" within 10 gone "$privacy"
check "and the assistant may go on" within 10 ctl move 5 1070
