# shellcheck shell=bash
# Sourced by the scripts that test the packages: counts successes and failures.

passed=0
failed=0

# expect WHAT COMMAND...: the command must succeed. Its output is shown if it does not.
expect() {
    local what=$1 output
    shift
    if output=$("$@" 2>&1); then
        passed=$((passed + 1))
        printf '  ok    %s\n' "$what"
    else
        failed=$((failed + 1))
        printf '  FAIL  %s: %s\n%s\n' "$what" "$*" "$output"
    fi
}

# eventually COMMAND...: tries for half a minute.
eventually() {
    local i
    for ((i = 0; i < 150; i++)); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.2
    done
    "$@"
}

not() { ! "$@"; }

# shellcheck disable=SC2154 # the caller sets counts
# Prints the counts, and appends them to the file that the caller adds up.
finish() {
    printf '%s %s\n' "$passed" "$failed" >>"$counts"
    [ "$failed" -eq 0 ]
}
