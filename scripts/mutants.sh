#!/usr/bin/env bash
# Fault injection: does the suite notice when the code is wrong?
#
# Each fault of scripts/mutants.list (a flipped comparison, a dropped call, a
# changed constant, an early return) is put into a private copy of the tree,
# the copy is rebuilt, and the whole suite runs against it until the first
# test fails. A fault is "caught" when a test fails and fails twice more on
# its own, "missed" when the suite stays green, "unbuilt" when the fault does
# not compile. A test that fails once and then passes is flaky: it is noted in
# RESULTS.flaky and the suite goes on without it.
#
#   scripts/mutants.sh [-o RESULTS] [-r REVISION] [ID-REGEX]
#
# -r takes the tree of a commit instead of the working tree, so that the
# suite as it stood can be measured beside the suite as it stands; the faults
# always come from the working tree's list.
#
# Not part of `make test`: one run takes 30-60 minutes on two cores. The
# working tree is never modified. The copy lives in build-mutants/, and only
# files that differ from the last copy are rewritten, so a second run builds
# only what changed.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
work=$root/build-mutants
results=$work/results.txt
revision=""
while getopts "o:r:" opt; do
  case $opt in
    o) results=$(realpath -m "$OPTARG") ;;
    r) revision=$OPTARG ;;
    *)
      echo "usage: $0 [-o RESULTS] [-r REVISION] [ID-REGEX]" >&2
      exit 2
      ;;
  esac
done
shift $((OPTIND - 1))
only=${1:-.}
src=$work/src
bld=$work/build
jobs=${JOBS:-2}
tool="python3 $root/scripts/mutants_tool.py"

mkdir -p "$work"
cp scripts/mutants.list "$work/mutants.list"
stage=$work/stage
rm -rf "$stage"
mkdir -p "$stage"
if [[ -n $revision ]]; then
  git archive "$revision" | tar -x -C "$stage"
else
  git ls-files -z -c -o --exclude-standard |
    grep -zv '^build' | xargs -0 cp --parents -t "$stage"
fi
$tool sync "$stage" "$src"
rm -rf "$stage"

cmake -S "$src" -B "$bld" -G Ninja >"$work/configure.log"
cmake --build "$bld" -j "$jobs" >"$work/build.log"

# Names of the tests that failed, one per line, from a ctest log.
failed_tests() {
  sed -n 's/^[[:space:]]*[0-9]* - \(.*\) ([^()]*)$/\1/p' "$1"
}

# Runs one test by its exact name; true when it passes.
passes() {
  ctest --test-dir "$bld" --timeout 60 -R "$($tool regex "$1")" \
    >/dev/null 2>&1
}

: >"$results"
: >"$results.flaky"
caught=0 missed=0 unbuilt=0 total=0
started=$(date +%s)
while IFS=$'\t' read -r id file from to; do
  [[ -z $id || $id == \#* ]] && continue
  [[ $id =~ $only ]] || continue
  total=$((total + 1))
  $tool swap "$src/$file" "$from" "$to"
  log=$work/$id.log
  verdict=missed tests="" skip=""
  if ! cmake --build "$bld" -j "$jobs" >"$log" 2>&1; then
    verdict=unbuilt
  else
    for _ in 1 2 3; do
      if ctest --test-dir "$bld" -j "$jobs" --timeout 60 --stop-on-failure \
        ${skip:+-E "$skip"} >"$log" 2>&1; then
        break
      fi
      confirmed=()
      while read -r name; do
        [[ -z $name ]] && continue
        if ! passes "$name" && ! passes "$name"; then
          confirmed+=("$name")
        else
          skip=${skip:+$skip|}$($tool regex "$name")
          echo "$id: $name" >>"$results.flaky"
        fi
      done < <(failed_tests "$log")
      if ((${#confirmed[@]})); then
        verdict=caught
        tests=$(printf '%s\n' "${confirmed[@]}" | paste -sd '|')
        break
      fi
    done
  fi
  case $verdict in
    caught) caught=$((caught + 1)) ;;
    missed) missed=$((missed + 1)) ;;
    unbuilt) unbuilt=$((unbuilt + 1)) ;;
  esac
  $tool swap "$src/$file" "$to" "$from"
  printf '%-22s %-7s %s\n' "$id" "$verdict" "$tests" | tee -a "$results"
done <"$work/mutants.list"

minutes=$((($(date +%s) - started + 59) / 60))
echo "caught $caught of $total faults; missed $missed; unbuilt $unbuilt;" \
  "$(wc -l <"$results.flaky") flaky failures set aside; $minutes min" |
  tee -a "$results"
