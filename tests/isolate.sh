#!/usr/bin/env bash
# Runs a command where it cannot touch the machine's real daemon paths: a private mount
# and network namespace with a private, empty /run (so /run/orvex, the daemon's status
# files, is private too), in which /run/lock (/var/lock), /var/log/orvex and
# /usr/local/sbin are fresh temporary folders (all of /var/log is, so that not even the
# orvex folder is created on the real disk), /etc is a throw-away overlay (the devices'
# settings in /etc/orvex, the unit's drop-ins), /usr/sbin/lsof exists (Debian keeps lsof
# in /usr/bin), and loopback is up. Abstract bus addresses live in the network
# namespace, so tests that use the same MAC can run in parallel.
#
#   isolate.sh [--keep] COMMAND [ARGS...]
# ORVEX_ISOLATE_SBIN: files copied into the private /usr/local/sbin first.
# Inside, ORVEX_ISOLATED=1 and ORVEX_ISOLATE_ROOT name the temporary root.
set -euo pipefail
if [ "${ORVEX_ISOLATED:-}" = 1 ]; then exec "$@"; fi
if [ "$(id -u)" != 0 ]; then
  echo "isolate.sh: needs root for a private mount namespace" >&2
  exit 77
fi
root=$(mktemp -d /tmp/orvex-isolate.XXXXXX)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root"/lock "$root"/log "$root"/sbin "$root"/ovl/up "$root"/ovl/work "$root"/ovl/local-up "$root"/ovl/local-work \
  "$root"/ovl/etc-up "$root"/ovl/etc-work
export ORVEX_ISOLATE_ROOT=$root
unshare --mount --net --propagation private -- bash -euc '
  root=$ORVEX_ISOLATE_ROOT
  mount -t overlay overlay -o lowerdir=/usr/sbin,upperdir=$root/ovl/up,workdir=$root/ovl/work /usr/sbin
  mount -t overlay overlay -o lowerdir=/etc,upperdir=$root/ovl/etc-up,workdir=$root/ovl/etc-work /etc
  [ -e /usr/sbin/lsof ] || ln -s "$(command -v lsof || echo /usr/bin/lsof)" /usr/sbin/lsof
  mount -t tmpfs -o mode=0755 orvex-run /run
  mkdir -p /run/lock /run/orvex
  mount --bind "$root/lock" /run/lock
  mount --bind "$root/log" /var/log
  mkdir -p /var/log/orvex
  # An overlay, so a missing /usr/local/sbin can be made without touching the disk.
  mount -t overlay overlay -o lowerdir=/usr/local,upperdir=$root/ovl/local-up,workdir=$root/ovl/local-work /usr/local
  mkdir -p /usr/local/sbin
  mount --bind "$root/sbin" /usr/local/sbin
  for f in ${ORVEX_ISOLATE_SBIN:-}; do cp "$f" /usr/local/sbin/; done
  ip link set lo up
  export ORVEX_ISOLATED=1
  exec "$@"
' isolate "$@"
