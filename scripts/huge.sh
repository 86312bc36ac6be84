#!/usr/bin/env bash
# Packs and unpacks a file of 5 GiB, most of it a hole, compares every byte, and reports time and
# peak memory of both runs. Needs 6 GiB of disk space below TMPDIR.
#
#   scripts/huge.sh [TOOL]
set -euo pipefail
cd "$(dirname "$0")/.."

tool=$(realpath "${1:-build/bin/zlibcompress}")
work=$(mktemp -d "${TMPDIR:-/tmp}/tesselhugeXXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/home/tmp"
export KRHOME=$work/home

# The tool's output line, then what it took.
measured() {
    local start=$SECONDS pid
    "$tool" "$@" &
    pid=$!
    while sed -n 's/^VmHWM:[[:space:]]*//p' "/proc/$pid/status" >"$work/now" 2>/dev/null &&
        [ -s "$work/now" ]; do
        mv "$work/now" "$work/peak"
        sleep 0.2
    done
    wait "$pid"
    echo "  $((SECONDS - start)) s, peak memory $(cat "$work/peak")"
}

chunks=81920
truncate -s $((chunks * 65536)) "$work/huge"
for chunk in 0 32767 65535 65536 $((chunks - 1)); do
    head -c 65536 /dev/urandom |
        dd of="$work/huge" bs=65536 seek=$chunk conv=notrunc status=none
done

measured -c "$work/huge" "$work/archive" huge
# The header's sums hold 32 bits: compressed and uncompressed length and number of chunks.
read -r compressed uncompressed count < <(od -An -tu4 -j57 -N12 "$work/archive")
echo "  archive of $(stat -c %s "$work/archive") bytes: lengths $compressed and $uncompressed, $count chunks"
[ "$uncompressed" -eq $((chunks * 65536 % 4294967296)) ]
[ "$count" -eq $chunks ]
[ -z "$(ls -A "$work/home/tmp")" ]

measured -d "$work/archive" "$work/target"
cmp "$work/huge" "$work/target/huge"
echo "  every byte is back"
