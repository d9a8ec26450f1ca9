#!/usr/bin/env bash
# Checks the bash completion of prefs against the tool itself: every command that
# `prefs --help` lists is offered, and every word of `prefs profile --help` after `profile`.
# Usage: prefs_completion_test.sh PREFS COMPLETION_SCRIPT
set -euo pipefail
prefs=$1
source "$2"

complete_words() {
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    COMPREPLY=()
    _prefs
    printf '%s\n' "${COMPREPLY[@]}"
}

status=0
offered=$(complete_words prefs "")
for command in $("$prefs" --help | sed -n '/^commands:/,/^$/p' | awk 'NR > 1 && NF { print $1 }'); do
    grep -qx -- "$command" <<<"$offered" || { echo "command '$command' not offered"; status=1; }
done
offered=$(complete_words prefs profile "")
for word in $("$prefs" profile --help | sed -n '/WORD is one of/,$p' | tail -n +2 | tr ',' ' '); do
    grep -qx -- "$word" <<<"$offered" || { echo "profile word '$word' not offered"; status=1; }
done
exit $status
