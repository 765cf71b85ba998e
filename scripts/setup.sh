#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, skipping those
# already present (dpkg-dev and file: cpack reads the Debian package's dependencies
# with dpkg-shlibdeps; gdb: the tool's tests take its cores with gcore).
# Usage: scripts/setup.sh [EXTRA_PACKAGE...]
set -euo pipefail

packages=(cmake make g++ pkg-config libssl-dev libboost-filesystem-dev libboost-system-dev
          googletest libgtest-dev openssl libcli11-dev nlohmann-json3-dev expect help2man
          python3-cryptography libnss3-tools strace gdb dpkg-dev file "$@")

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
