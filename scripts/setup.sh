#!/usr/bin/env bash
# Installs the Debian packages that one make target needs, and only those that are missing; does nothing when all
# are present. Usage: scripts/setup.sh TARGET... (demo, report, browser, viewers, build, test, readme, asan, tsan, m32,
# fuzz, valgrind, bench, mutants, package, format).
# Needs root or sudo only when something is missing; without either it stops with the command to run.
set -euo pipefail

# report: what building oltb report needs: the charting library of its page (dygraphs), built into the tool so that
# the installed tool needs nothing of it, and zlib, which packs the page's numbers. browser: chromium, for the test
# that opens a report page in a real browser and for the README's screenshot of one, and poppler-utils (pdftoppm),
# with which the test looks at the page printed to PDF. build: python3-venv, -pip,
# -setuptools and -wheel let the Python test pip-install the package into a virtual environment, offline. viewers:
# the programs people read the files with, which a test opens them in: GTKWave (under Xvfb, with xauth for
# xvfb-run), sigrok-cli and pandas.
declare -A needs=(
  [report]="libjs-dygraphs zlib1g-dev"
  [browser]="chromium poppler-utils"
  [viewers]="gtkwave xvfb xauth sigrok-cli python3-pandas"
  [demo]="cmake make g++ libconcurrentqueue-dev libcli11-dev nlohmann-json3-dev"
  [build]="cmake make g++ libconcurrentqueue-dev libcli11-dev nlohmann-json3-dev libgtest-dev binutils libhdf5-dev libdeflate-dev python3-numpy python3-pytest python3-h5py python3-venv python3-pip python3-setuptools python3-wheel"
  [m32]="g++-multilib pkg-config"
  [fuzz]="clang libclang-rt-14-dev"
  [valgrind]="valgrind"
  [format]="clang-format"
  [bench]="libbenchmark-dev"
  [mutants]="python3 ninja-build lld util-linux"
  [package]="dpkg-dev file pkg-config lintian"
  # monitor: the web server of oltb monitor (cpp-httplib, whose compiled library pkg-config describes). monitor-test:
  # a real Prometheus for its test (started by the test itself on loopback, never as a service) and
  # python3-websockets, with which the test drives Chromium.
  [monitor]="libcpp-httplib-dev pkg-config"
  [monitor-test]="prometheus python3-websockets"
)
needs[demo]="${needs[demo]} ${needs[monitor]}"
needs[build]="${needs[build]} ${needs[monitor]} ${needs[monitor-test]}"
needs[demo]="${needs[demo]} ${needs[report]}"
needs[build]="${needs[build]} ${needs[report]} ${needs[browser]} ${needs[viewers]}"
needs[test]="${needs[build]}"
needs[readme]="${needs[build]} python3-matplotlib"  # the README's plot
needs[asan]="${needs[build]}"
needs[tsan]="${needs[build]}"
needs[bench]="${needs[build]} ${needs[bench]}"
needs[mutants]="${needs[build]} ${needs[mutants]}"
needs[package]="${needs[build]} ${needs[package]}"

packages=()
for target in "$@"; do
  [ -n "${needs[$target]+x}" ] || { echo "setup: unknown target '$target'" >&2; exit 2; }
  packages+=(${needs[$target]})
done

missing=()
for package in $(printf '%s\n' "${packages[@]}" | sort -u); do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
  sudo=""
elif command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
  sudo="sudo"
else
  echo "setup: missing packages; as root, run: apt-get install -y ${missing[*]}" >&2
  exit 1
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# Prometheus is for the tests, which start it themselves on loopback: the package must not start or enable its
# system service (a policy that refuses service starts while installing, where the machine has none of its own).
policy=""
if [[ " ${missing[*]} " == *" prometheus "* && ! -e /usr/sbin/policy-rc.d ]]; then
  policy=/usr/sbin/policy-rc.d
  printf '#!/bin/sh\nexit 101\n' | $sudo tee "$policy" >/dev/null && $sudo chmod 755 "$policy"
  trap '$sudo rm -f "$policy"' EXIT
fi
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
if [ -n "$policy" ] && command -v systemctl >/dev/null; then
  $sudo systemctl disable prometheus >/dev/null 2>&1 || true
fi
