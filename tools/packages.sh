#!/usr/bin/env bash
# What `./dev package` does inside of a root of its own.
#
#   packages.sh build DIRECTORY        builds DIRECTORY/gsve; in folders called `again`, without a compiler's cache
#   packages.sh lint DIRECTORY         what lintian says of what was built there
#   packages.sh try DIRECTORY          in a bare root: install DIRECTORY/now/*.deb, use them, put a framework in the
#                                      reference host's place, purge; install DIRECTORY/earlier/*.deb, upgrade, purge
#   packages.sh autopkgtest DIRECTORY  the packages' own tests, on DIRECTORY/now
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
readonly packages=(libgsve4 libgsve-host-reference libgsve-dev gsve gstreamer1.0-gsve)
readonly encoder=liborb_utils_v4_general_video_streaming_encoder.so

fail() { echo "FAILED: $*" >&2; exit 1; }
say() { echo "== $*"; }

# What nobody but a developer wants to read is in a log, whose end is shown where something fails.
quietly() {
    "$@" >/tmp/packages.log 2>&1 || { tail -40 /tmp/packages.log >&2; fail "$*"; }
}

install() { quietly apt-get install -y --no-install-recommends "$@"; }

# debs DIRECTORY: the packages without those of debugging symbols.
debs() { find "$1" -maxdepth 1 -name '*.deb' ! -name '*-dbgsym_*' | sort; }

# Nothing where it was never there.
status_of() { dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null || true; }

# expect_gone PACKAGE...: not installed, and no configuration left.
expect_gone() {
    local package status
    for package in "$@"; do
        status=$(status_of "$package")
        case $status in '' | not-installed) ;; *) fail "$package is $status" ;; esac
    done
}

version_of() { dpkg-query -W -f '${Version}' "$1"; }

cmd_build() {
    local log=$1/build.log
    cd "$1/gsve"
    DEB_BUILD_OPTIONS=parallel=$(nproc)
    export DEB_BUILD_OPTIONS
    if [[ $1 != */again ]]; then
        export CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_DIR=/var/cache/ccache  # debhelper has a home of its own
        export CCACHE_SLOPPINESS=pch_defines,time_macros CCACHE_DEPEND=true
    fi
    dpkg-buildpackage -us -uc >"$log" 2>&1 || { tail -60 "$log" >&2; fail "dpkg-buildpackage in $1"; }
    # The host's functions are meant to be in no library, and its libraries to be named all the same. Diversions are
    # Debian's own.
    if grep -i 'warning: ' "$log" | grep -vE 'found in none of the libraries|useless dependency|diversions involved'; then
        fail "the build in $1 warns"
    fi
    say "built $(dpkg-parsechangelog -S Version) in $1"
}

