#!/bin/bash
# Times backups by stellwin-backup to a WebDAV server (Apache httpd + mod_dav) and to an FTP server
# (vsftpd), both started here on 127.0.0.1, against curl and rclone uploading the same tree to the same
# server in the same run, and reports stellwin-backup's peak memory. The tree: QV_BENCH_FILES small
# files (1-16 KiB, random contents) in 50 folders plus one file of QV_BENCH_LARGE_MB MiB (a 1 MiB random
# block repeated, so nothing on the way can shortcut zeros).
#
# What runs, per server:
#   stellwin-backup   `stellwin-backup backup Bench`, the group holding the tree, to a dav destination
#                     (user and password, the password given on stdin) or an ftp destination (anonymous);
#   curl              ONE curl process reading a -K config file, so one connection (for FTP one control
#                     connection; each file has its own passive data connection, as with every client).
#                     WebDAV: curl cannot make collections while uploading, so the same config first has
#                     one MKCOL entry per folder (`next` separates them), then every upload-file/url pair.
#                     The MKCOLs are therefore inside the timed process, as they are for the others.
#                     The number of connections is checked in the server's access log.
#                     FTP: `ftp-create-dirs` and every upload-file/url pair, in active mode
#                     (`ftp-port`): in passive mode curl 7.88 waits a full second before opening the
#                     data connection of about one file in five (seen with --trace-time: "ftp_perform
#                     ends with SECONDARY: 0", then one second later "Trying"), which would time that
#                     wait and not the upload;
#   rclone            `rclone copy` with --transfers 1 and with --transfers 4 (webdav or ftp backend,
#                     config file in the work folder, password only in the environment).
# Each tool runs twice in turns (the order reversed the second time), with the server's upload folder
# emptied and the disk settled before every run; the best time counts. Before a time counts, the
# upload is checked complete at the server's folder (file count and total bytes), else that tool is
# reported as failed. (N.NNx) after a tool's time is stellwin-backup's time divided by that tool's:
# below 1 means stellwin-backup was faster.
# Everything happens in an isolated HOME under the work folder; servers listen on 127.0.0.1 only, on
# free ports, keep their config, data and logs in the work folder and are stopped by PID on exit.
# The WebDAV password is made up for the run and never printed nor put on a command line.
#
# webdav: the same tree to the same Apache over HTTPS (a certificate authority made for the run, given to
# stellwin-backup with --ca-file, to curl with cacert and to rclone with --ca-cert), to a webdav destination.
#
# Usage: bench/remote_bench.sh [dav|webdav|ftp|all] [work folder]
# Environment: QV_PROGRAM (default build/stellwin-backup), QV_BENCH_FILES (5000),
#              QV_BENCH_LARGE_MB (512), QV_BENCH_TIMEOUT (seconds one timed command may take, 1800)
# Exit status: 0 all measured, 1 a tool failed or its upload was incomplete, 2 bad usage or setup.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
# shellcheck source=bench/servers.sh
source "$here/servers.sh"
limit=${QV_BENCH_TIMEOUT:-1800}
mode=${1:-all}
case $mode in dav|webdav|ftp|all) ;; *) echo "usage: $0 [dav|webdav|ftp|all] [work folder]" >&2; exit 2 ;; esac
[[ -x $program ]] || { echo "stellwin-backup not found at $program: build it or set QV_PROGRAM" >&2; exit 2; }
# GNU time measures the peak memory; bc does the arithmetic. Neither is on a minimal Debian.
ensure_tools /usr/bin/time:time bc:bc curl:curl rclone:rclone ss:iproute2
if [[ $mode != ftp ]]; then ensure_tools /usr/sbin/apache2:apache2 htpasswd:apache2-utils openssl:openssl; fi
if [[ $mode == ftp || $mode == all ]]; then ensure_tools /usr/sbin/vsftpd:vsftpd; fi

