# Reads what gcov prints of many objects, and says of each source how many of its lines and branches any
# test reached. Prints a table; lines that none reached go to the file `listing`. Branches that an
# exception takes do not count, since every call has one.

function share(reached, all) { return all ? sprintf("%6d of %6d %5.1f %%", reached, all, 100 * reached / all) : sprintf("%23s", "") }

function row(name) {
    return share(reachedLines[name], lines[name]) "  " share(reachedBranches[name], branches[name]) "  " name
}

/^ *-: *0:Source:/ {
    file = substr($0, index($0, "Source:") + 7)
    isOurs = file ~ /^(Host|Core|Platform|Proc|apps)\//
    files[file] = 1
}

!isOurs { next }

/^ *([0-9]+\*?|#####|=====): *[1-9][0-9]*:/ {
    split($0, part, ":")
    place = file ":" part[2] + 0
    known[place] = 1
    if (part[1] ~ /[0-9]/) reached[place] = 1
    text[place] = substr($0, length(part[1]) + length(part[2]) + 3)
}

/^branch/ && !/\(throw\)/ {
    known[place "|" $2] = 1
    if ($3 == "taken" && $4 > 0) reached[place "|" $2] = 1
}

END {
    for (place in known) {
        split(place, part, ":")
        name = part[1]
        folder = name ~ /^apps/ ? "the program" : "the library"
        if (place ~ /\|/) {
            ++branches[name]; ++branches[folder]; ++branches["all"]
            if (place in reached) { ++reachedBranches[name]; ++reachedBranches[folder]; ++reachedBranches["all"] }
        } else {
            ++lines[name]; ++lines[folder]; ++lines["all"]
            if (place in reached) { ++reachedLines[name]; ++reachedLines[folder]; ++reachedLines["all"] }
            else print place ":" text[place] | ("sort -t: -k1,1 -k2,2n >" listing)
        }
    }
    kSort = "sort -t'|' -k1.51" # by name
    printf "%23s  %23s\n", "lines reached", "branches reached"
    fflush()
    for (name in files) if (name in lines) print row(name) | kSort
    close(kSort)
    print row("the library")
    print row("the program")
    print row("all")
}
