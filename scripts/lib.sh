# Shared by the scripts of this folder: source it from the root of the checkout.

# The packages that building needs, and what tests and gates need on top.
build_packages="g++ cmake ninja-build ccache git libutfcpp-dev libcli11-dev"
test_packages="$build_packages libgtest-dev libsystemd-dev logrotate pkg-config python3 util-linux"
package_packages="$test_packages doxygen dpkg-dev fakeroot file gzip help2man"
gate_packages="$package_packages clang clang-format clang-tidy libbenchmark-dev libspdlog-dev
    abigail-tools lintian mmdebstrap"

# What scripts/bench compares with, and draws with.
bench_packages="$build_packages libbenchmark-dev libspdlog-dev libboost-filesystem-dev
    libboost-serialization-dev libpoco-dev libsimpleini-dev qtbase5-dev gnuplot-nox python3"

# Without a home of our own the compiler cache lives in the build folder.
[ -w "${HOME:-/nowhere}" ] || export CCACHE_DIR=$PWD/build/ccache

# need PACKAGE...: installs what is missing, through sudo when we are not root. Says nothing and
# takes no time when everything is there.
need() {
    local missing=() package as_root=()
    for package in "$@"; do
        case $(dpkg-query -W -f '${Status}' "$package" 2>/dev/null) in
            "install ok installed") ;;
            *) missing+=("$package") ;;
        esac
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    echo "Installing ${missing[*]}"
    quietly "${as_root[@]}" apt-get update &&
        quietly "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -y --no-install-recommends "${missing[@]}"
}

# quietly COMMAND...: shows what the command printed only when it fails.
quietly() {
    local output status=0
    output=$("$@" 2>&1 </dev/null) || status=$?
    [ "$status" -eq 0 ] || printf '%s\n' "$output" >&2
    return "$status"
}

# build PRESET [OPTION...] [TARGET]: options for cmake begin with -D.
build() {
    local preset=$1 options=()
    shift
    while [[ ${1-} == -D* ]]; do
        options+=("$1")
        shift
    done
    quietly cmake --preset "$preset" "${options[@]}" || return
    quietly cmake --build --preset "$preset" ${1:+--target "$1"}
}

# describe_abi FILE: writes what the release build's library promises to programs (docs/abi.md).
# Says the same for the same sources in any folder.
describe_abi() {
    build release kySystem || return
    quietly abidw --headers-dir include --drop-private-types --suppressions abi/suppressions \
        --exported-interfaces-only --type-id-style hash --no-corpus-path --no-comp-dir-path \
        --no-show-locs --no-architecture --no-elf-needed --no-write-default-sizes \
        --no-parameter-names --out-file "$1" build/release/lib/libkySystem.so.3.0 || return
    sed -i "s# path='[^']*/\(src\|include\)/# path='\1/#" "$1"
}
