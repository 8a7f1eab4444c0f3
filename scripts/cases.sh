# Sourced by tests that are shell scripts: cases, and their results in GoogleTest's form.
#   run_case CLASS NAME COMMAND...   in a shell of its own, which ends at the first failure
#   write_results FILE               answers whether all passed
# Logs lie in the current folder.

failedCases=0
: >cases

run_case() {
    local class=$1 name=$2 status=0 began=$EPOCHREALTIME
    shift 2
    # Not as a condition: bash would run on after a failure inside.
    set +e
    (set -e; "$@") >"$name.log" 2>&1
    status=$?
    set -e
    echo "    <testcase name=\"$name\" classname=\"$class\" result=\"completed\"" \
        "time=\"$(awk "BEGIN { print $EPOCHREALTIME - $began }")\">" >>cases
    if [ "$status" -ne 0 ]; then
        failedCases=$((failedCases + 1))
        echo "      <failure message=\"failed\"></failure>" >>cases
        echo "$name failed:"
        cat "$name.log"
    fi
    echo "    </testcase>" >>cases
}

write_results() {
    {
        echo '<?xml version="1.0" encoding="UTF-8"?>'
        echo "<testsuites failures=\"$failedCases\">"
        cat cases
        echo '</testsuites>'
    } >"$1"
    [ "$failedCases" -eq 0 ]
}
