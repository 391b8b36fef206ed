#!/usr/bin/env bash
# Fault injection: does the suite notice when the code is wrong?
#
# Each fault of scripts/mutants.list (a flipped comparison, a dropped call, a
# changed constant, an early return), or of a random draw (-s), is put into
# a private copy of the tree,
# the copy is rebuilt, and the whole suite runs against it until the first
# test fails. A fault is "caught" when a test fails and fails twice more on
# its own, "missed" when the suite stays green, "unbuilt" when the fault does
# not compile. A test that fails once and then passes is flaky: it is noted in
# RESULTS.flaky and the suite goes on without it.
#
#   scripts/mutants.sh [-o RESULTS] [-r REVISION] [-s SEED [-n COUNT]]
#                      [ID-REGEX]
#
# -s draws faults at random over every product source (library, tovctl,
# tools/common, tovexporter), with SEED, instead of taking the list: faults
# nobody chose. It goes on until COUNT of them (default 60) have built; the
# drawn list is kept in RESULTS.list. A
# fault that the plain suite misses is then tried against the sanitizer
# suite too ("caught-san"; a leak counts).
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
seed=""
count=60
while getopts "o:r:s:n:" opt; do
  case $opt in
    o) results=$(realpath -m "$OPTARG") ;;
    r) revision=$OPTARG ;;
    s) seed=$OPTARG ;;
    n) count=$OPTARG ;;
    *)
      echo "usage: $0 [-o RESULTS] [-r REVISION] [-s SEED [-n COUNT]]" \
        "[ID-REGEX]" >&2
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

mkdir -p "$work" "$(dirname "$results")"
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
if [[ -n $seed ]]; then
  (cd "$src" && $tool draw "$seed" $((count * 2)) . \
    $(ls tovapi/*.cpp tools/tovctl/*.cpp tools/common/*.cpp \
      tools/tovexporter/*.cpp)) >"$results.list"
else
  cp scripts/mutants.list "$results.list"
fi

cmake -S "$src" -B "$bld" -G Ninja >"$work/configure.log"
cmake --build "$bld" -j "$jobs" >"$work/build.log"

# Names of the tests that failed, one per line, from a ctest log.
failed_tests() {
  sed -n '/^The following tests FAILED:/,/^$/s/^[[:space:]]*[0-9]* - \(.*\) ([^()]*)$/\1/p' "$1"
}

# The sanitizer suite against the copy as it stands; true when it passes.
san=$work/build-san
san_passes() {
  if [[ ! -f $san/CMakeCache.txt ]]; then
    CXX=clang++ cmake -S "$src" -B "$san" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
      -DTOVAPI_SANITIZE=ON >"$work/configure-san.log"
  fi
  cmake --build "$san" -j "$jobs" >"$1" 2>&1 || return 0
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
    LSAN_OPTIONS=suppressions=$src/tests/lsan.supp:print_suppressions=0 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir "$san" -j "$jobs" --timeout 120 --stop-on-failure \
    >>"$1" 2>&1
}

# Runs one test by its exact name (in the build given second, the plain
# one by default); true when it passes.
passes() {
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
    LSAN_OPTIONS=suppressions=$src/tests/lsan.supp:print_suppressions=0 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir "${2:-$bld}" --timeout 120 -R "$($tool regex "$1")" \
    >/dev/null 2>&1
}

# The failures of a sanitizer run that fail twice more on their own.
san_confirmed() {
  local name
  while read -r name; do
    [[ -z $name ]] && continue
    if ! passes "$name" "$san" && ! passes "$name" "$san"; then
      echo "$name"
    else
      echo "$id (sanitizers): $name" >>"$results.flaky"
    fi
  done < <(failed_tests "$1") | paste -sd '|'
}

: >"$results"
: >"$results.flaky"
caught=0 missed=0 unbuilt=0 total=0 sancaught=0
started=$(date +%s)
while IFS=$'\t' read -r id file from to; do
  [[ -z $id || $id == \#* ]] && continue
  [[ -n $seed ]] && ((total - unbuilt >= count)) && break
  [[ $id =~ $only ]] || continue
  total=$((total + 1))
  log=$work/$id.log
  verdict=missed tests="" skip=""
  if ! $tool swap "$src/$file" "$from" "$to" 2>"$log"; then
    echo "$id: cannot be put in: $(cat "$log")" >&2
    total=$((total - 1))
    continue
  fi
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
  if [[ $verdict == missed ]] && ! san_passes "$log.san"; then
    tests=$(san_confirmed "$log.san")
    if [[ -n $tests ]]; then
      verdict=caught-san missed=$((missed - 1)) sancaught=$((sancaught + 1))
    fi
  fi
  $tool swap "$src/$file" "$to" "$from"
  printf '%-22s %-7s %s\n' "$id" "$verdict" "$tests" | tee -a "$results"
done <"$results.list"

minutes=$((($(date +%s) - started + 59) / 60))
echo "caught $caught of $total faults (and $sancaught more by the" \
  "sanitizers); missed $missed; unbuilt $unbuilt;" \
  "$(wc -l <"$results.flaky") flaky failures set aside; $minutes min" |
  tee -a "$results"
