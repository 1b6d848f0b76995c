#!/usr/bin/env bash
# Runs a command inside a private D-Bus session bus with an unlocked GNOME keyring answering as the
# Secret Service. Everything (bus, keyring, its files) lives in a temporary folder and ends with the command.
set -euo pipefail
home=$(mktemp -d)
chmod 0700 "$home"
trap 'rm -rf "$home"' EXIT
env -i PATH=/usr/bin:/bin HOME="$home" XDG_RUNTIME_DIR="$home" XDG_CONFIG_HOME="$home/config" \
  XDG_DATA_HOME="$home/data" ASAN_OPTIONS="${ASAN_OPTIONS:-}" UBSAN_OPTIONS="${UBSAN_OPTIONS:-}" \
  GTEST_OUTPUT="${GTEST_OUTPUT:-}" \
  dbus-run-session -- sh -c '
    printf %s testpw | gnome-keyring-daemon --unlock --components=secrets >/dev/null
    for i in $(seq 1 100); do
      dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        org.freedesktop.DBus.NameHasOwner string:org.freedesktop.secrets 2>/dev/null | grep -q true && break
      sleep 0.1
    done
    exec "$@"' sh "$@"
