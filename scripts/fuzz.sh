#!/usr/bin/env bash
# Runs the fuzzers, as many at a time as there are cores, and fails when one finds something.
#
#   scripts/fuzz.sh SECONDS [NAME...]      NAME: fuzz_stream and so on; all when none is given
#
# Each starts from a copy of its corpus fuzz/corpus/NAME, so that the tree stays as it is. What a
# fuzzer finds is kept beside its log in build/fuzz/run/NAME; `build/fuzz/bin/NAME FILE` replays it.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${1:-}" = --one ]; then
    name=$2 seconds=$3 run=$PWD/build/fuzz/run/$2
    rm -rf "$run"
    mkdir -p "$run/home/tmp" "$run/home/config" "$run/findings"
    cp -r "fuzz/corpus/$name" "$run/corpus"
    dictionary=()
    [ ! -f "fuzz/$name.dict" ] || dictionary=("-dict=fuzz/$name.dict")
    # Little freed memory is kept from use: more of it makes the fuzzers several times slower.
    if ! KRHOME=$run/home TMPDIR=$run/home/tmp UBSAN_OPTIONS=print_stacktrace=1 \
        ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1:quarantine_size_mb=16 \
        "build/fuzz/bin/$name" "$run/corpus" "${dictionary[@]}" -max_total_time="$seconds" \
        -rss_limit_mb=2048 -timeout=25 -print_final_stats=1 -artifact_prefix="$run/findings/" \
        >"$run/log" 2>&1 </dev/null; then
        echo "$name: FOUND SOMETHING, see $run/log and $run/findings"
        grep -v '^#' "$run/log" | tail -n 40
        exit 1
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$run/log")
    from=$(find "fuzz/corpus/$name" -type f | wc -l)
    grown=$(sed -n 's/^stat::new_units_added: *//p' "$run/log")
    if [ "${runs:-0}" -eq 0 ]; then
        echo "$name: ran nothing, see $run/log"
        exit 1
    fi
    echo "$name: nothing found in $runs runs over $seconds s from $from inputs, $grown added"
    exit 0
fi

seconds=${1:?usage: scripts/fuzz.sh SECONDS [NAME...]}
shift
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
    for source in fuzz/fuzz_*.cpp; do
        [ -e "$source" ] || { echo "fuzz: there are no fuzz/fuzz_*.cpp" >&2; exit 1; }
        names+=("$(basename "$source" .cpp)")
    done
fi
for name in "${names[@]}"; do
    [ -n "$(ls -A "fuzz/corpus/$name" 2>/dev/null)" ] ||
        { echo "fuzz: fuzz/corpus/$name is missing or empty" >&2; exit 1; }
done
scripts/build.sh fuzz "${names[@]}"
printf '%s\0' "${names[@]}" | xargs -0 -P "$(nproc)" -I{} scripts/fuzz.sh --one {} "$seconds"
