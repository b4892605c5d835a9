#!/usr/bin/env bash
# The bash completion, driven as bash drives it (COMP_WORDS/COMP_CWORD), against a built
# hxagent. Usage: completion_test.sh COMPLETION_FILE HXAGENT
set -uo pipefail
completion=$1
hxagent=$(realpath "$2")
# shellcheck source=/dev/null
source "$completion"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" && mkdir backups && touch backup.log

failures=0
# expect "WORDS" "WANTED" [unwanted]: completing the last word of WORDS offers every word of
# WANTED (space-separated) and not UNWANTED.
expect() {
    local line=$1 wanted=$2 unwanted=${3:-} w
    read -ra COMP_WORDS <<<"$line"
    [[ $line == *" " ]] && COMP_WORDS+=("")
    COMP_WORDS[0]=$hxagent
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    _hxagent
    for w in $wanted; do
        if ! printf '%s\n' "${COMPREPLY[@]}" | grep -qxF -- "$w"; then
            echo "FAIL: '$line' does not offer $w (got: ${COMPREPLY[*]})"
            failures=$((failures + 1))
        fi
    done
    for w in $unwanted; do
        if printf '%s\n' "${COMPREPLY[@]}" | grep -qxF -- "$w"; then
            echo "FAIL: '$line' offers $w (got: ${COMPREPLY[*]})"
            failures=$((failures + 1))
        fi
    done
}

expect "hxagent ba" "backup backups" "restore"
expect "hxagent " "list restore cleanup demo" "--json"
expect "hxagent --json li" "list"
expect "hxagent --st" "--state-dir"
expect "hxagent backup --ex" "--exclude-disk"
expect "hxagent backup i-1 --js" "--json"                      # the program's options after a command
expect "hxagent restore --dr" "--dry-run" "--exclude-disk"      # only the command's own
expect "hxagent backup i-1 --to ba" "backups backup.log"        # an option's value: files
expect "hxagent --state-dir ba" "backups backup.log" "backup"   # ... also before the command
expect "hxagent --json ba" "backup backups" "backup.log"        # a flag takes no value

if ((failures)); then
    echo "$failures failure(s)"
    exit 1
fi
echo "completion: all cases pass"
