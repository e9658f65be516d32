#!/usr/bin/env bash
# Installs what building, testing and benchmarking need on Debian 12 (run as root). The
# whole-system test builds a Debian 12 root file system (mmdebstrap) and boots it
# (systemd-nspawn, from systemd-container).
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
packages=(
    build-essential cmake ninja-build pkg-config
    libicu-dev nlohmann-json3-dev libplist-dev libsystemd-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    iproute2 util-linux procps curl wrk nginx-light python3 libglib2.0-bin
    chromium chromium-driver python3-selenium
    dpkg-dev file lintian systemd init-system-helpers man-db
    clang libfuzzer-14-dev libclang-rt-14-dev
    mmdebstrap debian-archive-keyring libdistro-info-perl systemd-container
)
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if ((${#missing[@]})); then
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
