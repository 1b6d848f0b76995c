#!/usr/bin/env bash
# Full backup runs of each destination kind under valgrind's memcheck: a local folder (through the
# agent), WebDAV on Apache and FTP on vsftpd and pyftpdlib (real servers on 127.0.0.1). Fails on any
# invalid read or write and on any definitely lost block; no suppressions are needed today.
# Usage: memcheck.sh RUN_TEST DESTINATION_TEST (the test programs)
set -euo pipefail
command -v valgrind >/dev/null || { echo "memcheck: valgrind is not installed; skipped"; exit 0; }
status=0
run() {  # program filter
  local log
  log=$(mktemp)
  if valgrind --leak-check=full --errors-for-leak-kinds=definite --error-exitcode=9 --num-callers=30 \
      "$1" --gtest_filter="$2" >"$log" 2>&1; then
    echo "memcheck: $(basename "$1") $2: clean"
  else
    echo "memcheck: $(basename "$1") $2: FAILED" >&2
    grep -E "Invalid|definitely lost|FAILED|==[0-9]+== +(at|by)" "$log" | head -60 >&2
    status=1
  fi
  rm -f "$log"
}
run "$1" '*CopiesEveryItem*:*PrunesOnlyVersions*:*AFailedRun*:*Progress*'
run "$2" '*CopiesATree*:*ARefused*/Apache*'
exit $status
