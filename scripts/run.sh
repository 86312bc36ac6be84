#!/usr/bin/env bash
# Packs and unpacks more than 100 MB of this machine's own files with the built tool, compares every
# byte, and prints a table. Exits 1 when a file did not come back as it was.
set -euo pipefail
cd "$(dirname "$0")/.."
export LC_ALL=C

tool=build/bin/zlibcompress
work=build/run
export KRHOME=$PWD/build/home

if [ -e /etc/.nokrhome ]; then
    echo "run: /etc/.nokrhome exists, so the tool ignores KRHOME and this demonstration's home." >&2
    exit 1
fi

rm -rf "$work" "$KRHOME"
mkdir -p "$work"/archive "$work"/out "$KRHOME"/{bin,config,dump,tmp,trace}

scripts/sample.sh "$work/in" 36

# Runs the tool on the arguments after the first and prints how long that took in microseconds.
# Fails unless the tool says exactly $1: its exit status is 0 whatever happens.
timed() {
    local expected=$1 start end said
    shift
    start=${EPOCHREALTIME/./}
    said=$("$tool" "$@")
    end=${EPOCHREALTIME/./}
    [ "$said" = "$expected" ] || { echo "run: $tool $* said: $said" >&2; return 1; }
    echo $((end - start))
}

rate() { if [ "$1" -gt 0 ]; then echo $(($1 / $2)); else echo -; fi; } # bytes per microsecond: MB/s

echo "home directory  $KRHOME"
echo "packing         $tool -c $work/in/NAME $work/archive/NAME NAME"
echo "unpacking       $tool -d $work/archive/NAME $work/out"
echo
row='%-15s %12s %12s %7s %10s %12s  %s\n'
# shellcheck disable=SC2059
printf "$row" name bytes archive ratio 'pack MB/s' 'unpack MB/s' verdict
result=0
total=0
for name in text binary incompressible empty; do
    size=$(stat -c %s "$work/in/$name")
    total=$((total + size))
    archive=- ratio=- pack_rate=- unpack_rate=- verdict=BAD
    if pack=$(timed "Compress complete" -c "$work/in/$name" "$work/archive/$name" "$name"); then
        archive=$(stat -c %s "$work/archive/$name")
        [ "$size" -eq 0 ] || ratio=$((archive * 1000 / size / 10)).$((archive * 1000 / size % 10))%
        pack_rate=$(rate "$size" "$pack")
        if unpack=$(timed "Decompression succeeded" -d "$work/archive/$name" "$work/out"); then
            unpack_rate=$(rate "$size" "$unpack")
            if cmp "$work/in/$name" "$work/out/$name"; then verdict=identical; fi
        fi
    fi
    [ $verdict = identical ] || result=1
    # shellcheck disable=SC2059
    printf "$row" "$name" "$size" "$archive" "$ratio" "$pack_rate" "$unpack_rate" "$verdict"
done
echo

if [ "$total" -lt 100000000 ]; then
    echo "run: only $total bytes were tried" >&2
    result=1
fi
if [ -n "$(ls -A "$KRHOME/tmp")" ]; then
    echo "run: the tool left files in $KRHOME/tmp" >&2
    result=1
fi
if [ $result -eq 0 ]; then
    rm -r "$work"
    echo "All $total bytes came back as they were."
else
    echo "FAILED; the files are in $work" >&2
fi
exit $result
