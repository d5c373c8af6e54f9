#!/usr/bin/env bash
# What `./dev package` does inside of a root of its own.
#
#   packages.sh build DIRECTORY        builds DIRECTORY/gsve; in folders called `again`, without a compiler's cache
#   packages.sh build-quickly DIRECTORY
#                                      likewise, without optimisation and debugging symbols
#   packages.sh lint DIRECTORY         what lintian says of what was built there
#   packages.sh try DIRECTORY          in a bare root: install DIRECTORY/now/*.deb, use them, put a framework in the
#                                      reference host's place, purge; install DIRECTORY/earlier/*.deb where there are
#                                      any, upgrade, purge
#   packages.sh autopkgtest DIRECTORY  the packages' own tests, on DIRECTORY/now
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
readonly packages=(libgsve4 libgsve-host-reference libgsve-dev libgsve-host-reference-dev gsve gstreamer1.0-gsve)
readonly encoder=liborb_utils_v4_general_video_streaming_encoder.so
# What the encoder calls of its host, and leaves undefined: docs/contract.md, "Binding".
readonly host_functions=(
    comm_socket_v4_packet_write_nv_pair comm_socket_v4_packet_write_nv_pairf h264_nal_write how_many_cpus
    monotonic_clock_us mpeg2_get_frame_type mpeg2_get_frame_type_and_gop sliding_window_v4_create_buffer
    sliding_window_v4_destroy sliding_window_v4_is_sane
)

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

# expect_installed PACKAGE...: installed, with all dependencies.
expect_installed() {
    local package trouble
    for package in "$@"; do
        [ "$(status_of "$package")" = installed ] || fail "$package is not installed"
    done
    quietly apt-get check
    trouble=$(dpkg --audit)
    [ -z "$trouble" ] || fail "dpkg --audit: $trouble"
}

version_of() { dpkg-query -W -f '${Version}' "$1"; }

# Prints a build log's warnings, except those that are expected: the encoder leaves the host's functions undefined; the
# program and the element name all five host libraries; pkg-config adds two GStreamer libraries that nothing calls;
# diversions come from Debian's own packages.
unexplained_warnings() {
    local functions unused="package could avoid a useless dependency if debian" program=gsve/usr/bin/gsve
    local element='gstreamer1\.0-gsve/usr/lib/[^/]+/gstreamer-1\.0/libgstgsve\.so' why="\(it uses none of the library's symbols\)"
    functions=$(IFS='|' && echo "${host_functions[*]}")
    grep -i 'warning: ' "$1" | sed 's/^dpkg-shlibdeps: warning: //' | grep -vxE \
        -e "symbol ($functions) used by debian/libgsve4/usr/lib/[^/]+/$encoder\.4\.[0-9.]+ found in none of the libraries" \
        -e "$unused/($program|$element) was not linked against liborb_utils_v4_(h264|io|misc)\.so $why" \
        -e "$unused/$element was not linked against libgst(audio|base)-1\.0\.so\.0 $why" \
        -e 'diversions involved - output may be incorrect'
}

cmd_build() {
    local log=$1/build.log
    cd "$1/gsve"
    DEB_BUILD_OPTIONS="parallel=$(nproc) ${2:-}"
    export DEB_BUILD_OPTIONS
    if [[ $1 != */again ]]; then
        export CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_DIR=/var/cache/ccache  # debhelper has a home of its own
        export CCACHE_SLOPPINESS=pch_defines,time_macros CCACHE_DEPEND=true
    fi
    dpkg-buildpackage -us -uc -tc >"$log" 2>&1 || { tail -60 "$log" >&2; fail "dpkg-buildpackage in $1"; }
    if unexplained_warnings "$log"; then fail "the build in $1 warns"; fi
    say "built $(dpkg-parsechangelog -S Version) in $1"
}

