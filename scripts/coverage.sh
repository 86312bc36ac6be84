#!/usr/bin/env bash
# Builds the library and the tests with coverage, runs all tests, and names every function that a
# header declares and no test has called. Ends with 1 when there is one that is not excused.
#
#   scripts/coverage.sh
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/coverage

# Called where no count is written, or never: why.
declare -A excused=(
    [PathGetHomeDir]="called by children with a root directory of their own"
)

# __gcov_dump: children that a test ends with _exit write their counts by it.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="--coverage -O0" \
    -DCMAKE_EXE_LINKER_FLAGS=-Wl,-u,__gcov_dump >/dev/null
cmake --build "$build" -j "$(nproc)"
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"

# "name calls" of every function, the best of all objects; overloads count as one.
counts=$(mktemp)
trap 'rm -f "$counts"' EXIT
find "$build" -name '*.gcda' -print0 | xargs -0 gcov -f -n -m 2>/dev/null | awk '
    /^Function / { name = $0; sub(/^Function ./, "", name); sub(/[(].*/, "", name) }
    /^Lines executed:/ && name != "" {
        reached = $0 !~ /^Lines executed:0\.00%/
        if (!(name in best) || reached > best[name]) best[name] = reached
        name = ""
    }
    /^No executable/ { name = "" }
    END { for (n in best) print n, best[n] }' >"$counts"

unreached=0
for name in $(awk '$2 == 0 && $1 ~ /^[A-Za-z0-9_]+$/ { print $1 }' "$counts" | sort); do
    grep -qrE "\b$name\(" base/include brisk/*.h || continue
    if [ -n "${excused[$name]:-}" ]; then
        echo "$name: ${excused[$name]}"
    else
        echo "$name is never called"
        unreached=$((unreached + 1))
    fi
done
echo "$(awk '$2 == 1' "$counts" | wc -l) functions called, $unreached public ones never"
[ "$unreached" -eq 0 ]
