#!/usr/bin/env bash
# Sets up, builds, and runs the main job: a real backup of a folder to the default destination
# ("My Mac", ~/Documents/Stellwin Backups), then lists the group's versions.
# Usage: scripts/main-job.sh [FOLDER]   (default: /usr/share/common-licenses)
set -euo pipefail
cd "$(dirname "$0")/.."
folder=${1:-/usr/share/common-licenses}

scripts/setup.sh build
program=build/stellwin-backup

"$program" group add "Main job" "$folder"
"$program" group show "Main job"
"$program" backup "Main job"
"$program" versions "Main job"
