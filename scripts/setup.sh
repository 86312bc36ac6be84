#!/usr/bin/env bash
# Installs the Debian packages that the named groups need and that are not there yet.
#
#   scripts/setup.sh GROUP...      groups: build test lint ilp32 fuzz bench
#
# Says nothing when nothing is missing. TESSEL_SETUP=no leaves the machine alone, for those who keep
# the tools somewhere else.
set -euo pipefail

packages_of() {
    case $1 in
        build) echo cmake ninja-build g++ zlib1g-dev libdeflate-dev libcrypt-dev ;;
        test) echo libgtest-dev iproute2 pkg-config ;;
        lint) echo clang clang-format clang-tidy ;;
        ilp32) echo g++-multilib lib32z1-dev googletest qemu-user-static ;;
        fuzz) echo clang libclang-rt-dev llvm ;;
        bench) echo gzip libbenchmark-dev libdeflate-tools libglib2.0-dev libnng-dev libspdlog-dev libsqlite3-dev libzmq3-dev pigz pkg-config ;;
        *) echo "setup: no group is named $1 (build test lint ilp32 fuzz bench)" >&2; return 2 ;;
    esac
}

[ "${TESSEL_SETUP:-yes}" != no ] || exit 0

wanted=()
for group in "$@"; do
    names=$(packages_of "$group")
    read -ra list <<<"$names"
    wanted+=("${list[@]}")
done

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    echo "setup: this is no Debian system, so nothing is installed. Needed, by Debian's names:" \
         "${wanted[*]}" >&2
    exit 0
fi

missing=()
for name in "${wanted[@]}"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$name" 2>/dev/null || true)" = installed ] ||
        missing+=("$name")
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        echo "setup: these packages are missing and only root can install them: ${missing[*]}" >&2
        echo "setup: as root, run: apt-get install ${missing[*]}" >&2
        exit 1
    fi
    as_root=(sudo)
fi

log=$(mktemp)
trap 'rm -f "$log"' EXIT
apt() { "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get "$@" </dev/null >>"$log" 2>&1; }

echo "setup: installing ${missing[*]}"
install=(install -y -q --no-install-recommends "${missing[@]}")
# The package lists of a new machine are empty or old: they are fetched when the first try fails.
if ! apt "${install[@]}" && ! { apt update -q && apt "${install[@]}"; }; then
    tail -n 20 "$log" >&2
    echo "setup: apt-get could not install: ${missing[*]}" >&2
    exit 1
fi
