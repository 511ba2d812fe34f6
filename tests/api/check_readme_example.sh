#!/usr/bin/env bash
# The README's C example compiles as strict C99 against the public header.
set -euo pipefail
root="$1"
compiler="$2"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
awk '/^```c$/ {inside=1; next} /^```$/ {if (inside) exit} inside {print}' "$root/README.md" > "$work/example.c"
[ -s "$work/example.c" ] || { echo "README.md has no C example"; exit 1; }
"$compiler" -std=c99 -Wall -Wextra -Werror -pedantic -I "$root/api" -c "$work/example.c" -o "$work/example.o"
echo "README example compiles"
