#!/usr/bin/env bash
# A whole machine under mixed load while a process is killed every second (docs/soak.md).
#
#   [BUILD=build/sanitize] scripts/soak.sh [SECONDS [SEED]]
#
# 900 seconds without a number; the seed chooses whom to kill. The report goes to standard output
# and to soak.md in the directory of the build. Exit code 1 when there was a fault.
set -euo pipefail
cd "$(dirname "$0")/.."
export LC_ALL=C

seconds=${1:-900}
seed=${2:-1}
build=$PWD/${BUILD:-build}
home=$build/home-soak

rm -rf "$home"
mkdir -p "$home"/{bin,config/map,dump,etc,gui/CachedPits/client/config,tmp,trace}
cp "$build/bin/zlibcompress" "$home/bin"
touch "$home/bin/keys" "$home/config/map/served.cfg.map"
for role in load worker; do
    printf '#!/bin/sh\nexec %s --role %s "$1"\n' "$build/tests/soak" $role >"$home/bin/$role"
    chmod +x "$home/bin/$role"
done
cat >"$home/config/configure.cfg" <<END
[Machine]
Name=soak
Comms TcpPort=0

[Details]
Server=TRUE

[Trace]
Trace To File=TRUE
Lines per File=1000
Files to Keep=3
END
cat >"$home/config/programs.cfg" <<END
[Process Manager]
unix=bin/keys

[load]
unix=bin/load

[worker]
unix=bin/worker
END
cat >"$home/config/services.cfg" <<END
[Load]
Program=load

[Worker]
Program=worker
END

"$build/tests/soak" "$home" "$seconds" "$seed" | tee "$build/soak.md"