cmd_lint() {
    cd "$1"
    say "lintian $(lintian --version | tr -dc 0-9.)"
    lintian --allow-root --fail-on error,warning ./*.changes
    say "lintian has no error and no warning"
}

# After a purge nothing may be left of what the packages brought, or of their names.
purge() {
    local shipped file left
    shipped=$(for file in $(debs "$1"); do dpkg-deb -c "$file" | awk '$1 !~ /^d/ { print substr($6, 2) }'; done | sort -u)
    quietly apt-get purge -y "${packages[@]}"
    expect_gone "${packages[@]}"
    left=$(for file in $shipped; do [ ! -e "$file" ] || echo "$file"; done)
    left+=$(find / -xdev \( -path /proc -o -path /dev -o -path /packages -o -path /tmp -o -path /var/cache/apt \) -prune -o \
        \( -name '*gsve*' -o -name '*orb_utils*' \) -print)
    [ -z "$left" ] || fail "left after purging: $left"
    say "purged; nothing is left"
}

# A framework with libraries of the reference host's names takes its place: the program built before runs on it.
put_framework() {
    local root=/tmp/framework name
    mkdir -p $root/DEBIAN $root/usr/lib/x86_64-linux-gnu
    cat >$root/DEBIAN/control <<'CONTROL'
Package: framework-host
Version: 1
Architecture: amd64
Maintainer: nobody <nobody@example.org>
Provides: libgsve-host
Conflicts: libgsve-host
Replaces: libgsve-host
Description: a framework's host libraries
CONTROL
    for name in comm io h264 mpeg12_video misc; do
        g++ -std=c++20 -shared -fPIC -I /packages/now/gsve/host/include -I /packages/now/gsve/host/reference/include \
            -o $root/usr/lib/x86_64-linux-gnu/liborb_utils_v4_$name.so /packages/now/gsve/host/reference/$name.cpp \
            -x c++ - <<<"__attribute__((constructor)) static void tell() { __builtin_puts(\"framework: $name\"); }"
    done
    quietly dpkg-deb --build --root-owner-group $root /tmp/framework-host.deb
    install /tmp/framework-host.deb
    expect_gone libgsve-host-reference gsve gstreamer1.0-gsve
    [ "$(status_of libgsve4)" = installed ] || fail "the encoder left with the reference host"
    /tmp/host >/tmp/units.txt 2>/tmp/diagnostics.txt
    [ "$(grep -c '^framework: ' /tmp/units.txt)" = 5 ] || fail "the host's functions are not the framework's"
    [ "$(grep -c '^picture ' /tmp/units.txt)" = 100 ] || fail "the README's host on a framework's libraries"
    say "a framework's package took the reference host's place; the host built before runs on it"
    quietly apt-get purge -y framework-host libgsve4 libgsve-dev
    rm -rf $root /tmp/framework-host.deb
}

cmd_try() {
    local now=$1/now earlier=$1/earlier version
    quietly apt-get update
    cd /tmp
    # shellcheck disable=SC2046 # several files
    {
        install $(debs "$now")
        say "apt-get install ./*.deb in a bare root of $(. /etc/os-release && echo "$VERSION_CODENAME"):"
        dpkg-query -W "${packages[@]}"
        [ "$(apt-get install -s libgsve4 2>/dev/null | grep -c ^Inst)" = 0 ] || fail "dependencies are missing"
        gsve --version
        gsve encode "$1/cityCC0.mpg" city.ts --quiet
        gsve inspect city.ts | head -4
        install g++ pkg-config gstreamer1.0-tools gstreamer1.0-plugins-base
        awk '/^```cpp$/ { copy = 1; next } /^```$/ { copy = 0 } copy' "$now/gsve/README.md" >host.cpp
        g++ -std=c++20 host.cpp -o host $(pkg-config --cflags --libs gsve libavcodec) \
            -lorb_utils_v4_{comm,io,h264,mpeg12_video,misc}
        ./host 2>diagnostics.txt | tail -1
        gst-launch-1.0 -q videotestsrc num-buffers=100 ! gsveenc codec=h.264 ! filesink location=bars.h264
        say "gst-launch-1.0 ... gsveenc: $(stat -c %s bars.h264) bytes"
        # Nothing of the host is named by the encoder; it is bound when a program is loaded.
        if readelf -d "/usr/lib/x86_64-linux-gnu/$encoder.4" | grep "NEEDED.*orb_utils"; then fail "the encoder names a host"; fi
        put_framework

        install $(debs "$now")
        purge "$now"
        install $(debs "$earlier")
        version=$(version_of libgsve4)
        install $(debs "$now")
        for package in "${packages[@]}"; do
            dpkg --compare-versions "$(version_of "$package")" gt "$version" || fail "$package was not upgraded"
        done
        gsve encode "$1/cityCC0.mpg" city.ts --quiet -y
        say "upgraded from $version to $(version_of libgsve4)"
        purge "$now"
    }
}

cmd_autopkgtest() {
    local status=0
    quietly apt-get update
    install autopkgtest
    # shellcheck disable=SC2046 # several files
    autopkgtest --no-built-binaries $(debs "$1/now") "$1"/now/*.dsc -- null >/tmp/autopkgtest.log 2>&1 || status=$?
    sed -n '/@@@@@@ summary/,/: Binaries:/ { /: Binaries:/d; p }' /tmp/autopkgtest.log
    [ "$status" = 0 ] || { tail -80 /tmp/autopkgtest.log >&2; fail "autopkgtest ended with $status"; }
}

"cmd_$1" "$2"
