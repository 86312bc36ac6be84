#!/usr/bin/env bash
# Runs the example "system", a whole machine for a short day, in a home directory of its own: its
# managers are those of the tests. Exits 1 unless everything that it shows is as it should be and
# everything that it has started is gone afterwards: processes, shared memory, temporary files and
# listening sockets.
set -euo pipefail
cd "$(dirname "$0")/.."
export LC_ALL=C

build=$PWD/build
home=$build/home-system
shown=$home/shown
machine=''

fail() { echo "FAILED: $*; the home directory is $home" >&2; exit 1; }

# Ids of the processes that bear the home directory in their environment: all of the machine's.
processes() {
    grep -lzxF "KRHOME=$home" /proc/[0-9]*/environ 2>/dev/null | tr -dc '0-9\n' || true
}
gone() { # gone NAME IDS...: whatever is still there after all is killed by its id
    local name=$1
    shift
    [ $# -eq 0 ] || { kill -KILL "$@" 2>/dev/null; fail "$name left: $*"; }
}
stop() {
    [ -z "$machine" ] || kill -KILL "$machine" 2>/dev/null || true
    for process in $(processes); do kill -KILL "$process" 2>/dev/null || true; done
}
trap stop EXIT

# The shown lines that match the pattern are as many as the number says.
expect() {
    local found
    found=$(grep -cE "$2" "$shown" || true)
    [ "$found" -eq "$1" ] || fail "$found lines, not $1, match \"$2\""
}
segments() { awk 'NR > 1 { print $2, $5 }' /proc/sysvipc/shm | sort; } # id and maker
setting() { sed -n "s/^$2=//p" "$home/config/$1"; }

rm -rf "$home"
mkdir -p "$home/bin"
cp "$build/bin/zlibcompress" "$home/bin"
segments >"$build/segments"

timeout -k 1 45 "$build/examples/system/system" "$home" "$build/tests/managers" >"$home.shown" &
machine=$!
ended=0
wait $machine || ended=$?
machine=''
mv "$home.shown" "$shown"
grep -v "ok      $home" "$shown"
[ $ended -eq 0 ] || fail "the machine has ended with status $ended"

# What the viewer saw: managers' ids, services in their states, and counts of what they hold.
expect 7 '^ +[0-9]+  (Waiting for task|Busy) .* [1-9][0-9]* \( *[0-9]+\) +[1-9][0-9]* \( *[0-9]+\)$'
expect 1 '^ +7  Busy +Log Daemon '
expect 1 '^ +13  Busy +Configuration Server '
expect 2 '^ +1[0-9][0-9]  Waiting for task +(Mill|Oven): waits '
expect 3 '^ +1[0-9][0-9]  Busy +(Shop: (waits|rests)|system|viewer) '
expect 1 '^    SERVICE    2  Mill traces line 003999$'
expect 3 '^  log     (Mill has traced (2500|1500) lines|Mill ends with code 15 after 4000 lines)$'
grep -qa "Mill traces line 003950" "$home/dump/ring" || fail "the dump lacks a line of Mill's"
[ "$(sed -n 's/^Lines=//p' "$home/gui/CachedPits/branch/config/counts.cfg" | xargs)" = "4000 300" ] ||
    fail "the branch's configuration holds other counts"
[ "$(setting counts.cfg Lines)" = 100 ] || fail "Shop's count is not in the machine's configuration"

# Everybody has said his last words, those by message before the log daemon's own end.
build/examples/system/records "$home/logs/log" >"$home/log" || fail "the log is damaged"
sed 's/^/  log     /' "$home/log"
diff - <(sort "$home/log") <<END || fail "the log should be another"
Information: Mill ends with code 15 after 4000 lines
Information: Oven ends with code 0 after 300 lines
Information: Shop ends with code 0 after 100 lines
Information: The day is over
Job Message: Mill has traced 1500 lines
Job Message: Mill has traced 2500 lines
Job Message: Oven has traced 300 lines
Job Message: Shop has traced 100 lines
Startup: The day begins
END

# The tool may still pack the last trace files.
for ((waited = 0; waited < 100; waited++)); do
    [ -n "$(processes)" ] || break
    sleep 0.1
done
gone processes $(processes)
for archive in "$home"/trace/mill*.bin; do
    build/bin/zlibcompress -d "$archive" "$home/unpacked" | grep -qx "Decompression succeeded" ||
        fail "$archive cannot be unpacked"
done
files=$(find "$home/unpacked" -name '*.log' | wc -l)
lines=$(cat "$home"/unpacked/mill*.log | grep -oE 'Mill traces line [0-9]+$' | sort -u | wc -l)
[ "$files" -ge 4 ] && [ "$lines" -eq 4000 ] || fail "$files trace files hold $lines lines of Mill's"

left=$(comm -13 "$build/segments" <(segments) | awk -v made="$(sed -n \
    's/.*procmanager serves as process //p' "$shown")" '$2 == made { print $1 }')
[ -z "$left" ] || fail "shared memory left: $left"
left=$(find "$home/tmp" -type f)
[ -z "$left" ] || fail "temporary files left: $left"
for port in "$(setting configure.cfg 'Comms TcpPort')" "$(setting tlnmgr.cfg 'Manager Port')"; do
    [ "$port" -gt 0 ] || fail "a manager has had no port"
    if awk '$4 == "0A" { print $2 }' /proc/net/tcp* | grep -q ":$(printf %04X "$port")\$"; then
        fail "port $port is still listened on"
    fi
done
echo "All $lines lines of Mill's lie in $files packed files; no process, segment, file or port is left."
rm -r "$home"
