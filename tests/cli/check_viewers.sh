#!/usr/bin/env bash
# The files opened with the programs people read them with, as Debian ships them: an acquisition's view file in
# GTKWave (under Xvfb, from another folder: every signal shown, positions signed and drawn as curves, the whole
# capture in the window, each signal's value at time 0 known), a capture's VCD for sigrok in sigrok-cli (every gate
# change at its microsecond, to the end), and with HDF5 the README's pandas example on an .h5 capture.
# Usage: check_viewers.sh OLTB OLTB_SIM [h5]. Exits 77 (skipped) without gtkwave, xvfb-run or sigrok-cli.
set -euo pipefail
tool=$1 simulator=$2 h5=${3:-} address=127.0.19.3
here=$(cd "$(dirname "$0")" && pwd)
for program in gtkwave xvfb-run sigrok-cli; do
  command -v "$program" >/dev/null || { echo "$program is not installed (scripts/setup.sh build)"; exit 77; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$here/../api/with_simulator.sh" "$simulator" "$address" bash -c "set -e
  timeout 60 '$tool' acquire $address --start 1 --end 2 --signals Head0TxX,Head0RxY,Gate,LaserPower16 -q \
    -o '$work/job.vcd' ${h5:+-o '$work/job.h5'} >/dev/null
  timeout 60 '$tool' capture $address --signals Gate,Head0TxX --duration 0.4 --vcd-sigrok -q \
    -o '$work/gate.vcd' -o '$work/gate.csv' >/dev/null"

cat >"$work/view.tcl" <<'EOF'
set end [gtkwave::getWindowEndTime]
set max [gtkwave::getMaxTime]
puts "view: from [gtkwave::getWindowStartTime], whole capture [expr {$end >= $max && $end < 1.2 * $max}]"
gtkwave::setMarker 0
for {set i 0} {$i < [gtkwave::getTotalNumTraces]} {incr i} {
  set name [gtkwave::getTraceNameFromIndex $i]
  if {$name ne ""} {
    puts "view: $name [format %x [gtkwave::getTraceFlagsFromIndex $i]] [gtkwave::getTraceValueAtMarkerFromIndex $i]"
  }
}
gtkwave::/File/Quit
EOF
# Flags: 28 bits, 24 decimal, 8024 decimal steps, 10420 signed decimal curve (GTKWave's display flags).
diff <(printf '%s\n' "view: from 0, whole capture 1" "view: LaserPower16[15:0] 8024 0" "view: Gate 28 0" \
         "view: Head0TxX[31:0] 10420 0" "view: Head0RxY[31:0] 10420 0" "view: Label[15:0] 24 1") \
     <(cd / && timeout 60 xvfb-run -a gtkwave -S "$work/view.tcl" "$work/job.gtkw" 2>&1 | grep '^view: ')
echo "viewers: GTKWave opens the view with every signal, at time 0 known, zoomed to the whole capture"

expected=$(awk -F, '$3 == "Gate" && (!seen++ || $5 != last) { printf "#%d %s\n", int($2 + 0.5), $5; last = $5 }' "$work/gate.csv")
read_back=$(timeout 60 sigrok-cli -I vcd -i "$work/gate.vcd" -O vcd | awk '/^#/ && NF == 2 { print $1, substr($2, 1, 1) }')
[ "$(grep -c . <<<"$expected")" -ge 4 ] && diff <(echo "$expected") <(echo "$read_back")
echo "viewers: sigrok-cli reads every gate change of the capture at its microsecond"

[ -n "$h5" ] || exit 0
/usr/bin/python3 -c 'import h5py, pandas' 2>/dev/null || { echo "no h5py or pandas: the pandas example is skipped"; exit 0; }
awk '/^```python$/ { getline; if ($0 ~ /pandas/) inside = 1 } /^```$/ { if (inside) exit } inside' "$here/../../README.md" |
  sed "s|out/all.h5|$work/job.h5|" >"$work/frames.py"
grep -q DataFrame "$work/frames.py" || { echo "README.md has no pandas example"; exit 1; }
timeout 60 /usr/bin/python3 "$work/frames.py" | grep "^57261 positions; the first at 0.0 us: 0$" >/dev/null
echo "viewers: the README's pandas example reads the .h5 capture"
