#!/usr/bin/env bash
# The README's main job: runs scripts/demo.sh against this build on an address and into a folder of its own, and
# compares what it prints with the README's copy of it: the address and folder put back to the README's, runs of
# spaces as one, and the size of the report page left out (the page names its input, whose path differs here).
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
normal() { sed -E -e 's/ +/ /g' -e 's/(demo.html[ (]*)[0-9]+ bytes/\1N bytes/'; }
printed=$(bash "$root/scripts/demo.sh" | sed -e "s|$DEMO_OUT/|out/|g" -e "s|$DEMO_ADDRESS|127.0.0.8|g" | normal)
expected=$(awk '/What it prints after the build.s own lines:$/ {found=1; next}
                found && /^```$/ {if (inside) exit; inside=1; next} inside {print}' "$root/README.md" | normal)
[ -n "$expected" ] || { echo "README.md has no output of make demo"; exit 1; }
diff <(echo "$expected") <(echo "$printed") && echo "make demo prints what the README shows"
