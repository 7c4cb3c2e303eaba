#!/bin/sh
# run.sh BUILD REPORT WORK CONTENT: runs all benchmarks of a build and writes one report.
#
# First what a user sees, each figure beside its limit (bench_report), then the rooms of the library
# (bench_<room>), as they print it.
set -eu

build=$1
report=$2
work=$3
content=$4

"$build/bin/bench_report" --report "$report" --work "$work" --content "$content"

{
    printf '## The rooms\n\n'
    printf 'Processor time against the bare operation under each, as the programs print it.\n'
} >>"$report"
for program in "$build"/bin/bench/*; do
    name=${program##*/}
    echo "== $name"
    case $name in
        bench_compressors | bench_nbdkit) set -- --content "$content" --work "$work" ;;
        bench_streams) set -- --work "$work" ;;
        *) set -- ;;
    esac
    output=$("$program" "$@")
    echo "$output"
    printf '\n### %s\n\n```\n%s\n```\n' "$name" "$output" >>"$report"
done
echo "written: $report"
