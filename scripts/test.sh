#!/usr/bin/env bash
# Sets up, builds and runs every test: once in build/, then each fuzzing harness for a few seconds
# (build-fuzz/), then every test again with the sanitizers in build-sanitize/.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --tests build
ctest --test-dir build --output-on-failure -j2

scripts/fuzz.sh 10

scripts/setup.sh --tests --sanitize build-sanitize
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-sanitize --output-on-failure -j2 -LE slow
