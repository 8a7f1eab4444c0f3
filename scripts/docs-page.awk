# Shows a page of docs/ to Doxygen. A page is known by its file's name, which links name; index.md has
# the others below it. What stands in comments for the site alone (\snippet) comes out of them, and
# links to what the site does not have are their words.

FNR == 1 {
    name = FILENAME
    gsub(/.*\/|\.md$/, "", name)
}
FNR == 1 && name != "index" { $0 = $0 " {#" name "}" }
/^```/ { isCode = !isCode }
isCode {
    print
    next
}
/^<!-- \\[a-z].* -->$/ { gsub(/^<!-- | -->$/, "") }
{
    line = ""
    while (match($0, /\[[^][]*\]\([^)]*\)/)) {
        link = substr($0, RSTART, RLENGTH)
        line = line substr($0, 1, RSTART - 1)
        isPicture = substr(line, length(line)) == "!"
        $0 = substr($0, RSTART + RLENGTH)
        words = substr(link, 2, index(link, "](") - 2)
        target = substr(link, index(link, "](") + 2)
        sub(/\)$/, "", target)
        if (isPicture || target ~ /^https?:/) {
            line = line link
        } else if (target ~ /\.md$/) {
            gsub(/.*\/|\.md$/, "", target)
            line = line (name == "index" ? "\\subpage " : "\\ref ") target " \"" words "\""
        } else {
            line = line words
        }
    }
    print line $0
}
