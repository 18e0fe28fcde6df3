# What the parts of the tour share: checks, and what other programs tell of windows. Sourced; uses
# $veskoctl and $work, and counts $failures.
# shellcheck shell=bash disable=SC2154

ctl() { "$veskoctl" --timeout 20 "$@"; }

failures=0
pass() { printf '  ok    %s\n' "$1"; }
fail() { printf '  FAIL  %s\n' "$1"; failures=$((failures + 1)); }
check() { # check DESCRIPTION COMMAND...
  local what=$1
  shift
  if "$@" >>"$work/tour.log" 2>&1; then pass "$what"; else fail "$what"; fi
}
within() { # within SECONDS COMMAND...: the command's effect lies with another program
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    [[ $SECONDS -lt $deadline ]] || return 1
    read -r -t 0.1 <> <(:) || true
  done
}
holds() { [[ -f $1 && $(<"$1") == "$2" ]]; }
# A program fetches what it pastes in its own time, and may save before: then it saves once more.
saves() { ctl hotkey command+s && holds "$@"; }
titled() { xprop -id "$1" _NET_WM_NAME 2>/dev/null | grep -qF -- "$2"; }
window_of() { # the window of a class, which may take a while to appear
  timeout 30 xdotool search --sync --onlyvisible --class "$1" 2>/dev/null | tail -n 1
}
window_titled() {
  timeout 30 xdotool search --sync --onlyvisible --name "$1" 2>/dev/null | tail -n 1
}
gone() { ! xwininfo -id "$1" >/dev/null 2>&1; }
refused() { # refused CODE COMMAND...: veskoctl ends with it
  local code=$1 got=0
  shift
  ctl "$@" || got=$?
  [[ $got == "$code" ]]
}
give_up() {
  fail "$1"
  tail -n 40 "$work"/*.log
  exit 1
}
frame_of() { # x y width height of a window's inside, in screen points
  xwininfo -id "$1" | awk '/Absolute upper-left/ {print $NF} /^  (Width|Height):/ {print $2}' | xargs
}
center() {
  local x y width height
  read -r x y width height < <(frame_of "$1")
  echo $((x + width / 2)) $((y + height / 2))
}
