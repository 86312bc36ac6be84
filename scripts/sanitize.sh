#!/usr/bin/env bash
# All tests under AddressSanitizer (with leak checking) and UndefinedBehaviorSanitizer, or with
# "threads" those of the archive tool under ThreadSanitizer: the library has no threads. The options
# that the sanitizers run with are set beside the tests, in CMakeLists.txt.
#
#   scripts/sanitize.sh [threads]
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "${1:-}" = threads ]; then
    names=(test_workers test_pakzlib test_faults test_hostile test_tool)
    scripts/build.sh tsan "${names[@]}"
    pattern=$(IFS='|' && echo "^(${names[*]})$")
    ctest --test-dir build/tsan --output-on-failure --no-tests=error -j "$(nproc)" -R "$pattern"
else
    scripts/build.sh sanitize
    ctest --test-dir build/sanitize --output-on-failure --no-tests=error -j "$(nproc)"
fi
