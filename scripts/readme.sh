#!/usr/bin/env bash
# Runs the README's commands in order as one script, as a new user pastes them at the top of a clone: the ```sh
# blocks in one bash session (exports and process ids carry over), each ```python block with Debian's Python and
# PYTHONPATH=python, and a block that the line after it says is "Saved as `FILE`" written to FILE first. The first
# command that fails ends the run, with its line in the README. Not run: make test (what CI runs, the whole suite)
# and apt-get install (packages into this system). As root the run has a network namespace of its own, so that the
# README's fixed addresses meet no other server. The whole run is bounded (README_SECONDS, default 1800); it
# expects the Debian packages of make readme (scripts/setup.sh readme). Usage: scripts/readme.sh [CLONE] (default:
# this one).
set -euo pipefail
top=$(cd "${1:-$(dirname "$0")/..}" && pwd)
cd "$top"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The README as a script: each block behind a line that names it, commands not to run replaced by a note.
awk -v quote="'" '
  function flush() {
    if (kind == "sh") { print "echo \"readme: line " start "\""; printf "%s", text }
    if (kind == "python") {
      print "echo \"readme: line " start " (python)\""
      print "PYTHONPATH=python timeout 300 /usr/bin/python3 - <<" quote "README_PYTHON" quote
      printf "%s", text; print "README_PYTHON"
    }
    kind = ""
  }
  /^```/ && !inside { inside = 1; kind = substr($0, 4); start = NR + 1; text = ""; next }
  /^```$/ && inside { inside = 0; pending = (kind == "sh" || kind == "python") ? "" : kind; if (pending == "") flush(); next }
  inside {
    if ($0 ~ /^(make test|apt-get install)( |$)/) $0 = "echo \"readme: not run here: " $1 " " $2 "\""
    text = text $0 "\n"; next
  }
  pending != "" && /^Saved as `[^`]+`/ {
    match($0, /`[^`]+`/); file = substr($0, RSTART + 1, RLENGTH - 2)
    print "cat >" file " <<" quote "README_FILE" quote; printf "%s", text; print "README_FILE"
  }
  pending != "" && NF { pending = "" }
  END { flush() }
' README.md >"$work/readme-run.sh"

cat >"$work/run.sh" <<EOF
set -euo pipefail
[ "\$(id -u)" != 0 ] || ip link set lo up
cleanup() {
  local status=\$?
  jobs -p | xargs -r kill 2>/dev/null || true
  make sim-stop >/dev/null 2>&1 || true
  exit \$status
}
trap cleanup EXIT
source "$work/readme-run.sh"
echo "readme: every command ran"
EOF
if [ "$(id -u)" = 0 ]; then
  timeout "${README_SECONDS:-1800}" unshare -n bash "$work/run.sh"
else
  timeout "${README_SECONDS:-1800}" bash "$work/run.sh"
fi
