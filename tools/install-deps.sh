#!/usr/bin/env bash
# Installs what the build, the tests and the demonstration need from Debian's packages.
# Does nothing (and needs no root) when everything is there. --bench adds what only bench/ compares with.
set -euo pipefail

packages=(
  build-essential cmake ninja-build ccache pkg-config git
  libace-dev libboost-dev libboost-regex-dev libyajl-dev
  libzstd-dev liblz4-dev zlib1g-dev libxxhash-dev libssl-dev libarchive-dev
  libsoci-dev libsqlite3-dev libpq-dev
  libcli11-dev libtomlplusplus-dev libcurl4-openssl-dev prometheus-cpp-dev libcctz-dev tzdata
  libgtest-dev libgmock-dev libbenchmark-dev
  postgresql-15 postgresql-client-15
  zstd lz4 gzip sqlite3 jq python3 procps bsdextrautils iproute2 curl openssl man-db
)
[ "${1:-}" = "--bench" ] && packages+=(pgbackrest time)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "install-deps: missing packages: ${missing[*]}; run this script as root" >&2; exit 1; }
  as_root=(sudo)
fi
echo "install-deps: installing ${missing[*]}"
# Debian's package starts a cluster of its own after installation; nothing here uses it.
if [ ! -e /etc/postgresql-common/createcluster.conf ]; then
  "${as_root[@]}" mkdir -p /etc/postgresql-common
  echo "create_main_cluster = false" | "${as_root[@]}" tee /etc/postgresql-common/createcluster.conf >/dev/null
fi
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -q >/dev/null
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}" >/dev/null
