# Of docs/architecture.md and the sources behind it: includes that point up from the including file's
# floor. In a source an include may where the line above says why ("// Upwards ..."), since a device
# makes what records on it. Fails when there is one.

# The floor of what a row of the table names: folders from the root, the beginnings of other names.
FNR == NR && /^\| [0-9] \| / {
    while (match($0, /`[^`]+`/)) {
        name = substr($0, RSTART + 1, RLENGTH - 2)
        floors[(name ~ /\/$/ ? "" : "Proc/DirectX/Manager/") name] = substr($0, 3, 1) + 0
        $0 = substr($0, 1, RSTART - 1) substr($0, RSTART + RLENGTH)
    }
}

# By the longest name that fits.
function floor_of(path,    name, longest) {
    for (name in floors) {
        if (index(path, name) == 1 && length(name) > length(longest)) longest = name
    }
    return longest == "" ? -1 : floors[longest]
}

FNR == NR { next }
FNR == 1 { mayGoUp = 0 }

/^#include "/ {
    ++includes
    if (!mayGoUp && floor_of(substr($2, 2, length($2) - 2)) > floor_of(FILENAME)) {
        print FILENAME ":" FNR ": " $0 " points up the floors of docs/architecture.md"
        failed = 1
    }
    next
}
{ mayGoUp = FILENAME ~ /\.cpp$/ && ($0 ~ /^\/\/ Upwards/ || mayGoUp && $0 ~ /^\/\//) }

END { exit failed || !includes }
