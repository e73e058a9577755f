# What the demos share: a story of steps, each of which must be seen as expected.
# shellcheck shell=bash
# A demo defines take_line, which takes in the next line that arrives (see next_line), and the names
# of what its programs wrote to standard error.

declare -A status           # what was seen last of "group 1", "instance blue:30" ...
declare -a expected errors  # lines of the form "group 1 Master"; files
title='' ended='' deadline=0 limit=60

fail() {
    printf 'demo: %s\n' "$@" >&2
    exit 1
}

# Puts the next line of descriptor 3 into `line`, its caller's; false when there is none before the deadline.
next_line() {
    local left=$((deadline - SECONDS))
    [ "$left" -gt 0 ] || return 1
    # shellcheck disable=SC2034
    IFS= read -r -t "$left" -u 3 line || {
        [ $? -gt 128 ] || ended=yes # else the time is over
        return 1
    }
}

as_expected() {
    local it
    for it in "${expected[@]}"; do
        [ "${status["${it% *}"]:-nothing}" = "${it##* }" ] || return 1
    done
}

# Waits for lines, never for time; the limit only ends what will not come.
wait_until_expected() {
    deadline=$((SECONDS + limit))
    until as_expected; do
        take_line || return 1
    done
}

list() {
    local text
    text=$(printf ', %s' "$@")
    printf '%s' "${text:2}"
}

# Prints a line; on a terminal each status has its colour.
show() {
    local text=$1 it
    if [ -t 1 ] && [ -z "${NO_COLOR:-}" ]; then
        for it in Master=32 Backup=36 Fault=31 Init=33 Unknown=90; do
            text=${text//"${it%=*}"/$'\e['"${it#*=}m${it%=*}"$'\e[0m'}
        done
    fi
    printf '%s\n' "$text"
}

# show_columns WIDTH HEAD HEAD ARRAY ARRAY: two arrays beside each other, under their heads.
show_columns() {
    local width=$1 row i
    local -n left_column=$4 right_column=$5
    local rows=$((${#left_column[@]} > ${#right_column[@]} ? ${#left_column[@]} : ${#right_column[@]}))
    for ((i = -1; i < rows; i++)); do
        if [ "$i" -lt 0 ]; then
            printf -v row "   %-${width}s | %s" "$2" "$3"
        else
            printf -v row "   %-${width}s | %s" "${left_column[i]:-}" "${right_column[i]:-}"
        fi
        show "${row%"${row##*[! ]}"}"
    done
}

explain_failure() {
    local it
    {
        printf '\ndemo: not as expected: %s\n' "$title"
        for it in "${expected[@]}"; do
            printf '  expected: %s\n      seen: %s %s\n' "$it" "${it% *}" \
                "${status["${it% *}"]:-nothing}"
        done
        [ -z "$ended" ] || printf '  the monitor has ended by itself\n'
        for it in "${errors[@]}"; do
            tail -n 20 "$it" | sed "s/^/  $(basename "$it" .errors): /"
        done
        printf '  next: repeat it with a longer --limit, or with VYT_DEBUG=INOTIFY_DBG,VRRP_DBG in\n'
        printf '        the environment, which shows here what the library does\n'
    } >&2
    exit 1
}

# The number of seconds that an option --limit gives; false when it is none.
is_limit() { [[ $1 =~ ^[1-9][0-9]{0,5}$ ]]; }
