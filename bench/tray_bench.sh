#!/bin/bash
# Peak memory of the daemon during one backup run of many small files, with and without the tray: once
# with no session bus (no tray), once on a private session bus with a status-notifier-watcher and a
# tray host that reads the menu all along (GetLayout every 50 ms), so that every progress update
# reaches the tray. The tray must not make the daemon's memory grow with the number of updates.
# Everything happens in an isolated HOME under the work folder; nothing of the user's is touched.
#
# Usage: bench/tray_bench.sh [work folder]
# Environment: QV_PROGRAM (default build/stellwin-backup), QV_BENCH_FILES (100000)
# Needs dbus, haskell-status-notifier-item-utils, libglib2.0-bin (gdbus) and perl.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
program=$(realpath "${QV_PROGRAM:-$root/build/stellwin-backup}")
files=${QV_BENCH_FILES:-100000}
[[ -x $program ]] || { echo "stellwin-backup not found at $program: build it or set QV_PROGRAM" >&2; exit 2; }

if [[ -n ${QV_TRAY_BENCH_INSIDE:-} ]]; then
  # One measurement, given its work folder and whether a tray reads along. Prints the peak in KiB.
  work=$1 tray=$2
  home=$work/home-$tray
  rm -rf "$home" "$work/dest" && mkdir -p "$home/runtime" "$work/dest" && chmod 700 "$home/runtime"
  export HOME=$home XDG_CONFIG_HOME=$home/.config XDG_STATE_HOME=$home/.state XDG_RUNTIME_DIR=$home/runtime
  [[ $tray == no ]] && unset DBUS_SESSION_BUS_ADDRESS
  "$program" target add --type local --title Bench --path "$work/dest" --default >/dev/null
  "$program" group add Bench "$work/tree" >/dev/null
  if [[ $tray == yes ]]; then
    status-notifier-watcher >/dev/null 2>&1 & watcher=$!
    sleep 1
  fi
  "$program" daemon 2>"$home/daemon.log" & daemon=$!
  sleep 2
  reader=
  if [[ $tray == yes && -z ${QV_TRAY_BENCH_NO_READER:-} ]]; then
    item=$(gdbus call -e -d org.kde.StatusNotifierWatcher -o /StatusNotifierWatcher \
             -m org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher RegisteredStatusNotifierItems |
           grep -o "':[0-9.]*" | tr -d "'" | head -1)
    [[ -n $item ]] || { echo "tray_bench: the item did not register" >&2; exit 1; }
    ( while sleep 0.05; do gdbus call -e -d "$item" -o /MenuBar -m com.canonical.dbusmenu.GetLayout 0 -1 '[]' \
        >/dev/null 2>&1 || true; done ) & reader=$!
  fi
  start=$(date +%s.%N)
  "$program" backup Bench >/dev/null
  end=$(date +%s.%N)
  peak=$(awk '/VmHWM/ {print $2}' "/proc/$daemon/status")
  [[ -n $reader ]] && kill "$reader"
  kill "$daemon"; wait "$daemon" || true
  [[ $tray == yes ]] && kill "$watcher"
  echo "$peak $(echo "$end - $start" | bc)"
  exit 0
fi

if [[ $# -ge 1 ]]; then work=$(realpath "$1"); mkdir -p "$work"; else
  work=$(mktemp -d "${TMPDIR:-/tmp}/qv-tray-bench.XXXXXX"); trap 'rm -rf "$work"' EXIT; fi

echo "tray_bench: making $files small files"
perl -e '
  my ($dir, $count) = @ARGV; srand(11);
  for my $i (0 .. $count - 1) {
    my $sub = sprintf("%s/d%02d/e%02d", $dir, $i % 37, int($i / 37) % 29);
    system("mkdir", "-p", $sub) unless -d $sub;
    open(my $f, ">:raw", "$sub/f$i.dat") or die; print $f "x" x (1 + $i % 512); close $f;
  }' "$work/tree" "$files"

# The disk settles before each run: what the previous run left to write back or free must not be paid
# for by the next one.
sync; sleep 5
read -r with with_s < <(QV_TRAY_BENCH_INSIDE=1 dbus-run-session -- "$0" "$work" yes 2>/dev/null)
rm -rf "$work/dest"; sync; sleep 5
read -r without without_s < <(QV_TRAY_BENCH_INSIDE=1 "$0" "$work" no)
echo "files: $files"
echo "daemon peak without a tray: $without KiB (run ${without_s} s)"
echo "daemon peak with the tray read along: $with KiB (run ${with_s} s)"
