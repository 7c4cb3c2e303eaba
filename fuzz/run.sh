#!/usr/bin/env bash
# run.sh <build directory> <seconds>: fuzzes with every target for so long, starting from its seeds.
# What the fuzzer finds on its way stays in the build directory; so does the input of a crash.
set -euo pipefail
build=$(realpath "$1")
seconds=$2
cd "$(dirname "$0")"

shopt -s nullglob
targets=("$build"/bin/fuzz/fuzz_*)
if ((${#targets[@]} == 0)); then
    echo "no fuzz targets in $build" >&2
    exit 1
fi

for target in "${targets[@]}"; do
    subject=${target##*/fuzz_}
    found="$build/corpus/$subject"
    mkdir -p "$found" "$build/artifacts"
    echo "== fuzz_$subject"
    "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=1024 -print_final_stats=1 \
        -artifact_prefix="$build/artifacts/$subject-" "$found" "corpus/$subject"
done
