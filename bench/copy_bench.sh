#!/bin/bash
# Times QVFileCopier (through qv-copy-bench) against `cp -a` on the same mixed tree: many small files
# in nested folders plus a few large ones. The tools take turns, each copying the tree QV_BENCH_ROUNDS
# times (default 3), and the best time of each counts. Caches are not dropped (that would disturb
# everything else on the machine), so both tools read a warm source alike; the disk is synced before
# each copy. The copier's first copy is checked against the source: contents, types, modes, sizes, times.
#
# Usage: bench/copy_bench.sh [work folder]    (default: a new folder under $TMPDIR or /tmp)
# Environment:
#   QV_COPY_BENCH      the qv-copy-bench program (default: the first build*/bench/qv-copy-bench found)
#   QV_BENCH_FILES     number of small files, 1-16 KiB each (default 5000)
#   QV_BENCH_LARGE_MB  sizes of the large files in MiB (default "100 200 300")
#   QV_BENCH_ROUNDS    copies by each tool (default 3)
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
files=${QV_BENCH_FILES:-5000}
large_sizes=${QV_BENCH_LARGE_MB:-100 200 300}
rounds=${QV_BENCH_ROUNDS:-3}

bench=${QV_COPY_BENCH:-}
if [[ -z $bench ]]; then
  for candidate in "$root"/build/bench/qv-copy-bench "$root"/build*/bench/qv-copy-bench; do
    if [[ -x $candidate ]]; then bench=$candidate; break; fi
  done
fi
if [[ -z $bench || ! -x $bench ]]; then
  echo "qv-copy-bench not found: build the target qv-copy-bench or set QV_COPY_BENCH" >&2
  exit 2
fi

if [[ $# -ge 1 ]]; then
  work=$1
  mkdir -p "$work"
else
  work=$(mktemp -d "${TMPDIR:-/tmp}/qv-copy-bench.XXXXXX")
  trap 'rm -rf "$work"' EXIT
fi
src=$work/source

echo "Building the tree in $src ..."
rm -rf "$src"
mkdir -p "$src"
# Small files: random contents, 1-16 KiB, spread over 3 levels of folders, a few with odd names.
perl -e '
  my ($dir, $count) = @ARGV;
  srand(7);
  open(my $random, "<:raw", "/dev/urandom") or die "urandom: $!";
  read($random, my $pool, 1 << 20) == 1 << 20 or die "urandom: short read";
  for my $i (0 .. $count - 1) {
    my $folder = sprintf("%s/album %02d/set-%d/day %d", $dir, $i % 20, ($i / 20) % 10, ($i / 200) % 5);
    unless (-d $folder) {
      my $path = "";
      for my $part (split m{/}, $folder) { $path .= "$part/"; mkdir $path unless -d $path; }
    }
    my $size = 1024 + int(rand(15 * 1024));
    my $name = $i % 50 == 0 ? "photo ü $i.jpg" : "img_$i.jpg";
    open(my $out, ">:raw", "$folder/$name") or die "$folder/$name: $!";
    print $out substr($pool, int(rand((1 << 20) - $size)), $size);
    close($out) or die;
  }' "$src" "$files"
mkdir -p "$src/videos"
for mb in $large_sizes; do
  head -c "${mb}M" /dev/urandom > "$src/videos/clip-${mb}.mov"
done
ln -s "videos/clip-${large_sizes%% *}.mov" "$src/latest.mov"
ln -s "does-not-exist" "$src/dangling"
sync
read -r tree_kib _ < <(du -sk "$src")
echo "Tree: $files small files and large files of $large_sizes MiB, $((tree_kib / 1024)) MiB in all"

declare -a cp_times=() qv_times=() cp_cpu=() qv_cpu=()

# run <command...>: sets wall and cpu (user + system) to its seconds. Every copy goes to a new folder,
# and none is removed before the end: ext4 passes over recently freed inodes when it allocates, which
# would make whichever copy follows a removal pay for it.
run() {
  sync; sleep 2  # let write-back of the previous copy finish before timing the next
  local TIMEFORMAT='%3R %3U %3S' real user system
  if ! { time "$@" > /dev/null 2> "$work/errors"; } 2> "$work/timing"; then
    echo "failed: $*" >&2
    cat "$work/errors" >&2
    exit 1
  fi
  read -r real user system < "$work/timing"
  wall=$real
  cpu=$(awk -v u="$user" -v s="$system" 'BEGIN { printf "%.3f", u + s }')
}

for ((round = 1; round <= rounds; round++)); do
  # Who goes first alternates: a file system fills up unevenly, and the second copy of a round can be
  # slower or faster for that alone.
  for tool in $( ((round % 2)) && echo "cp qv" || echo "qv cp"); do
    if [[ $tool == cp ]]; then
      run cp -a "$src" "$work/copy-cp-$round"
      cp_times+=("$wall")
      cp_cpu+=("$cpu")
    else
      run "$bench" "$src" "$work/copy-qv-$round"
      qv_times+=("$wall")
      qv_cpu+=("$cpu")
    fi
  done
  echo "round $round: cp -a ${cp_times[-1]} s (CPU ${cp_cpu[-1]} s), copier ${qv_times[-1]} s (CPU ${qv_cpu[-1]} s)"
  if [[ $round == 1 ]]; then
    if ! diff -r --no-dereference "$src" "$work/copy-qv-1" > /dev/null; then
      echo "the copier's copy differs from the source" >&2
      exit 1
    fi
    if [[ $(cd "$src" && find . -printf '%p %y %m %s %T@ %l\n' | sort | md5sum) != \
          $(cd "$work/copy-qv-1" && find . -printf '%p %y %m %s %T@ %l\n' | sort | md5sum) ]]; then
      echo "the copier's copy has other modes, sizes, times or links than the source" >&2
      exit 1
    fi
  fi
done
rm -rf "$work"/copy-cp-* "$work"/copy-qv-*

best() { printf '%s\n' "$@" | sort -g | head -n 1; }
cp_best=$(best "${cp_times[@]}")
qv_best=$(best "${qv_times[@]}")
cp_cpu_best=$(best "${cp_cpu[@]}")
qv_cpu_best=$(best "${qv_cpu[@]}")
echo "cp -a:   best $cp_best s, CPU $cp_cpu_best s (runs: ${cp_times[*]})"
echo "copier:  best $qv_best s, CPU $qv_cpu_best s (runs: ${qv_times[*]})"
awk -v qv="$qv_best" -v cp="$cp_best" -v qvc="$qv_cpu_best" -v cpc="$cp_cpu_best" 'BEGIN {
  printf "ratio (copier / cp -a): %.2f elapsed, %.2f CPU\n", (cp > 0 ? qv / cp : 0), (cpc > 0 ? qvc / cpc : 0) }'
