# Of each source given, and of each header if `headers` is set: itself, a tab, and the project's headers
# that it sees, directly or not.
# Includes are written from the project's root.

/^#include "/ { includes[FILENAME] = includes[FILENAME] " " substr($2, 2, length($2) - 2) }
FNR == 1 { known[FILENAME] = 1 }

function visit(file, source,    i, count, names) {
    count = split(includes[file], names, " ")
    for (i = 1; i <= count; ++i) {
        if (!(names[i] in known) || seen[names[i]] == source) continue
        seen[names[i]] = source
        list = list " " names[i]
        visit(names[i], source)
    }
}

END {
    for (source in known) {
        if (source !~ /\.cpp$/ && !headers) continue
        list = ""
        visit(source, source)
        print source "\t" list
    }
}
