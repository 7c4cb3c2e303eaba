#!/usr/bin/env bash
# check_symbols.sh [--update] <directory of the libraries>: compares what each library exports with
# the list beside this script. A listed symbol that is gone would break programs that use it; a new
# one must be listed, so that it is watched from then on. With --update the lists are made again.
#
# Weak functions are left out: whether a compiler emits them depends on what it inlines.
set -euo pipefail
update=
if [[ $1 == --update ]]; then
    update=yes
    shift
fi
libraries=$(realpath "$1")
cd "$(dirname "$0")"

exported() {
    nm --dynamic --defined-only --demangle "$libraries/lib$1.so" |
        grep -v '^[0-9a-f]* W ' | cut -d' ' -f3- |
        sed 's/\[abi:[a-z0-9]*\]//g' |
        grep -E '^((vtable|typeinfo|typeinfo name|VTT|construction vtable) for |(non-virtual|virtual) thunk to )?(yx|krym|zlu|mzu|kelm)::' |
        LC_ALL=C sort -u
}

failed=0
for library in yx krym zlibutil minizutil kelm; do
    list=$library.txt
    if [[ -n $update ]]; then
        exported $library >"$list"
        continue
    fi
    gone=$(LC_ALL=C comm -23 "$list" <(exported $library))
    new=$(LC_ALL=C comm -13 "$list" <(exported $library))
    if [[ -n $gone ]]; then
        printf 'lib%s no longer exports:\n%s\n' $library "$gone" >&2
        failed=1
    fi
    if [[ -n $new ]]; then
        printf 'lib%s exports what is not in %s (make symbols):\n%s\n' $library "$list" "$new" >&2
        failed=1
    fi
done
exit $failed
