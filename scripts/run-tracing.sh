#!/usr/bin/env bash
# Lets the example "tracing" trace 100,000 lines at several levels into rotating files that the tool
# packs in the background, then unpacks every archive and looks for every line. Exits 1 when a line
# is missing, out of order or there twice, or a file does not open with its block.
set -euo pipefail
cd "$(dirname "$0")/.."
export LC_ALL=C

work=build/run-tracing
export KRHOME=$PWD/build/home-tracing
tool=$KRHOME/bin/zlibcompress
lines=100000

fail() { echo "FAILED: $*; the files are in $KRHOME and $work" >&2; exit 1; }

rm -rf "$work" "$KRHOME"
mkdir -p "$work" "$KRHOME"/{bin,config,dump,tmp,trace}
cp build/bin/zlibcompress "$tool"
cat >"$KRHOME/config/configure.cfg" <<EOF
[Machine]
Name=demonstration

[Details]
Description=Demonstration of trace files

[Trace]
Trace To File=TRUE
Lines per File=1000
Files to Keep=3
EOF
cat >"$KRHOME/config/programs.cfg" <<EOF
[tracing]
Lines=$lines
Trace Level=4
EOF

start=${EPOCHREALTIME/./}
build/examples/tracing
took=$((${EPOCHREALTIME/./} - start))

# The tool works on after the example has ended: each file goes when its archive is complete.
for ((waited = 0; ; waited++)); do
    left=$(find "$KRHOME/trace" -name '*.log' | wc -l)
    [ "$left" -gt 0 ] || break
    [ $waited -lt 600 ] || fail "$left files are not packed after a minute"
    sleep 0.1
done

archives=0
for archive in "$KRHOME"/trace/tracing-*.bin; do
    [ "$("$tool" -d "$archive" "$work")" = "Decompression succeeded" ] || fail "$archive"
    archives=$((archives + 1))
done
for ((file = 0; file < archives; file++)); do
    name=$(printf '%s/tracing-%03d.log' "$work" $file)
    head -n 1 "$name" | grep -q "Running on host" || fail "$name does not open with its block"
    cat "$name"
done >"$work/all"
# The lines of the example are numbered from 0 without a gap.
found=$(awk '/ line [0-9]+ at level / {
    for (i = 1; i <= NF; i++) if ($i == "line") { if ($(i + 1) + 0 != n) exit 1; n++; break }
} END { print n + 0 }' "$work/all" || true)
[ "$found" -eq $lines ] || fail "$found of $lines lines in their order"

echo "$archives archives hold all $found lines in their order, none twice;" \
    "traced in $((took / 1000)) ms."
rm -r "$work"
