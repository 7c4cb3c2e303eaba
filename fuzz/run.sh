#!/usr/bin/env bash
# run.sh <build directory> <seconds> [<target>...]: runs every fuzz target, or those named (such as
# disk), for that many seconds each, two at a time, starting from the seeds. Fails if one of them
# finds something. New inputs stay in the build directory for the next run, and so do the logs and the
# inputs of crashes.
#
# An input may take 10 seconds and 512 MiB, and no single allocation more than 64 MiB: the largest
# that is needed is the checker's map of the sectors of a file, 32 MiB. The 512 MiB are what the
# process takes, so the address sanitizer's own needs count too: one byte for each eight, and freed
# memory that it holds back, which is kept to 32 MiB here.
set -euo pipefail
build=$(realpath "$1")
seconds=$2
shift 2
cd "$(dirname "$0")"

targets=("$@")
if ((${#targets[@]} == 0)); then
    shopt -s nullglob
    targets=("$build"/bin/fuzz/fuzz_*)
    targets=("${targets[@]##*/fuzz_}")
fi
if ((${#targets[@]} == 0)); then
    echo "no fuzz targets in $build" >&2
    exit 1
fi

export ASAN_OPTIONS="quarantine_size_mb=32:malloc_context_size=8${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"
mkdir -p "$build/artifacts" "$build/logs"

fuzz_one() {
    local build=$1 seconds=$2 subject=$3
    local found="$build/corpus/$subject" log="$build/logs/fuzz_$subject.log"
    local -a options=()
    [[ -f $subject.dict ]] && options+=(-dict="$subject.dict")
    mkdir -p "$found"
    if "$build/bin/fuzz/fuzz_$subject" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=512 \
        -malloc_limit_mb=64 -print_final_stats=1 "${options[@]}" \
        -artifact_prefix="$build/artifacts/$subject-" "$found" "corpus/$subject" >"$log" 2>&1; then
        echo "fuzz_$subject: $(awk '
            /number_of_executed_units/ { inputs = $2 }
            /average_exec_per_sec/ { rate = $2 }
            /peak_rss_mb/ { memory = $2 }
            END { print inputs " inputs, " rate " a second, at most " memory " MiB" }' "$log")"
    else
        echo "fuzz_$subject: FAILED"
        tail -n 60 "$log"
        return 1
    fi
}
export -f fuzz_one

printf '%s\0' "${targets[@]}" |
    xargs -0 -P 2 -I '{}' bash -c 'fuzz_one "$@"' fuzz_one "$build" "$seconds" '{}'
