# Input filter of the reference for its pages. Each gets a name, and links between them go by that
# name: by the path of a file doxygen loses them where the checkout's path has blanks. A link to what
# is no page becomes plain text, and so does one to what scripts/bench writes, in a checkout without
# it; the picture is then left out.

function Name(path) {
    sub(/.*\//, "", path)
    sub(/\.md$/, "", path)
    return "page-" path
}

function IsPage(path,    line, file, folder, isThere) {
    file = path
    sub(/.*\//, "", file)
    for (folder = 1; folder <= 2 && !isThere; ++folder) {
        path = (folder == 1 ? "docs/" : "docs/guides/") file
        isThere = (getline line < path) > 0
        close(path)
    }
    return isThere
}

FNR == 1 && FILENAME !~ /README\.md$/ {
    print $0 " {#" Name(FILENAME) "}"
    next
}
/!\[[^]]*\]\(docs\/benchmarks\.svg\)/ && !IsPage("docs/benchmarks.md") { next }
{
    # The text of a link may begin on the line before, but only that of one to a page.
    rest = $0
    done = ""
    while (match(rest, /\]\([^()#:]*(\.md|\/)\)/)) {
        before = substr(rest, 1, RSTART - 1)
        path = substr(rest, RSTART + 2, RLENGTH - 3)
        rest = substr(rest, RSTART + RLENGTH)
        if (path ~ /\.md$/ && IsPage(path)) {
            done = done before "](@ref " Name(path) ")"
        } else {
            match(before, /\[[^[]*$/)
            done = done substr(before, 1, RSTART - 1) substr(before, RSTART + 1)
        }
    }
    print done rest
}
