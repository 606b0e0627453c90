# The Debian packages that the project builds and is tested with. Sourced by ./kelvane and ./test.

build_packages="g++ cmake ninja-build mingw-w64-common libcli11-dev libfmt-dev
    nlohmann-json3-dev libsndfile1-dev libsamplerate0-dev libportsmf-dev libusb-1.0-0-dev"
test_packages="$build_packages g++-mingw-w64-x86-64 libgtest-dev libgmock-dev libbenchmark-dev
    clang-format clang-tidy alsa-utils python3 dpkg-dev file zsh groff-base tshark"
fuzz_packages="$build_packages clang libclang-rt-14-dev"
rig_packages="qemu-system-x86 cpio kmod alsa-utils python3"

# installed PACKAGE: whether dpkg has it, whole.
installed() {
    dpkg-query -W -f='${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed
}

# install_missing LOG PACKAGE...: installs what is not there, telling so on standard error. Returns
# 1, with a message, when that is not possible.
install_missing() {
    local log=$1 package missing=() root=()
    shift
    if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
        echo "kelvane: no apt-get here; what the build needs, as Debian names it: $*" >&2
        return 0 # it may all be there under other names: the build will tell
    fi
    for package in "$@"; do
        installed "$package" || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "kelvane: packages are missing; as root: apt-get install ${missing[*]}" >&2
            return 1
        fi
        root=(sudo)
    fi
    echo "kelvane: installing ${missing[*]} (once)" >&2
    # An update that fails is no harm when the lists are there: the install decides.
    "${root[@]}" apt-get update >"$log" 2>&1
    if ! "${root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "${missing[@]}" >>"$log" 2>&1; then
        tail -n 20 "$log" >&2
        echo "kelvane: apt-get could not install ${missing[*]}; its output is in $log" >&2
        return 1
    fi
}

# build PRESET TARGET...: configures the preset if need be and builds the targets, output hidden
# unless it fails. On a terminal the steps are counted.
build() {
    local preset=$1 log=build/$1.log
    shift
    local launcher=()
    export CCACHE_SLOPPINESS=pch_defines,time_macros # what it asks for precompiled headers
    command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    if ! {
        [ -f "build/$preset/build.ninja" ] || cmake --preset "$preset" "${launcher[@]}"
    } >"$log" 2>&1; then
        cat "$log" >&2
        echo "kelvane: the $preset build can't be configured" >&2
        return 1
    fi
    cmake --build "build/$preset" --target "$@" 2>&1 | tee -a "$log" | count_steps
    if [ "${PIPESTATUS[0]}" -ne 0 ]; then
        grep -vE '^\[[0-9]+/[0-9]+\] (Building|Linking)' "$log" | tail -n 60 >&2
        echo "kelvane: the $preset build failed; all of its output is in $log" >&2
        return 1
    fi
}

# Shows ninja's "[3/90] ..." lines as one counter, on a terminal only.
count_steps() {
    local line
    while IFS= read -r line; do
        if [ -t 2 ] && [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]]; then
            printf '\rkelvane: building %s of %s\033[K' "${BASH_REMATCH[1]}" "${BASH_REMATCH[2]}" >&2
        fi
    done
    [ -t 2 ] && printf '\r\033[K' >&2
    return 0
}
