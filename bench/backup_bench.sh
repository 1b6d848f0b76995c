#!/bin/bash
# Times a real backup by stellwin-backup to a local destination against `cp -a` of the same tree, in
# the same run, and reports the backup's peak memory. The tree: QV_BENCH_FILES small files (1-16 KiB,
# random contents, nested folders) plus one large file of QV_BENCH_LARGE_MB MiB. A second, small-files
# only run with four times as many files shows whether memory grows with the tree. Each tool runs twice
# in turns after the disk has settled, and the best time counts.
# Everything happens in an isolated HOME under the work folder; nothing of the user's is touched.
#
# Usage: bench/backup_bench.sh [work folder]
# Environment: QV_PROGRAM (default build/stellwin-backup), QV_BENCH_FILES (10000),
#              QV_BENCH_LARGE_MB (2048)
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
program=${QV_PROGRAM:-$root/build/stellwin-backup}
files=${QV_BENCH_FILES:-10000}
large_mb=${QV_BENCH_LARGE_MB:-2048}
[[ -x $program ]] || { echo "stellwin-backup not found at $program: build it or set QV_PROGRAM" >&2; exit 2; }
# GNU time measures the peak memory; bc does the arithmetic. Neither is on a minimal Debian.
for tool in /usr/bin/time:time bc:bc; do
  command -v "${tool%%:*}" >/dev/null || DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${tool##*:}" >/dev/null
done

if [[ $# -ge 1 ]]; then work=$1; mkdir -p "$work"; else
  work=$(mktemp -d "${TMPDIR:-/tmp}/qv-backup-bench.XXXXXX"); trap 'rm -rf "$work"' EXIT; fi

make_small_files() {  # folder count
  perl -e '
    my ($dir, $count) = @ARGV; srand(11);
    open(my $r, "<:raw", "/dev/urandom") or die; read($r, my $pool, 1 << 20);
    for my $i (0 .. $count - 1) {
      my $sub = sprintf("%s/d%02d/e%02d", $dir, $i % 37, int($i / 37) % 29);
      system("mkdir", "-p", $sub) unless -d $sub;
      my $size = 1024 + int(rand(15 * 1024));
      open(my $f, ">:raw", "$sub/f$i.dat") or die; print $f substr($pool, int(rand((1 << 20) - $size)), $size); close $f;
    }' "$1" "$2"
}

# Lets the disk settle: what an earlier copy or removal left to write back must not be paid for by the
# next timed command (ext4 frees a removed tree's blocks in the background).
settle() { sync; sleep 3; }

# One measurement: prepares an isolated home with a group holding the tree and a local destination,
# then times cp -a and the backup in turns, twice, the order swapped the second time; the best of each
# counts. Prints "cp_seconds backup_seconds backup_peak_kib".
run() {  # tree
  local tree=$1 home=$work/home
  rm -rf "$home" "$work/cp-copy" "$work/dest" && mkdir -p "$home" "$work/dest"
  export HOME=$home XDG_CONFIG_HOME=$home/.config XDG_RUNTIME_DIR=$home
  unset DBUS_SESSION_BUS_ADDRESS
  "$program" target add --type local --title Bench --path "$work/dest" --default >/dev/null
  "$program" group add Bench "$tree" >/dev/null
  local best_cp=999999 best_qv=999999 peak=0 round tool
  for round in 1 2; do
    local order="cp qv"; [[ $round == 2 ]] && order="qv cp"
    for tool in $order; do
      settle
      if [[ $tool == cp ]]; then
        local t; t=$( { /usr/bin/time -f "%e" cp -a "$tree" "$work/cp-copy" ; } 2>&1 )
        best_cp=$(echo "if ($t < $best_cp) $t else $best_cp" | bc -l)
        rm -rf "$work/cp-copy"
      else
        local out line; out=$( { /usr/bin/time -f "TIME %e %M" "$program" backup Bench >/dev/null ; } 2>&1 )
        line=$(grep '^TIME' <<<"$out")
        diff -r "$tree" "$work/dest/Bench/"*/"$(basename "$tree")" >/dev/null || { echo "backup differs from the source" >&2; exit 1; }
        best_qv=$(echo "t=$(cut -d' ' -f2 <<<"$line"); if (t < $best_qv) t else $best_qv" | bc -l)
        peak=$(( $(cut -d' ' -f3 <<<"$line") > peak ? $(cut -d' ' -f3 <<<"$line") : peak ))
        rm -rf "$work/dest"/*
      fi
    done
  done
  echo "$best_cp $best_qv $peak"
}

echo "Building a tree of $files small files and one ${large_mb} MiB file in $work ..."
tree=$work/tree
rm -rf "$tree"; mkdir -p "$tree"
make_small_files "$tree/small" "$files"
head -c "$((large_mb << 20))" /dev/urandom > "$tree/large.bin"

read -r cp_s qv_s qv_kib < <(run "$tree")
printf 'mixed tree:  cp -a %6.2f s   backup %6.2f s   ratio %.2f   backup peak memory %.1f MB\n' \
  "$cp_s" "$qv_s" "$(echo "$qv_s / $cp_s" | bc -l)" "$(echo "$qv_kib / 1024" | bc -l)"

rm -rf "$tree"
big=$work/many; mkdir -p "$big"
make_small_files "$big" "$((files * 4))"
read -r cp2_s qv2_s qv2_kib < <(run "$big")
printf 'small files x4 (%d): cp -a %6.2f s   backup %6.2f s   ratio %.2f   backup peak memory %.1f MB\n' \
  "$((files * 4))" "$cp2_s" "$qv2_s" "$(echo "$qv2_s / $cp2_s" | bc -l)" "$(echo "$qv2_kib / 1024" | bc -l)"
