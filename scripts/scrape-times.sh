#!/usr/bin/env bash
# Scrape duration of tovexporter against the demo cluster on loopback:
# N scrapes one after the other (default 100), median and 90th percentile of
# the whole HTTP request as curl times it and of the snapshot as the exporter
# reports it (tov_scrape_duration_seconds).
# Usage: scripts/scrape-times.sh [BUILD_DIR] [N]
set -euo pipefail
build=${1:-build}
n=${2:-100}
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
pids=()
finish() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap finish EXIT
wait_for() {
  for _ in $(seq 200); do [[ -s $1 ]] && return 0; sleep 0.05; done
  echo "scrape-times: $2 did not start" >&2
  exit 1
}

"$build/tools/tovsim/tovsim" --config "$root/examples/tovsim-demo.json" \
  --port 0 --udp-port 0 --max-lifetime 600 --ready-file "$work/sim" \
  2>/dev/null &
pids+=($!)
wait_for "$work/sim" "the simulator"
"$build/tools/tovexporter/tovexporter" --listen 127.0.0.1:0 \
  --ready-file "$work/exporter" -H "127.0.0.1:$(cat "$work/sim")" 2>/dev/null &
pids+=($!)
wait_for "$work/exporter" "the exporter"
url=http://127.0.0.1:$(cat "$work/exporter")/metrics

for _ in $(seq "$n"); do
  curl -sS --max-time 20 -o "$work/body" -w '%{time_total}\n' "$url" \
    >>"$work/http"
  awk '$1 == "tov_scrape_duration_seconds" {print $2}' "$work/body" \
    >>"$work/snapshot"
done
summary() {
  sort -g "$1" | awk -v what="$2" '{ v[NR] = $1 }
    END { printf "%s over %d scrapes: median %.2f ms, p90 %.2f ms\n", what, NR,
          1000 * v[int((NR + 1) / 2)], 1000 * v[int(NR * 0.9 + 0.999)] }'
}
summary "$work/http" "HTTP request (curl time_total)"
summary "$work/snapshot" "snapshot (tov_scrape_duration_seconds)"
