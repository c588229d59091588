#!/bin/sh
# Makes lhctl's bash completion: LHCTL --help gives the commands, their
# arguments and the options; MODULE_NAMES the library's module names; the
# template's @TABLES@ line is replaced by them.
#   lhctl_completion.sh LHCTL MODULE_NAMES TEMPLATE OUTPUT
set -eu
lhctl=$1 module_names=$2 template=$3 output=$4
tables=$(mktemp)
trap 'rm -f "$tables"' EXIT

modules=$("$module_names" | paste -sd ' ' -)
[ -n "$modules" ] || { echo "lhctl_completion: no module names" >&2; exit 1; }

# A command line of the list is "  NAME [SUB] ARGS  summary"; a long one
# has its summary on the next line. SUB is a lower-case word (reg read).
# An option token not closed by "]" takes the token after it as its value.
"$lhctl" --help | awk -v modules="$modules" '
function words(list) { sub(/^ /, "", list); return list }
/^commands:/ { section = "commands"; next }
/^options:/ { section = "options"; next }
section == "commands" && /^  [^ ]/ {
    line = substr($0, 3); sub(/  .*/, "", line)
    n = split(line, t, " ")
    name = t[1]; first = 2
    if (n >= 2 && t[2] ~ /^[a-z]+$/) {
        sub_of[t[1]] = sub_of[t[1]] " " t[2]
        name = t[1] " " t[2]; first = 3
    }
    if (!(t[1] in seen)) { seen[t[1]] = 1; commands = commands " " t[1] }
    positional = ""; options = ""
    for (i = first; i <= n; i++) {
        token = t[i]; closed = token ~ /\]$/
        gsub(/[][]/, "", token)
        if (token ~ /^-/) {
            options = options " " token
            if (!closed && i < n) { valued = valued " " token; i++ }
        } else
            positional = positional " " token
    }
    pos[name] = words(positional); opt[name] = words(options); names[++count] = name
}
section == "options" && /^  -/ {
    global = global " " $1
    if ($2 ~ /^[A-Z]+$/) valued = valued " " $1
}
END {
    printf "_lhctl_commands=\"%s\"\n", words(commands)
    printf "_lhctl_global_options=\"%s\"\n", words(global)
    printf "_lhctl_valued_options=\"%s\"\n", words(valued)
    printf "_lhctl_modules=\"%s\"\n", words(modules)
    print "declare -gA _lhctl_subcommands=("
    for (c in sub_of) printf "    [%s]=\"%s\"\n", c, words(sub_of[c])
    print ")"
    print "declare -gA _lhctl_positional=("
    for (i = 1; i <= count; i++) printf "    [\"%s\"]=\"%s\"\n", names[i], pos[names[i]]
    print ")"
    print "declare -gA _lhctl_options=("
    for (i = 1; i <= count; i++) printf "    [\"%s\"]=\"%s\"\n", names[i], opt[names[i]]
    print ")"
}' >"$tables"
grep -q '^_lhctl_commands="[a-z]' "$tables" || {
    echo "lhctl_completion: no commands in $lhctl --help" >&2
    exit 1
}
awk -v tables="$tables" '
/^@TABLES@$/ { while ((getline line < tables) > 0) print line; next }
{ print }' "$template" >"$output.tmp"
mv "$output.tmp" "$output"
