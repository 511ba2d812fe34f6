#!/usr/bin/env bash
# Fails unless the shared library exports exactly the nineteen oltb* functions and nothing else of its own.
set -euo pipefail
library="$1"
expected="oltbAcquire oltbClear oltbConnect oltbDisconnect oltbGetAcquiredElements oltbGetConfig oltbGetLastError
oltbGetLastErrorLen oltbGetReadTimeout oltbInitConfig oltbIsConnected oltbRead oltbSetConfig oltbSetReadTimeout
oltbStart oltbStop oltbToSignedPosition oltbToSignedPositionVal oltbTryRead"
actual=$(nm -D --defined-only "$library" | awk '{print $3}' | sort)
wanted=$(echo $expected | tr ' ' '\n' | sort)
if [ "$actual" != "$wanted" ]; then
  echo "exported symbols differ from the nineteen oltb functions:"
  diff <(echo "$wanted") <(echo "$actual") || true
  exit 1
fi
for name in $wanted; do
  nm -D --defined-only "$library" | grep -q " T $name\$" || { echo "$name is not a function"; exit 1; }
done
echo "exports: the nineteen oltb functions, nothing else"
