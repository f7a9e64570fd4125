#!/usr/bin/env bash
# Installs everything QuillCore needs to build, test, fuzz and benchmark on a
# fresh Debian 12 machine. Run as root (or with sudo available).
set -euo pipefail

packages=(
    build-essential g++ clang clang-format libclang-rt-14-dev cmake ninja-build pkg-config
    libexpat1-dev libssl-dev uuid-dev libcli11-dev libsystemd-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    libplist-dev libspdlog-dev
    dbus-daemon dbus-bin openssl python3
    nfs-kernel-server
)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [[ ${#missing[@]} -gt 0 ]]; then
    sudo=""
    [[ $(id -u) -eq 0 ]] || sudo=sudo
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
