#!/bin/sh
# Shows the program at work: backs a file system image up to every kind of disk, restores each
# backup, compares and checks it, and prints what it took.
#
#   tools/demo.sh BUILD_DIR [MAP.svg]
#
# IMAGE=FILE names an image of your own; without it, one is made of /usr/share/doc.
# The picture of a child disk goes to MAP.svg, BUILD_DIR/demo-map.svg by default.

set -eu

build=${1:?usage: tools/demo.sh BUILD_DIR [MAP.svg]}
map=${2:-$build/demo-map.svg}
kelm=$build/bin/kelm
PATH=$PATH:/usr/sbin:/sbin
[ -x "$kelm" ] || { echo "demo: $kelm is not built" >&2; exit 1; }

scratch=$(mktemp -d "${TMPDIR:-/tmp}/kelm-demo.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

echo "correct horse battery staple" > "$scratch/password"
password="--password-file $scratch/password"

# An ext4 image with some room left, so that a later backup has something to add.
make_image() {
    kib=$(du -skL /usr/share/doc 2>/dev/null | cut -f1)
    mke2fs -q -t ext4 -F -d /usr/share/doc "$scratch/image" $((kib * 3 / 2 + 32768))k > /dev/null
}

# What somebody does to the image between two backups.
change_image() {
    cp --sparse=always "$1" "$2"
    printf 'kelm was here' | dd of="$2" bs=1 seek=$((size / 3)) conv=notrunc status=none
    dd if="$1" of="$2" bs=64k skip=3 seek=$((size / 65536 / 2)) count=16 conv=notrunc status=none
}

now() { date +%s.%N; }

# Prints one line of the table: kind, files, size on the host, ratio, and how fast both ways were.
print_row() {
    set -- "$1" "$scratch/$2" "$3" "$4"
    files=$(find "$2" -type f | wc -l)
    kib=$(du -sk "$2" | cut -f1)
    awk -v kind="$1" -v files="$files" -v kib="$kib" -v bytes="$size" -v backup="$3" -v restore="$4" '
        BEGIN {
            mib = bytes / 1048576
            printf "%-28s %5d %9.1f %6.2f %8.2f %7.0f %8.2f %7.0f\n", kind, files, kib / 1024,
                kib * 1024 / bytes, backup, mib / backup, restore, mib / restore
        }'
}

# Backs an image up, restores it, and makes sure that nothing was lost on the way.
#   round_trip KIND FOLDER IMAGE OPTION...
round_trip() {
    kind=$1 folder=$2 source=$3
    shift 3
    mkdir "$scratch/$folder"
    disk=$scratch/$folder/disk.vmdk

    start=$(now)
    # shellcheck disable=SC2086 # the options are words
    "$kelm" import "$source" "$disk" $password "$@"
    backup=$(echo "$(now) $start" | awk '{ print $1 - $2 }')

    start=$(now)
    # shellcheck disable=SC2086
    "$kelm" export "$disk" "$scratch/restored" $password
    restore=$(echo "$(now) $start" | awk '{ print $1 - $2 }')

    # shellcheck disable=SC2086
    "$kelm" check "$disk" $password
    # shellcheck disable=SC2086
    "$kelm" compare "$source" "$disk" $password > /dev/null
    "$kelm" compare "$source" "$scratch/restored" > /dev/null
    if [ "$source" = "$image" ] && [ "$checks_file_system" = yes ]; then
        truncate -s "$size" "$scratch/restored"
        e2fsck -fn "$scratch/restored" > "$scratch/e2fsck.log" 2>&1 || {
            cat "$scratch/e2fsck.log" >&2
            exit 1
        }
    fi
    rm "$scratch/restored"
    print_row "$kind" "$folder" "$backup" "$restore"
}

image=${IMAGE:-$scratch/image}
checks_file_system=no
if [ -z "${IMAGE:-}" ]; then
    echo "Making a file system image of /usr/share/doc ..."
    make_image
    checks_file_system=yes
fi
size=$(wc -c < "$image")
echo "Image: $((size / 1048576)) MiB, $(du -mL "$image" | cut -f1) MiB of it data"
echo

split=$((size / 4 > 16777216 ? size / 4 : 16777216))
printf '%-28s %5s %9s %6s %8s %7s %8s %7s\n' \
    '' files MiB ratio 'backup s' 'MiB/s' 'restore s' 'MiB/s'
round_trip 'plain' plain "$image"
round_trip 'plain, split' split "$image" --split "$split"
round_trip 'plain, split, on demand' on-demand "$image" --split "$split" --on-demand
round_trip 'compressed' compressed "$image" --compressed
round_trip 'compressed, split' compressed-split "$image" --compressed --split "$split"
round_trip 'plain, encrypted' encrypted "$image" --encrypt
round_trip 'compressed, encrypted' compressed-encrypted "$image" --compressed --encrypt
round_trip 'plain, split, encrypted' encrypted-split "$image" --split "$split" --encrypt
round_trip 'compressed, split, encrypted' compressed-encrypted-split "$image" --compressed \
    --split "$split" --encrypt
change_image "$image" "$scratch/changed"
round_trip 'child of plain' child "$scratch/changed" --parent "$scratch/plain/disk.vmdk"

"$kelm" map "$scratch/child/disk.vmdk" --svg "$map" --force
echo
echo "Every disk was checked, every restored image compared$(
    [ "$checks_file_system" = no ] || echo " and its file system checked")."
echo "A picture of the child disk: $map"
