#!/usr/bin/env bash
# Fails when a source file includes a header of a layer above its own. The layers, lowest first, and what
# each may include besides itself (docs/ARCHITECTURE.md draws the same picture):
#   platform      - (platform/desktop, the desktop's D-Bus services, is part of it)
#   targets       platform
#   agent, menu   targets platform (agent and menu are one layer)
#   host/run      agent menu targets platform
#   host/cli      host/run and below
#   host/restore  host/cli and below
#   host/control  host/cli and below
#   host/daemon   host/control and below
#   host          the program: everything
# Usage: scripts/check-layers.sh [SOURCE_ROOT]   (default: the src/ of this repository)
set -u
src=${1:-"$(dirname "$0")/../src"}
cd "$src" || exit 2

allowed() {
  local base="platform platform/desktop targets agent menu"
  case "$1" in
    platform|platform/desktop) echo "platform platform/desktop" ;;
    targets) echo "platform platform/desktop targets" ;;
    agent|menu) echo "$base" ;;
    host/run) echo "$base host/run" ;;
    host/cli) echo "$base host/run host/cli" ;;
    host/restore) echo "$base host/run host/cli host/restore" ;;
    host/control) echo "$base host/run host/cli host/control" ;;
    host/daemon) echo "$base host/run host/cli host/control host/daemon" ;;
    host) echo "*" ;;
    *) echo "" ;;
  esac
}

status=0
while IFS= read -r file; do
  layer=$(dirname "$file")
  ok=$(allowed "$layer")
  if [ -z "$ok" ]; then
    echo "check-layers: $file: its folder $layer is not a known layer (add it to scripts/check-layers.sh)"
    status=1
    continue
  fi
  [ "$ok" = "*" ] && continue
  while IFS= read -r inc; do
    target=$(dirname "$inc")
    case " $ok " in
      *" $target "*) ;;
      *) echo "check-layers: $file includes \"$inc\": $layer may include only: $ok"; status=1 ;;
    esac
  done < <(sed -n 's/^#include "\([^"]*\)".*/\1/p' "$file")
done < <(find . -name '*.h' -o -name '*.cpp' | sed 's#^\./##' | sort)
[ $status = 0 ] && echo "check-layers: every include points down"
exit $status
