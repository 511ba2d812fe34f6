#!/usr/bin/env bash
# Installs BUILD into a scratch prefix, builds the C session of tests/api against the installation once with
# CMake's find_package and once with pkg-config, and runs both against oltb-sim on 127.0.6.N, then the README's
# Python example with the installed Python package (not for a 32-bit build). When BUILD/packages
# holds Debian packages, unpacks each with dpkg -x and compares files and control fields with expected_layout.txt.
# Usage: check_install.sh BUILD [N [i386-linux-gnu]]: with the third argument the consumer is built with -m32 and
# tells CMake its library architecture, as a 32-bit toolchain does. The simulator is $SIMULATOR, else the installed one.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd) build=$(cd "$1" && pwd) address=127.0.6.${2:-1} arch=${3:-}
cflags=${arch:+-m32}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/usr" >/dev/null
export PKG_CONFIG_PATH=$(dirname "$(find "$work/usr" -name oltb.pc)")
program="$here/../api/c_simulator_test.c"
cmake -S "$here/consumer" -B "$work/cmake" -DCMAKE_C_FLAGS="$cflags" ${arch:+-DCMAKE_LIBRARY_ARCHITECTURE=$arch} \
  -DCMAKE_PREFIX_PATH="$work/usr" -DPROGRAM="$program" -DPROGRAM_INCLUDE_DIR="$here/../api" >/dev/null
cmake --build "$work/cmake" >/dev/null
cc $cflags -std=c99 -I "$here/../api" "$program" $(pkg-config --cflags --libs oltb) \
  -Wl,-rpath,"$(pkg-config --variable=libdir oltb)" -o "$work/pkgconfig_consumer"
for consumer in "$work/cmake/consumer" "$work/pkgconfig_consumer"; do
  "$here/../api/with_simulator.sh" "${SIMULATOR:-$work/usr/bin/oltb-sim}" "$address" timeout 60 "$consumer" "$address"
done
echo "install: a C program built with find_package and with pkg-config ran against the simulator"
if [ -z "$arch" ]; then
  # The README's Python example, with the installed package, which finds its analysis library beside itself and the
  # trace library in the prefix's library folder.
  awk '/^```python$/ {getline; if ($0 == "import oltb") inside=1} /^```$/ {if (inside) exit} inside {print}' \
    "$here/../../README.md" |
    sed "s/127\.0\.0\.9/$address/" >"$work/example.py"
  [ -s "$work/example.py" ] || { echo "README.md has no Python example"; exit 1; }
  "$here/../api/with_simulator.sh" "${SIMULATOR:-$work/usr/bin/oltb-sim}" "$address" \
    env -u OLTB_LIBRARY -u OLTB_ANALYSIS_LIBRARY PYTHONPATH="$(find "$work/usr" -type d -name dist-packages)" \
    timeout 60 /usr/bin/python3 "$work/example.py"
  echo "install: the README's Python example ran with the installed package"
fi
[ -d "$build/packages" ] || exit 0
version=$(pkg-config --modversion oltb)
mkdir "$work/root"
for deb in "$build"/packages/*.deb; do
  package=$(dpkg-deb -f "$deb" Package)
  dpkg-deb -f "$deb" Package Version Architecture Depends
  dpkg -x "$deb" "$work/root/$package"
  (cd "$work/root" && find "$package" -type f -printf '%p\n' -o -type l -printf '%p -> %l\n' | sort)
done >"$work/layout.txt"
grep -h '^prefix=' "$work"/root/*/usr/lib/*/pkgconfig/oltb.pc >>"$work/layout.txt"
sed -i "s/${version//./\\.}/VERSION/g" "$work/layout.txt"
diff -u "$here/expected_layout.txt" "$work/layout.txt"
echo "install: the packages hold the expected files and control fields"