temporary=""
if [[ $# -ge 2 ]]; then work=$(mkdir -p "$2" && cd "$2" && pwd); else
  work=$(mktemp -d "${TMPDIR:-/tmp}/qv-remote-bench.XXXXXX"); temporary=$work; fi

# Servers started here, stopped by PID on any exit, also when a step fails.
server_pids=()
cleanup() {
  local pid
  for pid in "${server_pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${server_pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -f "$work/curl-dav.cfg"
  if [[ -n $temporary ]]; then rm -rf "$temporary"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Nothing may go through a proxy: every address is 127.0.0.1.
unset http_proxy https_proxy ftp_proxy all_proxy HTTP_PROXY HTTPS_PROXY FTP_PROXY ALL_PROXY
export NO_PROXY=127.0.0.1 no_proxy=127.0.0.1

make_small_files() {  # folder count: COUNT files of 1-16 KiB in 50 folders
  perl -e '
    my ($dir, $count) = @ARGV; srand(11);
    open(my $r, "<:raw", "/dev/urandom") or die; read($r, my $pool, 1 << 20);
    for my $i (0 .. $count - 1) {
      my $sub = sprintf("%s/d%02d", $dir, $i % 50);
      mkdir $sub unless -d $sub;
      my $size = 1024 + int(rand(15 * 1024 + 1));
      open(my $f, ">:raw", "$sub/f$i.dat") or die; print $f substr($pool, int(rand((1 << 20) - $size)), $size); close $f;
    }' "$1" "$2"
}
make_large_file() {  # file MiB: a 1 MiB random block repeated
  perl -e '
    my ($path, $mib) = @ARGV;
    open(my $r, "<:raw", "/dev/urandom") or die; read($r, my $block, 1 << 20);
    open(my $f, ">:raw", $path) or die; print $f $block for 1 .. $mib; close $f or die;' "$1" "$2"
}

# Lets the disk settle: what an earlier upload or removal left to write back must not be paid for by
# the next timed command (ext4 frees a removed tree's blocks in the background).
settle() { sync; sleep 3; }

# Prints "FILES BYTES" of the regular files below a folder.
tally() { find "$1" -type f -printf '%s\n' 2>/dev/null | awk '{ n++; b += $1 } END { printf "%d %d\n", n, b }'; }

display() {  # tool: its name in the report
  case $1 in
    stellwin_backup) echo "stellwin-backup" ;;
    curl) echo "curl (1 connection)" ;;
    rclone_1) echo "rclone --transfers 1" ;;
    rclone_4) echo "rclone --transfers 4" ;;
  esac
}

