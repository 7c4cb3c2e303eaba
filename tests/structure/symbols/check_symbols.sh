#!/usr/bin/env bash
# check_symbols.sh [--update] <directory of the libraries>: compares what each library exports with
# the list beside this script. A listed symbol that is gone would break programs that use it; a new
# one must be listed, so that it is watched from then on. With --update the lists are made again.
#
# debian/libkelm1.symbols has the same symbols, each with the version that it came with. With
# --update, new ones get the present version.
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
source=../../..
debian_list=$source/debian/libkelm1.symbols

readonly OURS='^((vtable|typeinfo|typeinfo name|VTT|construction vtable) for |(non-virtual|virtual) thunk to )?(yx|krym|zlu|mzu|kelm)::'

strong_symbols() {
    nm --dynamic --defined-only "$@" | grep -v '^[0-9a-f]* W ' | cut -d' ' -f3-
}

exported() {
    strong_symbols --demangle "$libraries/lib$1.so" |
        sed 's/\[abi:[a-z0-9]*\]//g' | grep -E "$OURS" | LC_ALL=C sort -u
}

# The same, as dpkg-gensymbols reads them.
exported_for_debian() {
    strong_symbols "$libraries/lib$1.so" | c++filt | grep -E "$OURS" | LC_ALL=C sort -u
}

# What debian/libkelm1.symbols should be; symbols that it has keep their versions.
debian_symbols() {
    local version
    version=$(sed -n 's/^ *VERSION \([0-9.]*\)$/\1/p' $source/CMakeLists.txt | head -n 1)
    echo "# Made by \`make symbols\`; the versions are those that the symbols came with."
    for library in kelm krym minizutil yx zlibutil; do
        echo "lib$library.so.1 libkelm1 #MINVER#"
        echo "* Build-Depends-Package: libkelm-dev"
        # Of the standard library's own templates no one else counts on a copy in here.
        echo ' (c++|optional|regex)"^((vtable|typeinfo|typeinfo name) for |[a-z]+ )?std::.*@Base$" 1.0.0'
        exported_for_debian $library | while IFS= read -r name; do
            printf ' (c++)"%s@Base" %s\n' "$name" "$version"
        done
    done | awk -F'" ' -v list="$debian_list" '
        function key(line) { split(line, part, FS); return library part[1] }
        function enter(line) { if (line ~ /^lib/) library = line }
        BEGIN { while ((getline line < list) > 0) { enter(line); known[key(line)] = line } }
        { enter($0); print key($0) in known ? known[key($0)] : $0 }'
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
if [[ -n $update ]]; then
    symbols=$(debian_symbols)
    echo "$symbols" >"$debian_list"
elif ! diff "$debian_list" <(debian_symbols) >&2; then
    echo "debian/libkelm1.symbols has other symbols (make symbols)" >&2
    failed=1
fi
exit $failed
