#!/usr/bin/env bash
# Builds and runs the benchmarks and prints their tables.
#
#   scripts/bench.sh [NAME...]     NAME: archive alloc containers stream trace stanza config msg;
#                                  all when none is given
set -euo pipefail
cd "$(dirname "$0")/.."

names=("$@")
[ ${#names[@]} -gt 0 ] || names=(archive alloc containers stream trace stanza config msg)
scripts/build.sh bench "${names[@]/#/bench_}"

KRHOME=$PWD/build/bench/home
export KRHOME
mkdir -p "$KRHOME"/{config,tmp,trace}
for name in "${names[@]}"; do
    program=build/bench/bin/bench_$name
    if [ "$name" != archive ]; then
        "$program"
        continue
    fi
    sample=build/bench/sample
    [ -e $sample/source ] ||
        { rm -rf $sample && scripts/sample.sh $sample.new 128 && mv $sample.new $sample; }
    "$program" $sample /dev/shm       # in memory
    "$program" $sample build/bench 3  # on disk
    "$program" --scaling $sample build/bench
    "$program" --start
done
