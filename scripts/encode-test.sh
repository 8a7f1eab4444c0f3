#!/bin/bash
# Tests `norvexdx encode`, and `view`, in pipes: clips of ffmpeg's go in, what comes out is compared with ffmpeg's
# own conversion; and what ends it before its time. ctest calls this, inside the root.
#   encode-test.sh NORVEXDX.exe RESULT.xml
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
if [ -z "${NORVEX_WINE_SESSION:-}" ]; then
    exec "$here/wine-session" "$0" "$@"
fi
program=$(readlink -f "$1")
result=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
# shellcheck source=/dev/null
. "$here/cases.sh"

size=640x360 rate=25 frames=50
kMinPsnr=45 # dB, of luma

encode() { timeout 60 "$here/wine-run" "$program" encode "$@"; }
convert() { timeout 60 "$here/wine-run" "$program" convert "$@"; }
clip() { ffmpeg -v error -f lavfi -i "testsrc2=size=$size:rate=$rate" -frames:v "$frames" -f rawvideo -pix_fmt rgba -; }
raw() { printf '%s\n' -f rawvideo -pix_fmt "$1" -s "$size" -r "$rate" -i "$2"; }

# expect WHAT ACTUAL OPERATOR EXPECTED: numbers, as awk compares them
expect() {
    awk -v a="$2" -v b="$4" "BEGIN { exit !(a == a + 0 && a $3 b) }" && return
    echo "$1: $2, which is not $3 $4"
    return 1
}

# The frames of ffmpeg, converted by us, are those that ffmpeg converts.
agrees() {
    local api=$1 psnr expected
    clip >in.rgba
    mapfile -t source < <(raw rgba in.rgba)
    ffmpeg -v error "${source[@]}" -vf scale=out_color_matrix=bt709:out_range=tv,format=nv12 -f rawvideo -y theirs.nv12
    clip | encode - --size "$size" --format nv12 --matrix bt709 --api "$api" -o - >ours.nv12
    expected=$(stat -c %s theirs.nv12)
    expect "bytes of $frames frames" "$(stat -c %s ours.nv12)" == "$expected"
    mapfile -t ours < <(raw nv12 ours.nv12)
    mapfile -t theirs < <(raw nv12 theirs.nv12)
    psnr=$(ffmpeg -hide_banner "${ours[@]}" "${theirs[@]}" -lavfi psnr -f null - 2>&1 | sed -n 's/.*PSNR y:\([0-9.inf]*\).*/\1/p')
    expect "PSNR of luma" "${psnr/inf/1000}" '>' "$kMinPsnr"
}

# The viewer takes a stream as it comes, from the frame that is asked for to its end.
plays() {
    local frame
    frame=$(ffmpeg -v error -f lavfi -i "testsrc2=size=$size:rate=$rate" -frames:v "$frames" -f yuv4mpegpipe - |
        timeout 60 "$here/wine-run" "$program" view - --at 11 --frames "$frames" --json | sed -n 's/.*"frame": \([0-9]*\),.*/\1/p')
    expect "last frame that is shown" "$frame" == "$frames"
}

# What comes out of our Y4M file, and of the pipe into an encoder, decodes frame by frame.
decodes() {
    local count
    clip | encode - --size "$size" --format p010 --fps "$rate" -o clip.y4m
    count=$(ffprobe -v error -count_frames -show_entries stream=nb_read_frames -of csv=p=0 clip.y4m)
    expect "frames of the Y4M file" "$count" == "$frames"
    mapfile -t piped < <(raw nv12 -)
    clip | encode - --size "$size" --format nv12 -o - | ffmpeg -v error "${piped[@]}" -y clip.mp4
    ffmpeg -v error -xerror -i clip.mp4 -f null -
    count=$(ffprobe -v error -count_frames -show_entries stream=nb_read_frames -of csv=p=0 clip.mp4)
    expect "frames of the muxed clip" "$count" == "$frames"
}

# README's line: HDR10 from ffmpeg becomes SDR in an encoder, with every frame, and as zscale makes it
# where ffmpeg has that. The clip stays below white and inside Rec. 709, beyond which zscale cuts
# R'G'B' and the library Y'C'bC'r.
turns_hdr_into_sdr() {
    local count filters psnr
    ffmpeg -v error -f lavfi -i "testsrc2=size=$size:rate=$rate" -frames:v 10 \
        -vf "format=yuv420p10le,lutyuv=y=200+(val-64)*0.35:u=512+(val-512)*0.04:v=512+(val-512)*0.04" \
        -color_primaries bt2020 -color_trc smpte2084 -colorspace bt2020nc -color_range tv -c:v ffv1 -y hdr.mkv
    ffmpeg -v error -i hdr.mkv -f yuv4mpegpipe -strict -1 - |
        encode - --from rec2020-pq --to rec709 --source-peak 203 --format yuv420p --container y4m -o - |
        tee ours.y4m | ffmpeg -v error -i - -c:v libx264 -y sdr.mp4
    count=$(ffprobe -v error -count_frames -show_entries stream=nb_read_frames -of csv=p=0 sdr.mp4)
    expect "frames of the clip in SDR" "$count" == 10
    filters=$(ffmpeg -v error -filters)
    if [[ $filters != *zscale* ]]; then
        echo "ffmpeg has no zscale: not compared"
        return
    fi
    psnr=$(ffmpeg -hide_banner -i ours.y4m -i hdr.mkv -lavfi "[1]zscale=tin=smpte2084:min=2020_ncl:pin=2020:rin=limited:cin=left:t=709:m=709:p=709:r=limited:c=left:npl=203,format=yuv420p[b];[0][b]psnr" \
        -f null - 2>&1 | sed -n 's/.*PSNR y:\([0-9.inf]*\) u:\([0-9.inf]*\) v:\([0-9.inf]*\).*/\1 \2 \3/p')
    echo "PSNR of Y', C'b and C'r against zscale: $psnr"
    expect "PSNR of luma against zscale" "${psnr%% *}" '>' "$kMinPsnr"
}

