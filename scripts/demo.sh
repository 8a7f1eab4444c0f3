#!/bin/bash
# Converts pictures in the ways that the library is for, shows them in a window, and lays all out on
# a contact sheet. Runs inside the root.
#   demo.sh PROGRAM OUT-FOLDER FILE...
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
if [ -z "${NORVEX_WINE_SESSION:-}" ]; then
    exec "$here/wine-session" "$0" "$@"
fi
program=$1
out=$2
shift 2
mkdir -p "$out"

# picture NAME INPUT OPTIONS...: one conversion into NAME.png, and a line on what it was and how
# long the draw took
picture() {
    local name=$1 input=$2 report draw
    shift 2
    report=$("$here/wine-run" "$program" convert "$input" "$out/$name.png" --json "$@")
    draw=$(printf '%s' "$report" | tr -d '\r\n' | sed -n 's/.*"draw" *: *\([0-9.]*\).*/\1/p')
    [ -n "$draw" ] || { echo "the program reported no time for its draw: $report" >&2; return 1; }
    printf '  %-34s %8.1f ms   %s\n' "$name.png" "$draw" "$*"
    pictures+=("$out/$name.png")
}

# view NAME INPUT: shows it in a window for 30 frames; NAME.png is what the window showed
view() {
    local name=$1 input=$2 report frame
    report=$("$here/wine-run" "$program" view "$input" --frames 30 --stats \
        --screenshot "$out/$name.png" --json)
    frame=$(printf '%s' "$report" | tr -d '\r\n' |
        sed -n 's/.*"presentIntervalMs" *: *{ *"median" *: *\([0-9.]*\).*/\1/p')
    [ -n "$frame" ] || { echo "the program reported no time for its frames: $report" >&2; return 1; }
    printf '  %-34s %8.1f ms   %s\n' "$name.png" "$frame" "view --frames 30 --stats (from frame to frame)"
    pictures+=("$out/$name.png")
}

for input; do
    name=$(basename "${input%.*}")
    pictures=("$input")
    printf '%s\n  %-34s %11s   %s\n' "$input" picture "draw" "drawn with"
    picture "$name-pq" "$input" --from srgb --to rec2020-pq --depth 16
    # The picture has no highlights above SDR white, so that nothing is to be compressed.
    picture "$name-pq-back" "$out/$name-pq.png" --from rec2020-pq --to srgb \
        --source-peak 203 --depth 8
    picture "$name-hlg" "$input" --from srgb --to rec2020-hlg --depth 16
    picture "$name-rotated" "$input" --from srgb --to srgb --size 1280x1280 --fit fit \
        --rotate 30 --background 202020ff
    picture "$name-premultiplied" "$input" --from srgb --to srgb --size 1280x720 --fit fit \
        --rotate -10 --target-alpha premultiplied --background 00000000
    view "$name-view" "$input"
    "$here/wine-run" "$program" sheet "$out/$name-sheet.png" "${pictures[@]}" --columns 4 >/dev/null
    printf '  %-34s               %s\n' "$name-sheet.png" "the source and all of these, side by side"
done
echo "The pictures are in $out"
