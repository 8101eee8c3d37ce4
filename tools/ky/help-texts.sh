# Sourced by make-man-pages and make-completion, which know the command from its help alone.

# subcommands KY [WORD...]: the names of the sub-commands directly below, one a line.
subcommands() {
    "$@" --help | awk '/^Subcommands:/ {inside = 1; next}
                       /^[^ ]/ {inside = 0}
                       inside && /^  [a-z]/ {print $1}'
}

# commands KY [WORD...]: the words of every sub-command at any depth below, one a line.
commands() {
    local name
    for name in $(subcommands "$@"); do
        echo "${*:2} $name" | sed 's/^ //'
        commands "$@" "$name"
    done
}
