#!/usr/bin/env bash
# Lets two processes of the example "asking" talk over a data channel: in a home directory of their
# own, with the small communications manager of the tests. Exits 1 when an answer is wrong, when
# asking a process that is not there does not fail, or when somebody does not end in order.
set -euo pipefail
cd "$(dirname "$0")/.."
export LC_ALL=C

export KRHOME=$PWD/build/home-messages
asking=build/examples/asking
manager='' answering=''

fail() { echo "FAILED: $*; the home directory is $KRHOME" >&2; exit 1; }
stop() {
    for process in $answering $manager; do
        kill "$process" 2>/dev/null || true
        wait "$process" 2>/dev/null || true
    done
}
trap stop EXIT

# Waits until the file has a line that begins so.
await() {
    for ((waited = 0; waited < 200; waited++)); do
        if grep -qs "^$2" "$1"; then return 0; fi
        sleep 0.05
    done
    fail "no line \"$2\" in $1"
}

rm -rf "$KRHOME"
mkdir -p "$KRHOME"/{config,etc,tmp}
cat >"$KRHOME/config/configure.cfg" <<END
[Machine]
Name=demonstration
Comms TcpPort=0
END

build/tests/managers/commsmanager >"$KRHOME/manager" 2>&1 &
manager=$!
await "$KRHOME/manager" ready
$asking 101 >"$KRHOME/answering" &
answering=$!
await "$KRHOME/answering" "process 101 is there"

start=${EPOCHREALTIME/./}
$asking 102 101 water "double-byte" zebra >"$KRHOME/asking" || fail "$(cat "$KRHOME/asking")"
took=$((${EPOCHREALTIME/./} - start))
sed 's/^/    /' "$KRHOME/asking"
diff - "$KRHOME/asking" <<END || fail "other lines were expected"
process 102 is there
water: 5 bytes
double-byte: 11 bytes
zebra: 5 bytes
END
wait "$answering" || fail "process 101 ended with status $?"
answering=''
if said=$($asking 102 101 water); then fail "a process that is gone has answered: $said"; fi
[ "${said##*$'\n'}" = "process 101 cannot be reached" ] || fail "$said"

echo "Two processes found each other and talked over a channel of their own in $((took / 1000)) ms."
