#!/usr/bin/env bash
# Builds and runs the benchmarks and prints their tables.
#
#   scripts/bench.sh [NAME...]     NAME: tool alloc containers stream trace stanza config msg; all when none is given
set -euo pipefail
cd "$(dirname "$0")/.."

names=("$@")
[ ${#names[@]} -gt 0 ] || names=(tool alloc containers stream trace stanza config msg)
scripts/build.sh bench "${names[@]/#/bench_}"

KRHOME=$PWD/build/bench/home
export KRHOME
mkdir -p "$KRHOME"/{config,tmp,trace}
for name in "${names[@]}"; do
    arguments=()
    if [ "$name" = tool ]; then
        sample=build/bench/sample
        [ -d $sample ] || { scripts/sample.sh $sample.new 128 && mv $sample.new $sample; }
        cat $sample/* >/dev/null # into the page cache
        arguments=("$sample")
    fi
    "build/bench/bin/bench_$name" "${arguments[@]}"
done
