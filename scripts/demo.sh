#!/usr/bin/env bash
# A short narrated session against a simulated four-node cluster on
# loopback (three nodes answering, one silent). Usage: scripts/demo.sh BUILD_DIR
# Nothing leaves the machine: discovery is aimed at 127.0.0.1, never
# broadcast, and the simulator stops when the demo ends.
# A step that should succeed and fails ends the demo with a message naming
# it, and a non-zero status. TOVCTL, TOVSIM and TOVEXPORTER may name other
# binaries; TOVDEMO_PORT=0 lets the kernel pick the TCP port.
set -euo pipefail
build=${1:-build}
root=$(cd "$(dirname "$0")/.." && pwd)
tovctl=${TOVCTL:-$build/tools/tovctl/tovctl}
tovsim=${TOVSIM:-$build/tools/tovsim/tovsim}
tovexporter=${TOVEXPORTER:-$build/tools/tovexporter/tovexporter}
work=$(mktemp -d)
sim_pid=
exporter_pid=
step=
finish() {
  local pid
  for pid in "$exporter_pid" "$sim_pid"; do
    if [[ -n $pid ]] && kill -0 "$pid" 2>/dev/null; then
      kill "$pid"
      wait "$pid" 2>/dev/null || true
    fi
  done
  rm -rf "$work"
}
trap finish EXIT

if [[ -t 1 ]]; then bold=$'\033[1m' plain=$'\033[0m'; else bold= plain=; fi
die() {
  printf 'demo: %s\n' "$*" >&2
  exit 1
}
say() {
  step=$*
  printf '\n%s==> %s%s\n' "$bold" "$*" "$plain"
}
# A command that must succeed.
run() {
  printf '$ %s\n' "tovctl ${*}"
  local status=0
  "$tovctl" "$@" || status=$?
  ((status == 0)) || die "step \"$step\" failed: tovctl $* exited with status $status"
}
# A command that must be refused with the given status.
refused() {
  local want=$1
  shift
  printf '$ %s\n' "tovctl ${*}"
  local status=0
  "$tovctl" "$@" || status=$?
  ((status == want)) ||
    die "step \"$step\": tovctl $* exited with status $status, not $want"
}

# Discovery always uses UDP port 1195, and another program holding it would
# answer in our place or keep the simulator from starting: stop at once.
# Only the demo's addresses matter, and the wildcard ones that cover them.
taken=$(ss -Hlun 'sport = :1195' 2>/dev/null |
  grep -E '(^|[[:space:]])(0\.0\.0\.0|\*|\[::\]|127\.0\.0\.[123]):1195[[:space:]]' || true)
[[ -z $taken ]] || die "UDP port 1195, which discovery needs, is in use:
$taken
stop that program (or the earlier demo) and run make demo again"
# The TCP side uses 1195 too when it is free, else a port the kernel picks.
port=${TOVDEMO_PORT:-1195}
if [[ $port == 1195 ]] && [[ -n $(ss -Hltn 'sport = :1195' 2>/dev/null) ]]; then
  port=0
fi

say "Starting the simulator: cluster 'democluster', nodes 127.0.0.1-3 answering, node4 (127.0.0.4) silent"
"$tovsim" --config "$root/examples/tovsim-demo.json" --port "$port" \
  --udp-port 1195 --max-lifetime 300 --ready-file "$work/ready" \
  2>"$work/sim.log" &
sim_pid=$!
for _ in $(seq 200); do
  [[ -s $work/ready ]] && break
  kill -0 "$sim_pid" 2>/dev/null || break
  sleep 0.05
done
if [[ ! -s $work/ready ]]; then
  cat "$work/sim.log" >&2
  die "step \"$step\" failed: the simulator did not start (its log is above)"
fi
port=$(cat "$work/ready")
echo "listening on TCP port $port, discovery on UDP port 1195"

printf 'demo-password\n' >"$work/password"
printf 'not-the-password\n' >"$work/wrong"
chmod 600 "$work/password" "$work/wrong"
auth=(-u demo --password-file "$work/password")
at=(-H "127.0.0.1:$port" --deadline 10)

say "Discovering the cluster at 127.0.0.1 (2.5 seconds of listening)"
run discover 127.0.0.1

say "Probing the node quietly"
run "${at[@]}" probe

say "The services of the cluster"
run "${at[@]}" services

say "The whole cluster at a glance: every node probed at once"
run "${at[@]}" status

say "A dead entry node: node4 (127.0.0.4) does not answer, so node1 takes over"
run -H "127.0.0.4:$port" -H "127.0.0.1:$port" --deadline 10 status --problems
run -H "127.0.0.4:$port,127.0.0.1:$port" --deadline 10 services

