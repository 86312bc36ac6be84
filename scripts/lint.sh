#!/usr/bin/env bash
# The form of the code: clang-format, warnings of both compilers, clang-tidy.
#
#   scripts/lint.sh [FILE...]      with files: only clang-format and clang-tidy, only on those
set -euo pipefail
cd "$(dirname "$0")/.."
export LC_ALL=C

headers_and_sources() { git ls-files -z --cached --others --exclude-standard -- '*.h' '*.cpp'; }
sources() { git ls-files -z --cached --others --exclude-standard -- '*.cpp'; }
if [ $# -gt 0 ]; then
    files=("$@")
    headers_and_sources() { printf '%s\0' "${files[@]}"; }
    sources() { printf '%s\0' "${files[@]}" | grep -z '\.cpp$' || true; }
fi

echo "lint: clang-format"
headers_and_sources | xargs -0 -r clang-format --dry-run -Werror

if [ $# -eq 0 ]; then
    echo "lint: g++ -Wall -Wextra -Wshadow -Wformat -Wformat-security -Werror"
    scripts/build.sh release
    echo "lint: the same with clang++"
    scripts/build.sh clang
elif [ ! -f build/clang/compile_commands.json ]; then
    cmake --preset clang >/dev/null
fi

# Only what the clang++ build compiles can be checked: clang-tidy takes the flags from there.
echo "lint: clang-tidy"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! sources | grep -zv '^bench/' |
    xargs -0 -r -n 2 -P "$(nproc)" clang-tidy -p build/clang --quiet >"$log" 2>&1; then
    grep -v -e 'warnings generated' -e '^Suppressed ' -e '^Use -header-filter' "$log" || true
    echo "lint: clang-tidy is not content" >&2
    exit 1
fi
echo "lint: clean"
