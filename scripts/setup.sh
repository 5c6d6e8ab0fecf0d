#!/usr/bin/env bash
# Installs every build and test dependency from Debian's packages. Idempotent and quiet
# when everything is already present.
set -euo pipefail
packages=(
  build-essential cmake pkg-config git
  libpoco-dev libjansson-dev libmariadb-dev libssl-dev
  libgtest-dev libgmock-dev
  lsof iproute2 util-linux procps curl openssl file
  clang libclang-rt-14-dev
  libsystemd-dev dbus ccache gcovr
  debhelper dpkg-dev lintian systemd man-db systemd-container debootstrap
)
packages+=("$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
if [ "$(id -u)" != 0 ]; then
  echo "setup.sh: missing packages (${missing[*]}); run as root" >&2
  exit 1
fi
echo "setup.sh: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