quote() { local s=${1//\\/\\\\}; printf '"%s"' "${s//\"/\\\"}"; }  # a string for a curl config file

echo "Building a tree of $files small files in 50 folders and one ${large_mb} MiB file in $work ..."
tree=$work/tree
rm -rf "$tree"; mkdir -p "$tree"
make_small_files "$tree" "$files"
make_large_file "$tree/large.bin" "$large_mb"
read -r tree_files tree_bytes < <(tally "$tree")
mapfile -t tree_dirs < <(cd "$tree" && find . -mindepth 1 -type d | sed 's|^\./||' | sort)
mapfile -t tree_list < <(cd "$tree" && find . -type f | sed 's|^\./||' | sort)

export RCLONE_CONFIG=$work/rclone.conf
failed=0
reports=()

# Times the tools in turns against one server. Each tool is a command in the array cmd_TOOL plus the
# folder its upload lands in; see the callers.
#   $1 label (dav, ftp)  $2 folder emptied between runs (the server's data)  then TOOL=FOLDER pairs,
#   stellwin-backup first; FOLDER is relative to $2 and may hold one glob (the version folder).
measure() {
  local label=$1 data=$2; shift 2
  local -a tools=() where=()
  local pair; for pair in "$@"; do tools+=("${pair%%=*}"); where+=("${pair#*=}"); done
  local -A best=() peak=() broken=() conns=()
  local round i name folder t rc got
  for round in 1 2; do
    local -a order=(); for i in "${!tools[@]}"; do order+=("$i"); done
    [[ $round == 2 ]] && { local -a rev=(); for ((i = ${#order[@]} - 1; i >= 0; i--)); do rev+=("${order[i]}"); done; order=("${rev[@]}"); }
    for i in "${order[@]}"; do
      name=${tools[i]}
      [[ -n ${broken[$name]:-} ]] && continue
      find "$data" -mindepth 2 -maxdepth 2 -exec rm -rf {} +   # empties each tool's upload folder
      settle
      local log_before=0; [[ -f $work/$label/logs/access.log ]] && log_before=$(wc -l <"$work/$label/logs/access.log")
      local -n cmd=cmd_$name
      if timeout -k 30 "$limit" /usr/bin/time -o "$work/time.txt" -f "%e %M" "${cmd[@]}" \
           >"$work/$name.log" 2>&1; then rc=0; else rc=$?; fi
      unset -n cmd
      read -r t kib <"$work/time.txt" || true
      if [[ $rc != 0 ]]; then
        broken[$name]="exit status $rc; its output begins:"$'\n'"$(head -n 8 "$work/$name.log" | sed 's/^/      /')"
        if [[ $name == stellwin_backup ]] && grep -q -- '(-4)' "$work/$name.log"; then
          broken[$name]+=$'\n'"      (this build cannot write to $label destinations yet; rerun the script once it can)"
        fi
        echo "$label: round $round: $(display "$name") FAILED (exit status $rc)"
        continue
      fi
      # shellcheck disable=SC2086  # the folder's one glob is meant to expand
      folder=$(compgen -G "$data/${where[i]}" | head -n 1 || true)
      got=$( [[ -n $folder ]] && tally "$folder" || echo "0 0")
      if [[ $got != "$tree_files $tree_bytes" ]]; then
        broken[$name]="upload incomplete: ${got% *} of $tree_files files, ${got#* } of $tree_bytes bytes arrived"
        echo "$label: round $round: $(display "$name") INCOMPLETE ($got of $tree_files $tree_bytes)"
        continue
      fi
      if [[ -f $work/$label/logs/access.log ]]; then
        conns[$name]=$(tail -n +"$((log_before + 1))" "$work/$label/logs/access.log" | cut -d' ' -f1 | sort -u | wc -l)
      fi
      echo "$label: round $round: $(display "$name") $t s${conns[$name]:+, ${conns[$name]} connection(s)}"
      if [[ -z ${best[$name]:-} ]] || (( $(echo "$t < ${best[$name]}" | bc -l) )); then best[$name]=$t; fi
      if [[ $name == stellwin_backup ]] && (( kib > ${peak[$name]:-0} )); then peak[$name]=$kib; fi
    done
  done
  find "$data" -mindepth 2 -maxdepth 2 -exec rm -rf {} +

  local line="$label:" qv=${best[stellwin_backup]:-} text sep=" "
  for name in "${tools[@]}"; do
    text=$(display "$name")
    if [[ -n ${broken[$name]:-} ]]; then
      line+="$sep$text FAILED"; failed=1
    elif [[ $name == stellwin_backup || -z $qv ]]; then
      line+="$sep$text ${best[$name]} s"
    else
      line+="$sep$text ${best[$name]} s ($(printf '%.2f' "$(echo "$qv / ${best[$name]}" | bc -l)")x)"
    fi
    sep="; "
  done
  reports+=("$line")
  [[ -n ${peak[stellwin_backup]:-} ]] && reports+=("$label: stellwin-backup peak memory $(printf '%.1f' "$(echo "${peak[stellwin_backup]} / 1024" | bc -l)") MB")
  [[ -n ${conns[curl]:-} && ${conns[curl]} != 1 ]] && reports+=("$label: WARNING: curl used ${conns[curl]} connections, not 1")
  if [[ -n ${conns[*]:-} ]]; then
    local c=""; for name in "${tools[@]}"; do [[ -n ${conns[$name]:-} ]] && c+=" $(display "$name" | sed 's/ (1 connection)//') ${conns[$name]},"; done
    reports+=("$label: connections seen by the server in each tool's last run (distinct client ports; ports reused over thousands of connections count once):${c%,}")
  fi
  for name in "${tools[@]}"; do
    [[ -n ${broken[$name]:-} ]] && reports+=("$label: $(display "$name") FAILED: ${broken[$name]}")
  done
  return 0
}

# A fresh isolated home for stellwin-backup, with the group Bench holding the tree.
new_home() {  # name
  local home=$work/home-$1
  rm -rf "$home" && mkdir -p "$home/.config" && chmod 0700 "$home" "$home/.config"
  export HOME=$home XDG_CONFIG_HOME=$home/.config XDG_RUNTIME_DIR=$home
  unset DBUS_SESSION_BUS_ADDRESS
}

bench_dav() {  # [webdav]: over HTTPS to a webdav destination
  local kind=${1:-dav} d=$work/${1:-dav} port user=bench pass scheme=http ca=""
  rm -rf "$d"
  pass=$(head -c 24 /dev/urandom | base64 | tr -dc 'A-Za-z0-9')
  port=$(free_port)
  if [[ $kind == webdav ]]; then
    scheme=https ca=$work/ca
    mkdir -p "$ca"
    ( cd "$ca"
      openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=Bench CA" -keyout ca.key -out ca.pem
      openssl req -newkey rsa:2048 -nodes -subj "/CN=127.0.0.1" -keyout server.key -out server.csr
      printf 'subjectAltName=IP:127.0.0.1\n' >server.ext
      openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile server.ext -out server.pem
      chmod 0644 server.key ) >"$work/openssl.log" 2>&1
  fi
  apache_tls=$ca start_apache "$d" "$port" "$user" "$pass" qv curl rclone1 rclone4
  echo "$kind: Apache httpd + mod_dav on $scheme://127.0.0.1:$port"

  new_home "$kind"
  if [[ $kind == webdav ]]; then
    "$program" target add --type webdav --title BenchWebDAV --url "https://127.0.0.1:$port/qv" --ca-file "$ca/ca.pem" \
      --user "$user" --password-stdin --default <<<"$pass" >/dev/null
  else
    "$program" target add --type dav --title BenchDAV --server 127.0.0.1 --port "$port" --path qv \
      --user "$user" --password-stdin --default <<<"$pass" >/dev/null
  fi
  "$program" group add Bench "$tree" >/dev/null

  # One curl process: MKCOLs first (one entry each, split by `next`), then every upload.
  local base="$scheme://127.0.0.1:$port/curl/tree" cfg=$work/curl-dav.cfg dir f trust=""
  [[ -n $ca ]] && trust="cacert = \"$ca/ca.pem\""
  ( umask 077
    { echo "url = \"$base/\""; echo "user = \"$user:$pass\""; echo 'request = "MKCOL"'; echo 'output = "/dev/null"'; echo "fail"; echo "$trust"
      for dir in "${tree_dirs[@]}"; do
        echo "next"; echo "url = \"$base/$dir/\""; echo "user = \"$user:$pass\""; echo 'request = "MKCOL"'; echo 'output = "/dev/null"'; echo "fail"; echo "$trust"
      done
      echo "next"; echo "user = \"$user:$pass\""; echo "fail"; echo "$trust"
      for f in "${tree_list[@]}"; do
        echo "upload-file = $(quote "$tree/$f")"; echo "url = \"$base/$f\""; echo 'output = "/dev/null"'
      done
    } >"$cfg" )
  cmd_stellwin_backup=("$program" backup Bench)
  cmd_curl=(curl -q -s -S -K "$cfg")
  # rclone reads the (obscured) password from its environment, not from its arguments.
  RCLONE_WEBDAV_PASS=$(rclone obscure - <<<"$pass"); export RCLONE_WEBDAV_PASS
  local -a rclone=(rclone copy -q "$tree" --webdav-url "$scheme://127.0.0.1:$port" --webdav-user "$user")
  [[ -n $ca ]] && rclone+=(--ca-cert "$ca/ca.pem")
  cmd_rclone_1=("${rclone[@]}" :webdav:rclone1/tree --transfers 1)
  cmd_rclone_4=("${rclone[@]}" :webdav:rclone4/tree --transfers 4)
  measure "$kind" "$d/data" "stellwin_backup=qv/Bench/*/tree" curl=curl/tree rclone_1=rclone1/tree rclone_4=rclone4/tree
}

bench_ftp() {
  local d=$work/ftp port pasv
  rm -rf "$d"; mkdir -p "$d/root/backup" "$d/root/curl" "$d/root/rclone1" "$d/root/rclone4" "$d/empty"
  port=$(free_port)
  pasv=$(free_range 200)
  start_vsftpd "$d" "$port" "$pasv" 200
  echo "ftp: vsftpd on 127.0.0.1:$port, passive ports $pasv-$((pasv + 199))"

  new_home ftp
  "$program" target add --type ftp --title BenchFTP --server 127.0.0.1 --port "$port" --path backup \
    --default >/dev/null
  "$program" group add Bench "$tree" >/dev/null

  # One curl process, one control connection, the folders made as needed, active mode (see the top).
  local base="ftp://127.0.0.1:$port/curl/tree" f
  { echo "ftp-create-dirs"; echo 'ftp-port = "127.0.0.1"'
    for f in "${tree_list[@]}"; do
      echo "upload-file = $(quote "$tree/$f")"; echo "url = \"$base/$f\""; echo 'output = "/dev/null"'
    done
  } >"$work/curl-ftp.cfg"
  cmd_stellwin_backup=("$program" backup Bench)
  cmd_curl=(curl -q -s -S -K "$work/curl-ftp.cfg")
  RCLONE_FTP_PASS=$(rclone obscure - <<<"x"); export RCLONE_FTP_PASS
  local -a rclone=(rclone copy -q "$tree" --ftp-host 127.0.0.1 --ftp-port "$port" --ftp-user anonymous)
  cmd_rclone_1=("${rclone[@]}" :ftp:rclone1/tree --transfers 1)
  cmd_rclone_4=("${rclone[@]}" :ftp:rclone4/tree --transfers 4)
  measure ftp "$d/root" "stellwin_backup=backup/Bench/*/tree" curl=curl/tree rclone_1=rclone1/tree rclone_4=rclone4/tree
}

if [[ $mode == dav || $mode == all ]]; then bench_dav; fi
if [[ $mode == webdav || $mode == all ]]; then bench_dav webdav; fi
if [[ $mode == ftp || $mode == all ]]; then bench_ftp; fi

echo
echo "Tree: $tree_files files, $tree_bytes bytes ($files small files, one ${large_mb} MiB file); best of 2 runs each."
printf '%s\n' "${reports[@]}"
exit "$failed"
