#!/usr/bin/env bash
# Checks the Debian packages on a fresh Debian 12: builds them
# (scripts/package.sh) unless a folder of them is given, makes a minimal
# bookworm with debootstrap, and runs scripts/fresh-system-steps.sh inside it
# twice: in a chroot, where the service is run by its command line, then with
# the same system booted by systemd-nspawn, where systemctl runs it
# (VESK_FRESH_BOOT=0 leaves that out). Root only.
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
# Under /root: a booted container has a /tmp of its own.
check=$root/root/vesk-check
mkdir "$check"
cp "$debs"/vesk-agent_*.deb "$debs"/libvesk-core-dev_*.deb "$check/"
cp -r tests/packaging/consumer "$check/consumer"
cp scripts/fresh-system-steps.sh "$check/"
echo "== in a chroot of a fresh bookworm"
status=0
chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
  bash /root/vesk-check/fresh-system-steps.sh /root/vesk-check || status=1
umount "$root/proc"

# The same steps again with systemd running, in the same system booted as a
# container (the steps installed systemd): systemctl starts and stops the
# service, and the maintainer scripts meet a running systemd. The container
# shares the host's network, for the mirror. The checks wait for nothing but
# basic.target: a service that the dependencies bring and that fails in a
# container (dbus does here) must not hold them back.
if [ "${VESK_FRESH_BOOT:-1}" = 0 ]; then
  echo "== not booted: VESK_FRESH_BOOT=0"
  exit $status
fi
cat >"$root/etc/systemd/system/vesk-check.service" <<'UNIT'
[Unit]
Description=checks of the vesk packages
SuccessAction=poweroff-force
FailureAction=poweroff-force
[Service]
Type=oneshot
Environment=LANG=C.UTF-8 HOME=/root
ExecStart=/bin/sh -c 'bash /root/vesk-check/fresh-system-steps.sh /root/vesk-check >/root/vesk-check/steps.log 2>&1; echo $$? >/root/vesk-check/steps.status'
[Install]
WantedBy=multi-user.target
UNIT
ln -s /etc/systemd/system/vesk-check.service "$root/etc/systemd/system/multi-user.target.wants/"
echo "== in the same system, booted by systemd-nspawn"
# Without a machined on the host the container registers nowhere.
timeout 1200 systemd-nspawn --quiet --register=no --keep-unit --console=pipe -D "$root" --boot \
  </dev/null >&2 || true
if [ -f "$check/steps.status" ]; then
  cat "$check/steps.log"
  [ "$(cat "$check/steps.status")" = 0 ] || status=1
else
  echo "check-fresh-system: the booted container ran no checks" >&2
  status=1
fi
exit $status
