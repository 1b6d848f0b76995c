#!/usr/bin/env bash
# Builds the fuzzing harnesses with clang's libFuzzer (in build-fuzz/) and runs each for SECONDS
# (default 10), starting from its seed inputs in tests/reliability/corpus/<harness>/. An input that
# crashes a harness is kept there as crash-<hash>, so every later run replays it first; the run then
# fails. Prints each harness's executions and crashes.
# Usage: scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-10}

packages=(clang-14 libclang-rt-14-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=()
  [ "$(id -u)" = 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

harnesses=(QVFTPListingFuzzer:ftp-listing QVPropfindFuzzer:propfind QVPreferencesFuzzer:preferences
  QVControlMessageFuzzer:control)
CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -DQV_FUZZ=ON -DQV_BUILD_TESTS=OFF >/dev/null
cmake --build build-fuzz -j"$(nproc)" --target "${harnesses[@]%%:*}" >/dev/null

work=$(mktemp -d "${TMPDIR:-/tmp}/qv-fuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT
failed=0
for entry in "${harnesses[@]}"; do
  name=${entry%%:*} seeds=tests/reliability/corpus/${entry##*:}
  mkdir -p "$work/$name" "$seeds"
  # New inputs grow the scratch corpus; the kept seeds are only read. Nothing reaches the network.
  if ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1 \
    "build-fuzz/tests/reliability/fuzz/$name" -max_total_time="$seconds" -rss_limit_mb=2048 -max_len=1048576 \
      -artifact_prefix="$seeds/" "$work/$name" "$seeds" >"$work/$name.log" 2>&1; then
    crashes=0
  else
    crashes=1 failed=1
    tail -40 "$work/$name.log" >&2
  fi
  runs=$(grep -oE 'Done [0-9]+ runs' "$work/$name.log" | grep -oE '[0-9]+' || echo "?")
  echo "fuzz: $name: $runs executions in ${seconds}s, crashes: $crashes"
done
exit $failed
