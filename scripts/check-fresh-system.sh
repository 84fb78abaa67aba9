#!/usr/bin/env bash
# Checks the Debian packages on a fresh Debian 12: builds them
# (scripts/package.sh) unless a folder of them is given, makes a minimal
# bookworm with debootstrap, and runs scripts/fresh-system-steps.sh inside it.
# Root only. Where systemd is not running in the chroot (always, in a
# chroot), the service is run by its command line instead of systemctl.
#   check-fresh-system.sh [DEB_DIR]
# VESK_DEBIAN_MIRROR picks the mirror; VESK_DEBOOTSTRAP_TARBALL names a
# tarball of debootstrap's downloads, made on the first run and reused.
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" -eq 0 ] || { echo "check-fresh-system: run as root" >&2; exit 1; }
bash scripts/setup-debian.sh fresh-system
if [ $# -ge 1 ]; then debs=$(cd "$1" && pwd); else debs=$(dirname "$(bash scripts/package.sh | head -n 1)"); fi
mirror=${VESK_DEBIAN_MIRROR:-http://deb.debian.org/debian}

root=$(mktemp -d /var/tmp/vesk-fresh-root.XXXXXX)
cleanup() {
  # Nothing is deleted while anything is still mounted inside.
  local mounts
  mounts=$(findmnt -rn -o TARGET | grep -F "$root" | sort -r || true)
  for m in $mounts; do umount -l "$m" || true; done
  if findmnt -rn -o TARGET | grep -qF "$root"; then
    echo "check-fresh-system: $root is still mounted; left in place" >&2
  else
    rm -rf --one-file-system "$root"
  fi
}
trap cleanup EXIT

tarball=${VESK_DEBOOTSTRAP_TARBALL:-}
if [ -n "$tarball" ] && [ ! -f "$tarball" ]; then
  debootstrap --variant=minbase --make-tarball="$tarball" bookworm "$root" "$mirror" >&2
fi
debootstrap --variant=minbase ${tarball:+--unpack-tarball="$tarball"} bookworm "$root" "$mirror" >&2

mount -t proc proc "$root/proc"
cp /etc/resolv.conf "$root/etc/resolv.conf"
mkdir "$root/tmp/vesk-check"
cp "$debs"/vesk-agent_*.deb "$debs"/libvesk-core-dev_*.deb "$root/tmp/vesk-check/"
cp -r tests/packaging/consumer "$root/tmp/vesk-check/consumer"
cp scripts/fresh-system-steps.sh "$root/tmp/vesk-check/"
chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
  bash /tmp/vesk-check/fresh-system-steps.sh /tmp/vesk-check
