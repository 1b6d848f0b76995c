#!/bin/bash
# Times `stellwin-backup restore` of one version from a local folder, from WebDAV (Apache httpd +
# mod_dav) and from FTP (vsftpd), both started here on 127.0.0.1, against `cp -a` of the same version
# folder on the server's disk, ONE curl process downloading every file of the version over one
# connection (a -K config of url/output pairs; FTP in active mode, see remote_bench.sh), and
# `rclone copy` of the version (--transfers 1 and 4). The tree: QV_BENCH_FILES small files (1-16 KiB) in
# 50 folders plus one QV_BENCH_LARGE_MB MiB file, backed up once by stellwin-backup before the timing.
# Each tool runs twice in turns, into an emptied folder after the disk settled; the best time counts,
# and only once what it restored is byte for byte the tree (diff -r). (N.NNx) after a tool's time is
# stellwin-backup's time divided by that tool's: below 1 means stellwin-backup was faster.
# Everything happens in an isolated HOME under the work folder; the WebDAV password is made up for the
# run, given on standard input or in files of mode 0600, never printed nor put on a command line.
#
# Usage: bench/restore_bench.sh [local|dav|ftp|all] [work folder]
# Environment: QV_PROGRAM (default build/stellwin-backup), QV_BENCH_FILES (5000), QV_BENCH_LARGE_MB (512)
# Exit status: 0 all measured, 1 a tool failed or restored something else, 2 bad usage or setup.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
# shellcheck source=bench/servers.sh
source "$here/servers.sh"
mode=${1:-all}
case $mode in local|dav|ftp|all) ;; *) echo "usage: $0 [local|dav|ftp|all] [work folder]" >&2; exit 2 ;; esac
[[ -x $program ]] || { echo "stellwin-backup not found at $program: build it or set QV_PROGRAM" >&2; exit 2; }
ensure_tools /usr/bin/time:time bc:bc curl:curl rclone:rclone ss:iproute2 /usr/sbin/apache2:apache2 \
  htpasswd:apache2-utils /usr/sbin/vsftpd:vsftpd

