# Sourced by ./dev: messages, the cache folder, and running a step once.
#
# The cache is a user's, shared by all clones. What a step makes lies there under a name that ends
# in a hash of all that the step depends on; it is made beside and renamed, so that an interrupted
# run leaves nothing half-made in place. The system alone is made in place, and marked when it is whole.

: "${NORVEXDX_CACHE:=${XDG_CACHE_HOME:-$HOME/.cache}/norvexdx}"
mkdir -p "$NORVEXDX_CACHE"
NORVEXDX_CACHE=$(readlink -f "$NORVEXDX_CACHE")
cache=$NORVEXDX_CACHE

# Messages go to stderr: stdout belongs to the program that ./dev tool runs.
say() { printf '[%3d s] %s\n' "$SECONDS" "$*" >&2; }

fail() {
    say "$@"
    exit 1
}

# hash_of FILE-OR-TEXT...: ten characters that change when a file's content or a text does
hash_of() {
    local item
    for item; do
        if [ -f "$item" ]; then cat "$item"; else printf '%s\n' "$item"; fi
    done | sha256sum | cut -c1-10
}

# quietly LOG COMMAND...: the command's output goes to the log, and to the terminal only when it
# fails. Not for use in a condition: bash would then run on after a failure inside the command,
# where that is a function.
quietly() {
    local log=$1 status
    shift
    set +e
    (
        set -e
        "$@"
    ) >"$log" 2>&1 </dev/null
    status=$?
    set -e
    if [ "$status" -ne 0 ]; then
        tail -n 40 "$log" >&2
        say "That failed; the whole output is in $log"
    fi
    return "$status"
}

# locked FILE COMMAND...: runs the command while no other ./dev holds the same lock
locked() {
    local file=$1 descriptor
    shift
    exec {descriptor}>"$file"
    if ! flock --nonblock "$descriptor"; then
        say "Waiting for another ./dev (lock $file)"
        flock "$descriptor"
    fi
    "$@"
    exec {descriptor}>&-
}

# A folder that holds this file stays, whatever becomes of the run that makes it.
kIsWhole=.is-whole

# Whoever holds this pipe is part of the run. When the last of them is gone, however it ended, what was
# named in the pipe goes too; the one who waits for that is out of reach of signals to the run.
watch_leftovers() {
    exec {leftovers}> >(exec setsid bash -c 'mapfile -t paths
        for path in "${paths[@]}"; do
            [ -e "$path/$0" ] || rm -rf --one-file-system "$path"
        done' "$kIsWhole" >/dev/null 2>&1)
    sessions=$cache/sessions/$$
    goes_with_run "$sessions"
}

goes_with_run() { printf '%s\n' "$1" >&"$leftovers"; }

# Under which this run makes what is then called TARGET.
passing_name() { echo "$1.$$.tmp"; }

# make_once TARGET MESSAGE COMMAND...: runs the command with a fresh folder name as last argument
# and gives that folder the name TARGET; nothing to do where TARGET is there
make_once() {
    local target=$1 message=$2 passing
    passing=$(passing_name "$target")
    shift 2
    [ ! -e "$target" ] || return 0
    say "$message"
    goes_with_run "$passing"
    quietly "$target.log" "$@" "$passing" && mv -T "$passing" "$target"
}
