#!/usr/bin/env bash
# Installs the Debian packages the project needs, and only those that are missing. Does nothing when all are
# present. Run as root, or with sudo available.
set -euo pipefail

packages=(cmake make g++ gcc clang libgtest-dev libconcurrentqueue-dev libcli11-dev libbenchmark-dev
          libclang-rt-14-dev g++-multilib valgrind python3 binutils)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