say "The same cluster by name, from a clusters file (docs/configuration.md)"
cat >"$work/clusters.toml" <<EOF
[clusters.demo]
hosts = ["127.0.0.4", "127.0.0.1"]
port = $port
user = "demo"
password_file = "password"
deadline = 10
EOF
sed 's/^/    /' "$work/clusters.toml"
run --config "$work/clusters.toml" --cluster demo --json status --problems \
  --node 'node[14]'

say "Bouncing 'web', authenticated as demo"
run "${at[@]}" "${auth[@]}" bounce web
run "${at[@]}" services

say "Stopping 'db'"
run "${at[@]}" "${auth[@]}" stop db
run "${at[@]}" status

say "The check a monitoring system runs: WARNING (status 1), a node is silent and services are down"
refused 1 "${at[@]}" check
refused 1 "${at[@]}" check -vv

say "Starting 'db' again (automatic mode)"
run "${at[@]}" "${auth[@]}" start db
run "${at[@]}" services

say "A wrong password is refused (status 22), and nothing changes"
refused 22 "${at[@]}" -u demo --password-file "$work/wrong" stop web
run "${at[@]}" services

say "A daemon that sends its salt and then stalls: the deadline ends the wait (status 98)"
"$tovsim" --port 0 --udp-port 0 --reply-delay 600000 --max-lifetime 30 \
  --ready-file "$work/stalled" 2>/dev/null &
stalled_pid=$!
for _ in $(seq 200); do [[ -s $work/stalled ]] && break; sleep 0.05; done
[[ -s $work/stalled ]] || die "step \"$step\" failed: the stalling simulator did not start"
refused 98 -H "127.0.0.1:$(cat "$work/stalled")" --deadline 2 services
kill "$stalled_pid"
wait "$stalled_pid" 2>/dev/null || true

say "The cluster as Prometheus metrics: tovexporter on 127.0.0.1, a fresh snapshot per scrape"
printf '$ %s\n' "tovexporter --listen 127.0.0.1:0 --ready-file $work/exporter -H 127.0.0.1:$port --config $work/clusters.toml &"
"$tovexporter" --listen 127.0.0.1:0 --ready-file "$work/exporter" \
  -H "127.0.0.1:$port" --config "$work/clusters.toml" 2>"$work/exporter.log" &
exporter_pid=$!
for _ in $(seq 200); do
  [[ -s $work/exporter ]] && break
  kill -0 "$exporter_pid" 2>/dev/null || break
  sleep 0.05
done
if [[ ! -s $work/exporter ]]; then
  cat "$work/exporter.log" >&2
  die "step \"$step\" failed: the exporter did not start (its log is above)"
fi
url=http://127.0.0.1:$(cat "$work/exporter")/metrics
echo "serving $url"
shown='^tov_(up|node_up|service_state.*\} 1$)'
printf '$ %s\n' "curl -s $url | grep -E '$shown'"
status=0
curl -sS --max-time 20 -o "$work/metrics" "$url" || status=$?
((status == 0)) || die "step \"$step\" failed: curl $url exited with status $status"
grep -E "$shown" "$work/metrics" || true
grep -qx 'tov_up 1' "$work/metrics" ||
  die "step \"$step\" failed: the exporter could not read the cluster (tov_up is not 1)"
echo "($(grep -vc '^#' "$work/metrics") samples in all)"
# One exporter serves any number of clusters: /probe by entry nodes or by
# the name the clusters file gives, as Prometheus's relabelling asks it.
probe=http://127.0.0.1:$(cat "$work/exporter")/probe
for query in "target=127.0.0.4:$port,127.0.0.1:$port" "cluster=demo"; do
  printf '$ %s\n' "curl -s '$probe?$query' | grep -E '^tov_(up|cluster_info)'"
  curl -sS --max-time 20 -o "$work/probe" "$probe?$query" ||
    die "step \"$step\" failed: curl $probe?$query failed"
  grep -E '^tov_(up|cluster_info)' "$work/probe" || true
  grep -qx 'tov_up 1' "$work/probe" ||
    die "step \"$step\" failed: /probe?$query could not read the cluster"
done
kill "$exporter_pid"
for _ in $(seq 100); do
  kill -0 "$exporter_pid" 2>/dev/null || break
  sleep 0.05
done
if kill -0 "$exporter_pid" 2>/dev/null; then
  kill -KILL "$exporter_pid"
  die "step \"$step\" failed: the exporter did not stop within 5 s of SIGTERM"
fi
status=0
wait "$exporter_pid" || status=$?
exporter_pid=
((status == 0)) || die "step \"$step\" failed: the exporter exited with status $status after SIGTERM"
echo "the exporter stopped on SIGTERM (status 0)"

say "Stopping the simulator"
kill "$sim_pid"
wait "$sim_pid" 2>/dev/null || true
sim_pid=
echo "done: nothing is left running"
