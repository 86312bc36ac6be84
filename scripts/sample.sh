#!/usr/bin/env bash
# Makes files from what every Debian machine with the build packages has: "text" (headers), "binary"
# (parts of the compiler), "source" (this tree as a tar file), "incompressible" (the binaries after
# gzip) and "empty". Each but the last is filled up to MIB mebibytes; the same machine and tree give
# the same bytes.
#
#   scripts/sample.sh DIRECTORY MIB
set -euo pipefail
export LC_ALL=C
directory=$1
size=$(($2 * 1048576))

# Writes the files named on standard input (NUL-terminated) one behind the other, again and again,
# until $1 is long enough.
fill() {
    local list=$directory/list
    cat >"$list"
    : >"$1"
    while [ "$(stat -c %s "$1")" -lt "$size" ]; do
        local before
        before=$(stat -c %s "$1")
        xargs -0 -a "$list" cat >>"$1"
        [ "$(stat -c %s "$1")" -gt "$before" ] || { echo "sample: no data for $1" >&2; return 1; }
    done
    truncate -s "$size" "$1"
    rm "$list"
}

mkdir -p "$directory"
find -L /usr/include -type f -name '*.h' -print0 | sort -z | fill "$directory/text"
find -L "$(dirname "$(g++ -print-prog-name=cc1plus)")" -type f \
    \( -name cc1plus -o -name lto1 -o -name '*.a' \) -print0 | sort -z | fill "$directory/binary"
tree=$(cd "$(dirname "$0")/.." && pwd)
tar -C "$tree" --sort=name --mtime=@0 --owner=0 --group=0 --numeric-owner --mode=u=rwX,go=rX \
    -cf "$directory/packed" base brisk docs examples fuzz scripts tests
printf '%s\0' "$directory/packed" | fill "$directory/source"
gzip -nc "$directory/binary" >"$directory/packed"
printf '%s\0' "$directory/packed" | fill "$directory/incompressible"
rm "$directory/packed"
: >"$directory/empty"
