#!/usr/bin/env bash
# Runs a command that may trust a certificate authority made for the tests. In a temporary folder it
# makes the authority, a server certificate it signed for 127.0.0.1 and localhost, and a self-signed
# certificate that nobody trusts; QV_TEST_CA_DIR names the folder. As root, with unshare, the command
# runs in a private mount namespace where the system's CA bundle is replaced, for it alone, by the
# bundle plus the test authority: the machine is left as it was. Otherwise the command runs without
# QV_TEST_CA_DIR, and the tests that need it skip themselves.
set -euo pipefail
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
system_bundle=/etc/ssl/certs/ca-certificates.crt

if [ "$(id -u)" != 0 ] || ! command -v unshare >/dev/null || ! command -v openssl >/dev/null ||
   [ ! -f "$system_bundle" ]; then
  echo "with-test-ca.sh: needs root, unshare, openssl and $system_bundle; running without the test CA" >&2
  exec "$@"
fi

(
  cd "$dir"
  openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=Stellwin Test CA" \
    -keyout ca.key -out ca.pem
  openssl req -newkey rsa:2048 -nodes -subj "/CN=127.0.0.1" -keyout server.key -out server.csr
  printf 'subjectAltName=IP:127.0.0.1,DNS:localhost\n' > server.ext
  openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 \
    -extfile server.ext -out server.pem
  openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=127.0.0.1" \
    -addext "subjectAltName=IP:127.0.0.1,DNS:localhost" -keyout untrusted.key -out untrusted.pem
  cat "$system_bundle" ca.pem > bundle.crt
  chmod 0644 bundle.crt server.pem untrusted.pem
) >"$dir/openssl.log" 2>&1 || { cat "$dir/openssl.log" >&2; exit 1; }
export QV_TEST_CA_DIR="$dir"
# Not exec: the trap removes the folder when the command ends.
unshare -m sh -c 'mount --bind "$0" /etc/ssl/certs/ca-certificates.crt && exec "$@"' "$dir/bundle.crt" "$@"
