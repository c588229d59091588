#!/bin/sh
# The manual pages and lhctl's bash completion follow the programs: every
# command of lhctl --help is a tagged line of lhctl(1), every exit code of
# lhctl's Exit enum is one of its EXIT STATUS, every usage line of
# lhsim --help is a line of lhsim(1)'s synopsis, and the completion offers
# lhctl's commands and the library's module names.
#   tool_docs.sh LHCTL LHSIM MODULE_NAMES LHCTL_HPP LHCTL_PAGE LHSIM_PAGE COMPLETION
set -eu
lhctl=$1 lhsim=$2 module_names=$3 lhctl_hpp=$4 lhctl_page=$5 lhsim_page=$6
completion=$7
command -v man >/dev/null 2>&1 || { echo "no man here"; exit 77; }
command -v bash >/dev/null 2>&1 || { echo "no bash here"; exit 77; }
bash_completion=/usr/share/bash-completion/bash_completion
[ -r "$bash_completion" ] || { echo "no bash-completion here"; exit 77; }

passed=0 failed=0
fail() { echo "FAILED: $*" >&2; failed=$((failed + 1)); }
pass() { passed=$((passed + 1)); }

render() { LC_ALL=C MANWIDTH=1000 man -l "$1" 2>/dev/null; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
render "$lhctl_page" >"$tmp/lhctl.txt"
render "$lhsim_page" >"$tmp/lhsim.txt"

# A tagged paragraph: the tag alone on its line, or a short tag with its
# text two spaces after it.
has_tag() {
    awk -v tag="       $1" 'index($0, tag) == 1 {
        rest = substr($0, length(tag) + 1)
        if (rest == "" || rest ~ /^  /) found = 1
    } END { exit !found }' "$2"
}

# lhctl's commands: "  NAME ARGS" up to two spaces, from its own table.
"$lhctl" --help | awk '/^commands:/ { on = 1; next } /^options:/ { on = 0 }
    on && /^  [^ ]/ { line = substr($0, 3); sub(/  .*/, "", line); print line }' \
    >"$tmp/commands"
[ -s "$tmp/commands" ] || fail "lhctl --help lists no command"
while IFS= read -r command; do
    if has_tag "$command" "$tmp/lhctl.txt"; then pass; else
        fail "lhctl(1) does not list \"$command\""
    fi
done <"$tmp/commands"

sed -n '/^EXIT STATUS/,/^[A-Z]/p' "$tmp/lhctl.txt" >"$tmp/exit.txt"
for code in $(sed -n '/enum class Exit/,/};/p' "$lhctl_hpp" | sed -n 's/.*= \([0-9][0-9]*\),.*/\1/p'); do
    if has_tag "$code" "$tmp/exit.txt"; then pass; else
        fail "lhctl(1) does not give exit code $code"
    fi
done

# lhsim's usage lines, "usage: lhsim ..." then "       lhsim ...".
"$lhsim" --help | sed 's/^usage: /       /' >"$tmp/lhsim_usage"
while IFS= read -r line; do
    if grep -qxF "$line" "$tmp/lhsim.txt"; then pass; else
        fail "lhsim(1) does not show \"${line#       }\""
    fi
done <"$tmp/lhsim_usage"

# What the completion offers after "lhctl " and after "lhctl stats ".
complete_words() {
    bash -c '. "$1"; . "$2"; shift 2
        COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"
        COMP_POINT=${#COMP_LINE}; _lhctl lhctl
        printf "%s\n" "${COMPREPLY[@]}"' sh "$bash_completion" "$completion" "$@" | sort
}
cut -d' ' -f1 "$tmp/commands" | sort -u >"$tmp/expected"
complete_words lhctl "" >"$tmp/offered"
if cmp -s "$tmp/expected" "$tmp/offered"; then pass; else
    fail "the completion of \"lhctl \" is $(tr '\n' ' ' <"$tmp/offered")"
fi
"$module_names" | sort >"$tmp/expected"
complete_words lhctl stats "" >"$tmp/offered"
if cmp -s "$tmp/expected" "$tmp/offered"; then pass; else
    fail "the completion of \"lhctl stats \" is $(tr '\n' ' ' <"$tmp/offered")"
fi
complete_words lhctl pipe 0 "" >"$tmp/offered"
if [ "$(tr '\n' ' ' <"$tmp/offered")" = "down up " ]; then pass; else
    fail "the completion of \"lhctl pipe 0 \" is $(tr '\n' ' ' <"$tmp/offered")"
fi

echo "tool docs: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