cmd_build-quickly() {
    export DEB_CXXFLAGS_APPEND=-g0
    cmd_build "$1" 'noopt noautodbgsym'
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

# framework_package NAME FIELD...: builds /tmp/NAME.deb of the files in /tmp/NAME.
framework_package() {
    local root=/tmp/$1
    mkdir -p "$root/DEBIAN"
    {
        printf '%s\n' "Package: $1" 'Version: 1' 'Architecture: amd64' 'Maintainer: nobody <nobody@example.org>'
        shift
        printf '%s\n' "$@" 'Description: part of a framework that is a host'
    } >"$root/DEBIAN/control"
    quietly dpkg-deb --build --root-owner-group "$root" "$root.deb"
}

# The stub of a framework, with headers that can be told from the reference host's.
make_framework() {
    local source=$1/tests/packaging/framework.cpp headers=/tmp/framework-host-dev/usr/include/orb_utils_v4
    local libraries=/tmp/framework-host/usr/lib/x86_64-linux-gnu name functions
    mkdir -p "$headers" "$libraries"
    cp "$1"/host/include/orb_utils_v4/*.h "$headers"
    sed -i '$a #define FRAMEWORK_HEADERS' "$headers/mpeg12_video.h"
    for name in comm io h264 mpeg12_video misc; do
        g++ -std=c++20 -O2 -shared -fPIC -Wl,-z,defs "-DLIBRARY_$name" -I /tmp/framework-host-dev/usr/include \
            "$source" -o "$libraries/liborb_utils_v4_$name.so"
    done
    functions=$(nm -D --defined-only "$libraries"/*.so | awk 'NF == 3 { print $3 }' | sort)
    [ "$functions" = "$(printf '%s\n' "${host_functions[@]}" | sort)" ] || fail "the framework has the functions $functions"
    framework_package framework-host 'Provides: libgsve-host (= 4)' 'Conflicts: libgsve-host' 'Replaces: libgsve-host'
    framework_package framework-host-dev 'Provides: libgsve-host-dev (= 4)' 'Conflicts: libgsve-host-dev' \
        'Replaces: libgsve-host-dev' 'Depends: framework-host'
    framework_package framework-of-tomorrow 'Provides: libgsve-host (= 5)' 'Conflicts: libgsve-host' 'Replaces: libgsve-host'
}

# expect_framework_units PROGRAM: the README's host runs on the framework's functions.
expect_framework_units() {
    "$1" >/tmp/units.txt 2>/tmp/diagnostics.txt || fail "$1 ended with $?"
    [ "$(grep -c '^framework: ' /tmp/units.txt)" = 5 ] || fail "the host's functions are not the framework's in $1"
    [ "$(grep -c '^picture ' /tmp/units.txt)" = 100 ] || fail "$1 on a framework's libraries"
}

# A framework's packages replace the reference host's: the program that was built before runs on its libraries, and one is
# built with its headers.
put_framework() {
    local outcome
    make_framework "$1"
    outcome=$(apt-get install -s /tmp/framework-of-tomorrow.deb)
    grep -q '^Remv libgsve4 ' <<<"$outcome" || fail "a host with another interface satisfies the encoder"
    install /tmp/framework-host.deb /tmp/framework-host-dev.deb
    expect_gone libgsve-host-reference libgsve-host-reference-dev gsve gstreamer1.0-gsve
    expect_installed libgsve4 libgsve-dev framework-host framework-host-dev
    expect_framework_units /tmp/host

    mkdir /tmp/framework-program
    {
        cat /tmp/host.cpp
        printf '%s\n' '#ifndef FRAMEWORK_HEADERS' '#error "the headers are not the framework'"'"'s"' '#endif'
    } >/tmp/framework-program/host.cpp
    cat >/tmp/framework-program/CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(host LANGUAGES CXX)
find_package(gsve 4 REQUIRED)
if(TARGET gsve::host)
  message(FATAL_ERROR "the reference host is still there")
endif()
find_package(PkgConfig REQUIRED)
pkg_check_modules(LIBAVCODEC REQUIRED IMPORTED_TARGET libavcodec)
add_executable(built_host host.cpp)
target_link_libraries(built_host PRIVATE gsve::encoder orb_utils_v4_comm orb_utils_v4_io orb_utils_v4_h264
                      orb_utils_v4_mpeg12_video orb_utils_v4_misc PkgConfig::LIBAVCODEC)
CMAKE
    quietly cmake -S /tmp/framework-program -B /tmp/framework-program/build
    quietly cmake --build /tmp/framework-program/build
    expect_framework_units /tmp/framework-program/build/built_host
    say "a framework's packages took the reference host's place; a host built before and one built there run on it"
    quietly apt-get purge -y framework-host framework-host-dev libgsve4 libgsve-dev
    rm -rf /tmp/framework-*
}

# expect_pictures COUNT FILE: as gsve reads it, with none damaged or lost.
expect_pictures() {
    local inspection
    inspection=$(gsve inspect "$2")
    grep -qE "^  pictures  $1 \(.*\), 0 damaged, 0 lost$" <<<"$inspection" || fail "$2 has not $1 pictures: $inspection"
    say "$2: $1 pictures in $(stat -c %s "$2") bytes"
}

# Uses the program, the README's host and the element, and checks what they produce.
use_packages() {
    local dynamic program
    gsve --version
    gsve encode "$1/cityCC0.mpg" city.ts --quiet
    expect_pictures 190 city.ts

    install g++ cmake make pkg-config gstreamer1.0-tools gstreamer1.0-plugins-base
    awk '/^```cpp$/ { copy = 1; next } /^```$/ { copy = 0 } copy' "$1/now/gsve/README.md" >host.cpp
    # shellcheck disable=SC2046 # several flags
    g++ -std=c++20 host.cpp -o host $(pkg-config --cflags --libs gsve libavcodec) \
        -lorb_utils_v4_{comm,io,h264,mpeg12_video,misc}
    ./host >units.txt 2>diagnostics.txt || fail "the README's host ended with $?"
    [ "$(grep -cE '^picture [0-9]+, [1-9][0-9]* bytes$' units.txt)" = 100 ] || fail "the README's host: $(cat units.txt)"
    tail -1 units.txt
    expect_pictures 100 grey.h264

    gst-launch-1.0 -q videotestsrc num-buffers=100 ! gsveenc codec=h.264 ! filesink location=bars.h264
    expect_pictures 100 bars.h264

    program=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' /usr/share/doc/gstreamer1.0-gsve/examples/on-air/on-air@.service)
    [ -x "$program" ] || fail "the unit runs \"$program\", which is not there"

    # The encoder names no host library; its host is bound when a program is loaded.
    dynamic=$(readelf -d "/usr/lib/x86_64-linux-gnu/$encoder.4")
    grep -q 'NEEDED.*libavcodec' <<<"$dynamic" || fail "what the encoder needs cannot be read"
    if grep 'NEEDED.*orb_utils' <<<"$dynamic"; then fail "the encoder names a host"; fi
}

# upgrade DIRECTORY: from DIRECTORY/earlier to DIRECTORY/now.
upgrade() {
    local version package
    # shellcheck disable=SC2046 # several files
    install $(debs "$1/earlier")
    version=$(version_of libgsve4)
    # shellcheck disable=SC2046 # several files
    install $(debs "$1/now")
    expect_installed "${packages[@]}"
    for package in "${packages[@]}"; do
        dpkg --compare-versions "$(version_of "$package")" gt "$version" || fail "$package was not upgraded"
    done
    gsve encode "$1/cityCC0.mpg" city.ts --quiet -y
    expect_pictures 190 city.ts
    say "upgraded from $version to $(version_of libgsve4)"
}

cmd_try() {
    quietly apt-get update
    cd /tmp
    # shellcheck disable=SC2046 # several files
    install $(debs "$1/now")
    say "apt-get install ./*.deb in a bare root of $(. /etc/os-release && echo "$VERSION_CODENAME"):"
    dpkg-query -W "${packages[@]}"
    expect_installed "${packages[@]}"
    use_packages "$1"
    put_framework "$1/now/gsve"
    # shellcheck disable=SC2046 # several files
    install $(debs "$1/now")
    purge "$1/now"
    if [ -d "$1/earlier" ]; then
        upgrade "$1"
        purge "$1/now"
    fi
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