# encodes_to_the_end: writes the exit code that Windows' programs see; that of Wine's process is another one
# now and then, where threads of the driver end at the same time.
encodes_to_the_end() {
    timeout 60 "$here/wine-run" cmd.exe /v:on /c \
        "Z:${program//\//\\} encode - --size $size --format nv12 -o - 2>err & echo !errorlevel!>status"
}

# A reader that goes away ends it with one line, even while the input neither goes on nor ends.
ends_with_reader() {
    mkfifo stalled
    sleep 30 >stalled &
    local sleeper=$!
    { clip && cat stalled; } | encodes_to_the_end | head -c 1000 >part &
    local began=$SECONDS
    until [ -s status ] || [ $((SECONDS - began)) -gt 20 ]; do sleep 0.1; done
    kill "$sleeper"
    wait || true
    expect "exit status" "$(tr -d '\r' <status)" == 1
    expect "bytes that were read" "$(stat -c %s part)" == 1000
    [ "$(cat err)" = "norvexdx: whoever reads standard output has closed it" ] || { cat err; return 1; }
}

# A disk that is full behind standard output, where the system has one.
ends_with_full_disk() {
    rm -f status
    clip | encodes_to_the_end >/dev/full || true
    expect "exit status" "$(tr -d '\r' <status)" == 1
    [ "$(cat err)" = "norvexdx: cannot write to standard output" ] || { cat err; return 1; }
}

# In the middle of a clip: nothing is left of it, and the old one stays.
ends_when_interrupted() {
    local status=0 began=$SECONDS
    mkdir interrupted
    echo old >interrupted/clip
    mkfifo waiting
    { clip && sleep 30; } >waiting &
    local sleeper=$!
    "$here/wine-run" "$program" encode - --size "$size" --format nv12 -o interrupted/clip <waiting 2>err &
    local encoder=$!
    # Once it has written frames and waits for more: Wine may stand still when a signal meets a thread at
    # work, as while shaders are compiled for the first frame.
    until [ -n "$(find interrupted -name '*.tmp' -size +0)" ] || [ $((SECONDS - began)) -gt 20 ]; do sleep 0.1; done
    sleep 1
    kill -INT "$encoder"
    wait "$encoder" || status=$?
    kill "$sleeper"
    expect "exit status" "$status" == 130
    [ "$(cd interrupted && echo * && cat clip)" = $'clip\nold' ] || { ls interrupted; return 1; }
}

# fails_with WORDS COMMAND...: exit code 1, and one line on standard error that has the words
fails_with() {
    local status=0
    "${@:2}" >/dev/null 2>err || status=$?
    expect "exit status" "$status" == 1
    expect "lines on standard error" "$(wc -l <err)" == 1
    grep -qF -- "$1" err || { cat err; return 1; }
}

# Pictures of 97 x 113 pixels that say that they are 65,535 x 65,535: no room is made for those. Names that
# no file can have.
refuses_what_is_too_large() {
    local kind name
    name=$(printf 'x%.0s' {1..300}).png
    for kind in jpg tiff; do
        ffmpeg -v error -f lavfi -i color=red:size=97x113 -vf "format=$([ $kind = tiff ] && echo rgb24 || echo yuvj420p)" \
            -frames:v 1 -update 1 "whole.$kind"
        LC_ALL=C sed -e 's/\x00\x71\x00\x61/\xff\xff\xff\xff/' -e 's/\x61\x00\x00\x00/\xff\xff\x00\x00/' \
            -e 's/\x71\x00\x00\x00/\xff\xff\x00\x00/' "whole.$kind" >"large.$kind"
        fails_with "65535 x 65535 pixels is larger than the device" convert "large.$kind" out.png
    done
    fails_with "there is no file" convert "$name" out.png
    fails_with "cannot replace" convert whole.jpg "$name"
    [ "$(echo ./*.tmp)" = './*.tmp' ] || { ls; return 1; }
}

# Two at once into one file: it is whole, and nothing else is left.
agrees_with_itself() {
    mkdir both
    clip >in.rgba
    encode - --size "$size" --format nv12 -o alone <in.rgba
    encode - --size "$size" --format nv12 -o both/clip <in.rgba &
    encode - --size "$size" --format nv12 -o both/clip <in.rgba
    wait $!
    cmp alone both/clip
    [ "$(ls both)" = clip ] || { ls both; return 1; }
}

run_case EncodePipeTest AgreesWithFfmpegOnDirect3D11 agrees d3d11
run_case EncodePipeTest AgreesWithFfmpegOnDirect3D12 agrees d3d12
run_case EncodePipeTest WhatComesOutDecodes decodes
run_case EncodePipeTest TheViewerPlaysAStream plays
run_case EncodePipeTest TurnsHdrIntoSdr turns_hdr_into_sdr
run_case EncodePipeTest EndsWithItsReader ends_with_reader
run_case EncodePipeTest EndsWhenTheDiskIsFull ends_with_full_disk
run_case EncodePipeTest LeavesNothingWhenItIsInterrupted ends_when_interrupted
run_case EncodePipeTest WhatIsTooLargeIsRefusedInOneLine refuses_what_is_too_large
run_case EncodePipeTest TwoAtOnceLeaveAWholeFile agrees_with_itself
write_results "$result"
