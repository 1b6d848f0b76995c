# The servers of the benchmarks, on 127.0.0.1 only, with their configuration, data and logs in a folder
# of the caller's: Apache httpd + mod_dav behind HTTP Basic authentication, and vsftpd serving anonymous
# writes. Sourced by the benchmark scripts, which keep the array server_pids and stop what it names.

# The settings that the benchmarks of servers read from the environment. Requires: root, the repository.
program=${QV_PROGRAM:-$root/build/stellwin-backup}
files=${QV_BENCH_FILES:-5000}
large_mb=${QV_BENCH_LARGE_MB:-512}

# ensure_tools COMMAND:PACKAGE...: installs the Debian package of each command that is missing.
ensure_tools() {
  local tool
  for tool in "$@"; do
    command -v "${tool%%:*}" >/dev/null || DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${tool##*:}" >/dev/null
  done
}

# Free ports of 127.0.0.1, picked at random.
port_is_free() { [[ -z $(ss -Htan "( sport = :$1 )") ]]; }
free_port() {  # prints a port of 127.0.0.1 that nothing uses
  local port
  while :; do port=$((20000 + RANDOM % 30000)); port_is_free "$port" && { echo "$port"; return; }; done
}
free_range() {  # count: prints the first port of COUNT consecutive free ports
  local base i
  while :; do
    base=$((20000 + RANDOM % 30000))
    for ((i = 0; i < $1; i++)); do port_is_free $((base + i)) || continue 2; done
    echo "$base"; return
  done
}

# start_apache FOLDER PORT USER PASSWORD [COLLECTION...]: serves FOLDER/data (with the collections made in
# it) at "/"; logs each request's client port, method, status and path to FOLDER/logs/access.log. Returns
# once the server answers. With apache_tls set to a folder holding server.pem, server.key and ca.pem, it
# serves HTTPS with that certificate.
start_apache() {
  local d=$1 port=$2 user=$3 pass=$4 collection
  shift 4
  mkdir -p "$d/data" "$d/logs" "$d/lock" "$d/run"
  for collection in "$@"; do mkdir -p "$d/data/$collection"; done
  htpasswd -ciB "$d/htpasswd" "$user" <<<"$pass" 2>/dev/null
  local mods=/usr/lib/apache2/modules m
  {
    echo "ServerRoot \"$d\""
    echo "ServerName 127.0.0.1"
    echo "Listen 127.0.0.1:$port"
    echo "PidFile \"$d/run/httpd.pid\""
    echo "DefaultRuntimeDir \"$d/run\""
    echo "ErrorLog \"$d/logs/error.log\""
    for m in mpm_event authz_core authz_user authn_core authn_file auth_basic dav dav_fs; do
      echo "LoadModule ${m}_module $mods/mod_$m.so"
    done
    if [[ -n ${apache_tls:-} ]]; then
      echo "LoadModule ssl_module $mods/mod_ssl.so"
      echo "LoadModule socache_shmcb_module $mods/mod_socache_shmcb.so"
      echo "SSLSessionCache shmcb:$d/run/ssl_scache(512000)"
      echo "SSLEngine on"
      echo "SSLCertificateFile \"$apache_tls/server.pem\""
      echo "SSLCertificateKeyFile \"$apache_tls/server.key\""
    fi
    # The client's port tells the connections apart.
    echo 'LogFormat "%{remote}p %m %>s %U" bench'
    echo "CustomLog \"$d/logs/access.log\" bench"
    if [[ $EUID == 0 ]]; then echo "User nobody"; echo "Group nogroup"; fi
    echo "StartServers 1"
    echo "ServerLimit 1"
    echo "ThreadsPerChild 25"
    echo "MaxRequestWorkers 25"
    echo "MinSpareThreads 5"
    echo "MaxSpareThreads 50"
    echo "KeepAlive On"
    echo "MaxKeepAliveRequests 0"
    echo "KeepAliveTimeout 60"
    echo "LimitRequestBody 0"
    echo "DavLockDB \"$d/lock/DavLock\""
    echo "DocumentRoot \"$d/data\""
    echo "<Directory />"
    echo "  AllowOverride None"
    echo "  Require all denied"
    echo "</Directory>"
    echo "<Directory \"$d/data\">"
    echo "  Dav On"
    echo "  AuthType Basic"
    echo "  AuthName bench"
    echo "  AuthBasicProvider file"
    echo "  AuthUserFile \"$d/htpasswd\""
    echo "  Require valid-user"
    echo "</Directory>"
  } >"$d/httpd.conf"
  # As root the server's workers run as nobody, who must reach the folder, read the password file and
  # write the data and the lock database.
  if [[ $EUID == 0 ]]; then
    chmod o+x "$(dirname "$d")" "$d"
    chgrp nogroup "$d/htpasswd" && chmod 0640 "$d/htpasswd"
    chown -R nobody:nogroup "$d/data" "$d/lock"
  fi

  /usr/sbin/apache2 -f "$d/httpd.conf" -DFOREGROUND &
  server_pids+=($!)
  local tries=0
  local -a probe=(curl -q -s -o /dev/null -w '%{http_code}' "http://127.0.0.1:$port/")
  [[ -n ${apache_tls:-} ]] && probe=(curl -q -s -o /dev/null -w '%{http_code}' --cacert "$apache_tls/ca.pem" "https://127.0.0.1:$port/")
  until [[ $("${probe[@]}") == 401 ]]; do
    (( ++tries < 100 )) || { echo "dav: Apache did not answer; the end of its log:" >&2; tail -n 5 "$d/logs/error.log" >&2 || true; exit 2; }
    sleep 0.1
  done
}

# start_vsftpd FOLDER PORT PASSIVE_FIRST PASSIVE_COUNT: serves FOLDER/root to anonymous users, with writes.
# Returns once the server answers.
start_vsftpd() {
  local d=$1 port=$2 pasv=$3 count=$4
  mkdir -p "$d/root" "$d/empty"
  cat >"$d/vsftpd.conf" <<EOF
listen=YES
listen_ipv6=NO
background=NO
listen_address=127.0.0.1
listen_port=$port
run_as_launching_user=YES
anonymous_enable=YES
no_anon_password=YES
anon_root=$d/root
local_enable=NO
write_enable=YES
anon_upload_enable=YES
anon_mkdir_write_enable=YES
anon_other_write_enable=YES
anon_umask=022
secure_chroot_dir=$d/empty
pasv_enable=YES
pasv_min_port=$pasv
pasv_max_port=$((pasv + count - 1))
pasv_address=127.0.0.1
seccomp_sandbox=NO
xferlog_enable=NO
EOF
  /usr/sbin/vsftpd "$d/vsftpd.conf" &
  server_pids+=($!)
  local tries=0
  until curl -q -s -o /dev/null "ftp://127.0.0.1:$port/"; do
    (( ++tries < 100 )) || { echo "ftp: vsftpd did not start" >&2; exit 2; }
    sleep 0.1
  done
}
