#!/usr/bin/env bash
# All tests under AddressSanitizer (with leak checking) and UndefinedBehaviorSanitizer. The options
# that the sanitizers run with are set beside the tests, in CMakeLists.txt.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh sanitize
ctest --test-dir build/sanitize --output-on-failure --no-tests=error -j "$(nproc)"
