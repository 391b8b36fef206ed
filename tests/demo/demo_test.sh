#!/usr/bin/env bash
# make demo must fail loudly: at once when the discovery port is taken, and
# naming the step when a step that should succeed fails.
# Usage: demo_test.sh SOURCE_DIR TOVCTL TOVSIM
set -uo pipefail
src=$1 tovctl=$2 tovsim=$3
work=$(mktemp -d)
holder=
cleanup() {
  [[ -n $holder ]] && kill "$holder" 2>/dev/null && wait "$holder" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
failed=0
expect() {  # NAME STATUS-WANTED-NONZERO TEXT FILE
  if [[ $2 -eq 0 ]] || ! grep -qF -- "$3" "$4"; then
    echo "FAIL: $1 (status $2)"; cat "$4"; failed=1
  else
    echo "ok: $1"
  fi
}

# 1. Another program holds UDP port 1195 on 127.0.0.1.
"$tovsim" --listen 127.0.0.1 --port 0 --udp-port 1195 --max-lifetime 30 \
  --ready-file "$work/ready" 2>/dev/null &
holder=$!
for _ in $(seq 100); do [[ -s $work/ready ]] && break; sleep 0.05; done
start=$SECONDS
TOVCTL=$tovctl TOVSIM=$tovsim TOVDEMO_PORT=0 timeout 20 \
  "$src/scripts/demo.sh" >"$work/out1" 2>&1
status=$?
expect "port taken" "$status" "UDP port 1195, which discovery needs, is in use" "$work/out1"
if ((SECONDS - start > 3)); then echo "FAIL: took $((SECONDS - start)) s"; failed=1; fi
kill "$holder"; wait "$holder" 2>/dev/null; holder=

# 2. A step fails: every tovctl call exits 1.
TOVCTL=/bin/false TOVSIM=$tovsim TOVDEMO_PORT=0 timeout 20 \
  "$src/scripts/demo.sh" >"$work/out2" 2>&1
status=$?
expect "failing step" "$status" \
  'demo: step "Discovering the cluster at 127.0.0.1 (2.5 seconds of listening)" failed: tovctl discover 127.0.0.1 exited with status 1' \
  "$work/out2"
exit $failed
