#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz") and runs each for a given time, starting from its
# committed corpus fuzz/corpus/<target>/ and its dictionary fuzz/<target>.dict when there is one.
# New corpus entries and any crashing input stay under build/fuzz/, so the source tree is left
# unchanged. Fails when any target finds a crash, a leak, undefined behaviour or an input that
# runs longer than the slow-unit limit.
#
#   scripts/fuzz.sh                       # every target, 60 s each
#   scripts/fuzz.sh --time 600 host_name  # one target (or several), 10 minutes each
#   scripts/fuzz.sh --time 10 --jobs 2    # every target, two at a time (the CI smoke run)
#   scripts/fuzz.sh --runs 10000000 --time 3600 --jobs 2 --work build/fuzz/long   # the long run
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=60
jobs=1
runs=""
work=build/fuzz/runs
build=1
# An input that takes longer than this (seconds) is reported as a slow unit and fails the run.
# Inputs take milliseconds; on a loaded virtual machine ASan's allocator has stalled for two
# seconds while returning memory to the kernel, so the bound leaves room for that.
slow_unit_seconds=5
targets=()
while (($#)); do
    case "$1" in
        --time) seconds="$2"; shift 2 ;;
        --jobs) jobs="$2"; shift 2 ;;
        --runs) runs="$2"; shift 2 ;;
        --work) work="$2"; shift 2 ;;
        --no-build) build=0; shift ;;
        -h|--help) sed -n '2,13p' "$0"; exit 0 ;;
        -*) echo "unknown option $1" >&2; exit 2 ;;
        *) targets+=("$1"); shift ;;
    esac
done

if ((build)); then
    cmake --preset fuzz >/dev/null
    cmake --build --preset fuzz
fi
if ((${#targets[@]} == 0)); then
    for source in fuzz/*.cpp; do targets+=("$(basename "$source" .cpp)"); done
fi

mkdir -p "$work"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:symbolize=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

# Runs one target; its log goes to $work/<target>.log and its verdict to $work/<target>.result.
run_target() {
    local target="$1" binary="build/fuzz/fuzz/$1"
    local corpus="$work/corpus/$target" artifacts="$work/artifacts/$target/"
    [[ -x "$binary" ]] || { echo "$target: no such target" > "$work/$target.result"; return 1; }
    mkdir -p "$corpus" "$artifacts"
    cp -n fuzz/corpus/"$target"/* "$corpus"/ 2>/dev/null || true
    local options=(-max_total_time="$seconds" -timeout="$slow_unit_seconds" -print_final_stats=1
                   -artifact_prefix="$artifacts")
    [[ -e "fuzz/$target.dict" ]] && options+=(-dict="fuzz/$target.dict")
    [[ -n "$runs" ]] && options+=(-runs="$runs")
    local status=0
    nice -n 10 "$binary" "${options[@]}" "$corpus" > "$work/$target.log" 2>&1 || status=$?
    local runs cov
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$target.log" | tail -1)
    cov=$(grep -o 'cov: [0-9]*' "$work/$target.log" | tail -1 | cut -d' ' -f2 || true)
    if ((status == 0)); then
        echo "$target: ok, ${runs:-?} executions, ${cov:-?} edges" > "$work/$target.result"
    else
        echo "$target: FAILED (exit $status), see $work/$target.log and $artifacts" > "$work/$target.result"
        return 1
    fi
}

running=0
for target in "${targets[@]}"; do
    run_target "$target" &
    if ((++running >= jobs)); then wait -n || true; ((running--)); fi
done
wait || true

failed=0
for target in "${targets[@]}"; do
    cat "$work/$target.result"
    grep -q ': ok,' "$work/$target.result" || failed=1
done
if ((failed)); then
    for target in "${targets[@]}"; do
        grep -q ': ok,' "$work/$target.result" || [[ ! -f "$work/$target.log" ]] ||
            grep -E -A25 'ERROR|SUMMARY|timeout' "$work/$target.log" | head -60 || true
    done
fi
exit "$failed"