temporary=""
if [[ $# -ge 2 ]]; then work=$(mkdir -p "$2" && cd "$2" && pwd); else
  work=$(mktemp -d "${TMPDIR:-/tmp}/qv-restore-bench.XXXXXX"); temporary=$work; fi
server_pids=()
cleanup() {
  local pid
  for pid in "${server_pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${server_pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  if [[ -n $temporary ]]; then rm -rf "$temporary"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM
unset http_proxy https_proxy ftp_proxy all_proxy HTTP_PROXY HTTPS_PROXY FTP_PROXY ALL_PROXY
export NO_PROXY=127.0.0.1 no_proxy=127.0.0.1

settle() { sync; sleep 3; }
quote() { local s=${1//\\/\\\\}; printf '"%s"' "${s//\"/\\\"}"; }

echo "Building a tree of $files small files in 50 folders and one ${large_mb} MiB file in $work ..."
tree=$work/tree
rm -rf "$tree"; mkdir -p "$tree"
perl -e '
  my ($dir, $count, $mib) = @ARGV; srand(11);
  open(my $r, "<:raw", "/dev/urandom") or die; read($r, my $pool, 1 << 20);
  for my $i (0 .. $count - 1) {
    my $sub = sprintf("%s/d%02d", $dir, $i % 50); mkdir $sub unless -d $sub;
    my $size = 1024 + int(rand(15 * 1024 + 1));
    open(my $f, ">:raw", "$sub/f$i.dat") or die; print $f substr($pool, int(rand((1 << 20) - $size)), $size); close $f;
  }
  open(my $f, ">:raw", "$dir/large.bin") or die; print $f $pool for 1 .. $mib; close $f or die;' "$tree" "$files" "$large_mb"
mapfile -t tree_list < <(cd "$tree" && find . -type f | sed 's|^\./||' | sort)

export RCLONE_CONFIG=$work/rclone.conf
failed=0
reports=()

new_home() {  # name: a fresh isolated home for stellwin-backup
  local home=$work/home-$1
  rm -rf "$home" && mkdir -p "$home/.config" && chmod 0700 "$home" "$home/.config"
  export HOME=$home XDG_CONFIG_HOME=$home/.config XDG_RUNTIME_DIR=$home XDG_STATE_HOME=$home/.state
  unset DBUS_SESSION_BUS_ADDRESS
}

# Times each tool (cmd_TOOL, writing into $out) twice in turns; $1 label, $2 the version folder on disk.
measure() {
  local label=$1 version=$2 round name t kib rc line qv text sep=" "
  local -A best=() broken=()
  local -a tools=(stellwin_backup cp curl rclone_1 rclone_4)
  cmd_cp=(cp -a "$version/tree" "$out/tree")
  for round in 1 2; do
    local -a order=("${tools[@]}")
    [[ $round == 2 ]] && order=(rclone_4 rclone_1 curl cp stellwin_backup)
    for name in "${order[@]}"; do
      [[ -n ${broken[$name]:-} ]] && continue
      rm -rf "$out"; mkdir -p "$out"; settle
      local -n cmd=cmd_$name
      if /usr/bin/time -o "$work/time.txt" -f "%e %M" "${cmd[@]}" >"$work/$name.log" 2>&1; then rc=0; else rc=$?; fi
      unset -n cmd
      read -r t kib <"$work/time.txt" || true
      if [[ $rc != 0 ]]; then broken[$name]="exit status $rc: $(head -c 300 "$work/$name.log")"; continue; fi
      if ! diff -r -q "$tree" "$out/tree" >/dev/null 2>&1; then broken[$name]="restored something else"; continue; fi
      echo "$label: round $round: $name $t s"
      if [[ -z ${best[$name]:-} ]] || (( $(echo "$t < ${best[$name]}" | bc -l) )); then best[$name]=$t; fi
    done
  done
  line="$label:"; qv=${best[stellwin_backup]:-}
  for name in "${tools[@]}"; do
    case $name in stellwin_backup) text=stellwin-backup ;; cp) text="cp -a" ;; curl) text="curl (1 connection)" ;;
      *) text="rclone --transfers ${name#rclone_}" ;; esac
    if [[ -n ${broken[$name]:-} ]]; then line+="$sep$text FAILED (${broken[$name]})"; failed=1
    elif [[ $name == stellwin_backup || -z $qv ]]; then line+="$sep$text ${best[$name]} s"
    else line+="$sep$text ${best[$name]} s ($(printf '%.2f' "$(echo "$qv / ${best[$name]}" | bc -l)")x)"; fi
    sep="; "
  done
  reports+=("$line")
}

# Backs the tree up once with stellwin-backup; prints the version folder found below $1.
backup_once() {
  "$program" group add Bench "$tree" >/dev/null
  "$program" backup Bench >/dev/null
  compgen -G "$1/Bench/*.backup" | head -n 1
}

bench_local() {
  new_home local
  local dest=$work/local-dest version
  mkdir -p "$dest"
  "$program" target add --type local --title Disk --path "$dest" --default >/dev/null
  version=$(backup_once "$dest")
  out=$work/out
  cmd_stellwin_backup=("$program" restore Bench --to "$out")
  cmd_curl=(curl -q -s -S -K "$work/curl-local.cfg")
  { for f in "${tree_list[@]}"; do echo "url = $(quote "file://$version/tree/$f")"; echo "output = $(quote "$out/tree/$f")"; done
    echo "create-dirs"; } >"$work/curl-local.cfg"
  cmd_rclone_1=(rclone copy -q "$version/tree" "$out/tree" --transfers 1)
  cmd_rclone_4=(rclone copy -q "$version/tree" "$out/tree" --transfers 4)
  measure local "$version"
}

bench_dav() {
  local d=$work/dav port user=bench pass version
  rm -rf "$d"
  pass=$(head -c 24 /dev/urandom | base64 | tr -dc 'A-Za-z0-9')
  port=$(free_port)
  start_apache "$d" "$port" "$user" "$pass" qv
  new_home dav
  "$program" target add --type dav --title NAS --server 127.0.0.1 --port "$port" --path qv --user "$user" \
    --password-stdin --default <<<"$pass" >/dev/null
  version=$(backup_once "$d/data/qv")
  out=$work/out
  local rel=${version#"$d/data/"} f
  cmd_stellwin_backup=("$program" restore Bench --to "$out")
  ( umask 077
    { echo "user = \"$user:$pass\""; echo "create-dirs"; echo "fail"
      for f in "${tree_list[@]}"; do echo "url = \"http://127.0.0.1:$port/$rel/tree/$f\""; echo "output = $(quote "$out/tree/$f")"; done
    } >"$work/curl-dav.cfg" )
  cmd_curl=(curl -q -s -S -K "$work/curl-dav.cfg")
  RCLONE_WEBDAV_PASS=$(rclone obscure - <<<"$pass"); export RCLONE_WEBDAV_PASS
  cmd_rclone_1=(rclone copy -q ":webdav:$rel/tree" "$out/tree" --webdav-url "http://127.0.0.1:$port" --webdav-user "$user" --transfers 1)
  cmd_rclone_4=(rclone copy -q ":webdav:$rel/tree" "$out/tree" --webdav-url "http://127.0.0.1:$port" --webdav-user "$user" --transfers 4)
  measure dav "$version"
}

bench_ftp() {
  local d=$work/ftp port pasv version
  rm -rf "$d"; mkdir -p "$d/root/backup"
  port=$(free_port); pasv=$(free_range 50)
  start_vsftpd "$d" "$port" "$pasv" 50
  new_home ftp
  "$program" target add --type ftp --title Box --server 127.0.0.1 --port "$port" --path backup --default >/dev/null
  version=$(backup_once "$d/root/backup")
  out=$work/out
  local rel=${version#"$d/root/"} f
  cmd_stellwin_backup=("$program" restore Bench --to "$out")
  { echo 'ftp-port = "127.0.0.1"'; echo "create-dirs"
    for f in "${tree_list[@]}"; do echo "url = \"ftp://127.0.0.1:$port/$rel/tree/$f\""; echo "output = $(quote "$out/tree/$f")"; done
  } >"$work/curl-ftp.cfg"
  cmd_curl=(curl -q -s -S -K "$work/curl-ftp.cfg")
  RCLONE_FTP_PASS=$(rclone obscure - <<<"x"); export RCLONE_FTP_PASS
  cmd_rclone_1=(rclone copy -q ":ftp:$rel/tree" "$out/tree" --ftp-host 127.0.0.1 --ftp-port "$port" --ftp-user anonymous --transfers 1)
  cmd_rclone_4=(rclone copy -q ":ftp:$rel/tree" "$out/tree" --ftp-host 127.0.0.1 --ftp-port "$port" --ftp-user anonymous --transfers 4)
  measure ftp "$version"
}

[[ $mode == local || $mode == all ]] && bench_local
[[ $mode == dav || $mode == all ]] && bench_dav
[[ $mode == ftp || $mode == all ]] && bench_ftp

echo
echo "Restore of a version of $((files + 1)) files ($files small files, one ${large_mb} MiB file); best of 2 runs each."
printf '%s\n' "${reports[@]}"
exit "$failed"
