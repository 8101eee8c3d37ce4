# Input filter of the reference for the README: in a checkout without what scripts/bench writes, the
# picture is left out and the link to the table is plain text.

BEGIN { hasBenchmarks = (getline line < "docs/benchmarks.md") > 0 }
!hasBenchmarks && /\(docs\/benchmarks\.svg\)/ { next }
!hasBenchmarks && match($0, /\[[^]]*\]\(docs\/benchmarks\.md\)/) {
    text = substr($0, RSTART + 1, RLENGTH - 1)
    sub(/\].*/, "", text)
    $0 = substr($0, 1, RSTART - 1) text substr($0, RSTART + RLENGTH)
}
{ print }
