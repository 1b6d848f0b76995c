#!/usr/bin/env bash
# Takes docs/tray-menu-during-run.png: the daemon's tray menu, open on a group that is being backed up,
# in gtk-sni-tray-standalone on a virtual screen, on a private session bus, in a home of its own.
# Needs xvfb, haskell-gtk-sni-tray-utils, imagemagick, xdotool and dbus (not installed by setup.sh).
# Usage: scripts/tray-screenshot.sh [PROGRAM] [OUTPUT]   (default: build/stellwin-backup, docs/...)
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
program=$(realpath "${1:-$root/build/stellwin-backup}")
output=$(realpath -m "${2:-$root/docs/tray-menu-during-run.png}")
if [ -z "${QV_TRAY_SCREENSHOT_INSIDE:-}" ]; then
  QV_TRAY_SCREENSHOT_INSIDE=1 exec dbus-run-session -- "$0" "$program" "$output"
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

export XDG_CONFIG_HOME=$work/config XDG_STATE_HOME=$work/state XDG_RUNTIME_DIR=$work/runtime HOME=$work/home
mkdir -p "$XDG_RUNTIME_DIR" "$HOME" && chmod 700 "$XDG_RUNTIME_DIR"
display=:$((90 + RANDOM % 100))
Xvfb "$display" -screen 0 480x260x24 -nolisten tcp >/dev/null 2>&1 & xvfb=$!
sleep 1
export DISPLAY=$display GDK_BACKEND=x11
gtk-sni-tray-standalone --watcher --top --end --size 28 -c '#303030' >/dev/null 2>&1 & tray=$!
sleep 2

echo notes > "$HOME/notes.txt"
truncate -s 8G "$HOME/Videos.bin"  # sparse: long to copy, quick to make
"$program" group add Documents "$HOME/notes.txt" >/dev/null
"$program" group add Videos "$HOME/Videos.bin" >/dev/null
"$program" backup Documents >/dev/null
"$program" daemon 2>/dev/null & daemon=$!
sleep 3
"$program" menu Videos "Backup Now" >/dev/null 2>&1 &
sleep 1
xdotool mousemove 466 14 click 1   # the icon, at the end of the bar
sleep 0.5
xdotool mousemove 380 95           # the group "Videos", which opens its submenu
sleep 1.5
import -window root -crop 480x150+0+0 +repage "$output"
"$program" cancel Videos >/dev/null 2>&1 || true
kill "$daemon" "$tray" "$xvfb" 2>/dev/null || true
wait "$daemon" 2>/dev/null || true
echo "tray-screenshot: $output"
