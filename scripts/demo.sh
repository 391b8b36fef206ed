#!/usr/bin/env bash
# A short narrated session against a simulated three-node cluster on
# loopback. Usage: scripts/demo.sh BUILD_DIR
# Nothing leaves the machine: discovery is aimed at 127.0.0.1, never
# broadcast, and the simulator stops when the demo ends.
set -euo pipefail
build=${1:-build}
root=$(cd "$(dirname "$0")/.." && pwd)
tovctl=$build/tools/tovctl/tovctl
tovsim=$build/tools/tovsim/tovsim
work=$(mktemp -d)
sim_pid=
finish() {
  if [[ -n $sim_pid ]] && kill -0 "$sim_pid" 2>/dev/null; then
    kill "$sim_pid"
    wait "$sim_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap finish EXIT

if [[ -t 1 ]]; then bold=$'\033[1m' plain=$'\033[0m'; else bold= plain=; fi
say() { printf '\n%s==> %s%s\n' "$bold" "$*" "$plain"; }
run() { printf '$ %s\n' "tovctl ${*}"; "$tovctl" "$@" || true; }

# Discovery always uses UDP port 1195; the TCP side uses it too when free.
port=1195
if (exec 3<>/dev/tcp/127.0.0.1/1195) 2>/dev/null; then port=0; fi

say "Starting the simulator: cluster 'democluster', nodes 127.0.0.1-3"
"$tovsim" --config "$root/examples/tovsim-demo.json" --port "$port" \
  --udp-port 1195 --max-lifetime 300 --ready-file "$work/ready" \
  2>"$work/sim.log" &
sim_pid=$!
for _ in $(seq 200); do [[ -s $work/ready ]] && break; sleep 0.05; done
[[ -s $work/ready ]] || { cat "$work/sim.log"; exit 1; }
port=$(cat "$work/ready")
echo "listening on TCP port $port, discovery on UDP port 1195"

printf 'demo-password\n' >"$work/password"
printf 'not-the-password\n' >"$work/wrong"
chmod 600 "$work/password" "$work/wrong"
auth=(-u demo --password-file "$work/password")
at=(-H 127.0.0.1 -p "$port")

say "Discovering the cluster at 127.0.0.1 (2.5 seconds of listening)"
run discover 127.0.0.1

say "Probing the node quietly"
run "${at[@]}" probe

say "The services of the cluster"
run "${at[@]}" services

say "Bouncing 'web', authenticated as demo"
run "${at[@]}" "${auth[@]}" bounce web
run "${at[@]}" services

say "Stopping 'db'"
run "${at[@]}" "${auth[@]}" stop db
run "${at[@]}" services

say "Starting 'db' again (automatic mode)"
run "${at[@]}" "${auth[@]}" start db
run "${at[@]}" services

say "A wrong password is refused, and nothing changes"
run "${at[@]}" -u demo --password-file "$work/wrong" stop web
run "${at[@]}" services

say "Stopping the simulator"
kill "$sim_pid"
wait "$sim_pid" 2>/dev/null || true
sim_pid=
echo "done: nothing is left running"
