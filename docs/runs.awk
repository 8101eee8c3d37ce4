# Input filter of the reference for the way in which the headers are written: a comment stands for
# the whole run of declarations under it, up to the next blank line, comment, label or brace, and a
# plain comment behind a declaration tells about that. Doxygen gives a comment to one declaration
# alone, so each further one of the run gets it in front, on its own line: no line number changes.

function isEnd(line) { return line ~ /^ *($|}|#|\/\/[^\/])/ || line ~ /^ *(public|protected|private):/ }
function isScope(line) {
    return line ~ /^ *(extern "C"|namespace|class|struct|union|enum)([^a-zA-Z_].*)?{$/ ||
           line ~ /^ *template <[^>]*> *(class|struct)[^;]*$/
}
function depthOf(line,    opened) {
    opened = gsub(/{/, "", line)
    return opened - gsub(/}/, "", line)
}

{
    code = $0
    sub(/ *\/\/.*/, "", code)
}

# A promise to the compiler, which doxygen would take for a function.
/^extern template/ { isHidden = 1 }
isHidden {
    isHidden = code !~ /;$/
    print ""
    next
}

# Inside a declaration of several lines, or a body.
isInside {
    depth += depthOf(code)
    isInside = depth > 0 || code !~ /[;}]$/
    print
    next
}

/^ *\/\/\// {
    text = $0
    sub(/^ *\/\/\/ ?/, "", text)
    comment = isFresh ? comment " " text : text
    isFresh = 1
    print
    next
}

isEnd($0) || isScope(code) {
    comment = ""
    isFresh = 0
    print
    next
}

{
    if ($0 ~ /[;,] +\/\/ /)
        sub(/\/\/ /, "///< ")
    else if (comment != "" && !isFresh && $0 !~ /\/\/\/</)
        $0 = "/** " comment " */" $0
    isFresh = 0
    depth = depthOf(code)
    isInside = depth > 0 || code !~ /[;},]$/
    print
}
