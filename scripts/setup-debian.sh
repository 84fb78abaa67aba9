#!/usr/bin/env bash
# Installs every Debian 12 package the build, the tests and the benchmarks need.
# Quiet, idempotent, and quick when everything is already there.
set -euo pipefail

packages=(
  build-essential cmake pkg-config ninja-build
  libgtest-dev libgmock-dev libbenchmark-dev
  libwxbase3.2-1 wx3.2-headers libwxgtk3.2-dev libwxsqlite3-3.2-dev
  libssl-dev libexpat1-dev liblua5.2-dev zlib1g-dev lua5.2 libcrypt-dev
  zip unzip sqlite3 libxml2-utils curl openssl python3 xxd uuid-runtime coreutils nginx-light tinyproxy wrk
  libpcre2-dev
)

# Groups for the packaging scripts, by name: `setup-debian.sh packaging`
# adds what scripts/package.sh needs, `fresh-system` what
# scripts/check-fresh-system.sh needs.
for group in "$@"; do
  case $group in
    packaging) packages+=(dpkg-dev file lintian help2man) ;;
    fresh-system) packages+=(dpkg-dev file lintian help2man debootstrap systemd systemd-container) ;;
    *) echo "setup: unknown group '$group'" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing packages: ${missing[*]} (run as root to install them)" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
