#!/usr/bin/env bash
# Installs the Debian packages that are missing, then configures and builds into BUILD_DIR (default: build).
# Usage: scripts/setup.sh [--tests] [--sanitize] [BUILD_DIR]
#   --tests     also install what the tests and benchmarks need (servers, keyring, D-Bus, rclone)
#   --sanitize  build with AddressSanitizer and UndefinedBehaviorSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."

want_tests=0 sanitize=OFF build_dir=build
for arg in "$@"; do
  case "$arg" in
    --tests) want_tests=1 ;;
    --sanitize) sanitize=ON ;;
    -*) echo "setup.sh: unknown option $arg" >&2; exit 2 ;;
    *) build_dir=$arg ;;
  esac
done

packages=(build-essential cmake pkg-config gettext
  libcurl4-openssl-dev libglib2.0-dev libsecret-1-dev libxml2-dev nlohmann-json3-dev libcli11-dev uuid-dev
  libdbusmenu-glib-dev)
if [ "$want_tests" = 1 ]; then
  packages+=(googletest libgtest-dev dbus dbus-user-session gnome-keyring libsecret-tools
    apache2 apache2-utils nginx-light libnginx-mod-http-dav-ext vsftpd python3-pyftpdlib rclone php-cli php-sabre-dav
    openssl ca-certificates curl util-linux tzdata bc time clang-14 libclang-rt-14-dev valgrind
    haskell-status-notifier-item-utils libdbusmenu-tools)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" = 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

build_tests=OFF
[ "$want_tests" = 1 ] && build_tests=ON
cmake -S . -B "$build_dir" -DQV_SANITIZE="$sanitize" -DQV_BUILD_TESTS="$build_tests" >/dev/null
cmake --build "$build_dir" -j"$(nproc)"
