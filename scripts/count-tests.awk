# Counts what the tests did: reads ctest's JUnit file (the input) and, for each of its entries, the
# GoogleTest XML in `folder`. Compares the cases with those in the file `list` (ENTRY CASE
# [may-skip], one a line), or writes that file if `update` is set. The file `leftOut` names entries
# that this machine cannot run; `partial` is set when not all tests were asked for. The exit status
# is 0 only if nothing failed and nothing that is expected did not run.

function attribute(line, name,    found) {
    if (!match(line, " " name "=\"[^\"]*\"")) return ""
    found = substr(line, RSTART + length(name) + 3, RLENGTH - length(name) - 4)
    gsub(/&lt;/, "<", found)
    gsub(/&gt;/, ">", found)
    gsub(/&quot;/, "\"", found)
    gsub(/&amp;/, "\\&", found)
    return found
}

function record(entry, name, outcome) {
    if (!((entry " " name) in outcomes)) order[++cases] = entry " " name
    outcomes[entry " " name] = outcome
}

# The cases of one GoogleTest program; returns how many failed, or -1 if it left no results.
function read_cases(entry,    file, line, name, failures, seen) {
    file = folder "/" entry ".xml"
    while ((getline line < file) > 0) {
        if (line ~ /<testcase /) {
            seen = 1
            name = attribute(line, "classname") "." attribute(line, "name")
            record(entry, name, attribute(line, "result") == "completed" ? "passed" : "skipped")
        } else if (line ~ /<failure / && outcomes[entry " " name] != "failed") {
            record(entry, name, "failed")
            ++failures
        }
    }
    close(file)
    return seen ? failures + 0 : -1
}

/<testcase / {
    entry = attribute($0, "name")
    ran[entry] = 1
    entryPassed = attribute($0, "status") == "run"
    failures = read_cases(entry)
    # A program that crashed, or that was failed for another reason than a case, counts as one
    # failure of its own.
    if (failures < 0) record(entry, "(program)", entryPassed ? "passed" : "failed")
    else if (failures == 0 && !entryPassed) record(entry, "(program)", "failed")
}

function read_list(    line, words) {
    while ((getline line < leftOut) > 0) absentEntry[line] = 1
    while ((getline line < list) > 0) {
        split(line, words, " ")
        if (line ~ /^#/ || line == "") continue
        expected[words[1] " " words[2]] = 1
        if (words[3] == "may-skip") maySkip[words[1] " " words[2]] = 1
    }
    close(list)
}

function listed(name) { return name (name in maySkip ? " may-skip" : "") }

function write_list(    i, command) {
    print "# Every test case: ENTRY CASE [may-skip]. Written by ./dev test --update-list; may-skip is" > list
    print "# added by hand, for a case that cannot run on every machine." > list
    close(list)
    command = "LC_ALL=C sort >> '" list "'"
    for (i = 1; i <= cases; ++i) {
        if (order[i] !~ /\(program\)$/) print listed(order[i]) | command
    }
    # What this machine cannot run stays in the list.
    for (i in expected) {
        split(i, words, " ")
        if (words[1] in absentEntry) print listed(i) | command
    }
    close(command)
    print "Wrote " list
}

END {
    read_list()
    if (update && !partial) write_list()
    sub(/.*\//, "tests/", list)
    for (i = 1; i <= cases; ++i) {
        what = outcomes[order[i]]
        ++count[what]
        if (what == "failed") print "failed:  " order[i]
        if (what == "skipped") {
            print "skipped: " order[i]
            if (!(order[i] in maySkip)) ++wrong
        }
        if (!(order[i] in expected) && order[i] !~ /\(program\)$/) ++unknown
    }
    if (!update && ENVIRON["GTEST_FILTER"] == "") {
        for (name in expected) {
            split(name, words, " ")
            if (name in outcomes || (partial && !(words[1] in ran))) continue
            if (words[1] in absentEntry) {
                print "skipped: " name " (cannot run on this machine)"
                ++count["skipped"]
            } else {
                print "missing: " name " did not run, but is in " list
                ++count["failed"]
            }
        }
        if (unknown) print "note:    " unknown " cases are not yet in " list ": ./dev test --update-list"
    }
    tail = count["skipped"] ? ", " count["skipped"] " skipped" : ""
    print count["passed"] + 0 " passed, " count["failed"] + 0 " failed" tail
    exit (count["failed"] || wrong || !cases) ? 1 : 0
}
