#!/usr/bin/env bash
# Installs the build, then builds the README's host against it with CMake and with pkg-config, and the library
# itself against the installed host libraries. usage: install_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source_dir=$1 build_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() { echo "FAILED: $*" >&2; exit 1; }

cmake --install "$build_dir" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'liborb_utils_v4_general_video_streaming_encoder.so')")

# The host in the README, as its reader would copy it.
mkdir "$work/host"
awk '/^```cpp$/ { copy = 1; next } /^```$/ { copy = 0 } copy' "$source_dir/README.md" >"$work/host/host.cpp"
grep -q host_emit_data_out "$work/host/host.cpp" || fail "the README has no host"

# The guide's CMakeLists.txt, likewise.
awk '/^```cmake$/ { copy = 1; next } /^```$/ { copy = 0 } copy' "$source_dir/docs/embedding.md" >"$work/host/CMakeLists.txt"
grep -q 'find_package(gsve' "$work/host/CMakeLists.txt" || fail "the guide has no CMakeLists.txt"
cmake -G Ninja -S "$work/host" -B "$work/host/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/host/build" >/dev/null
(cd "$work/host" && ./build/host >units.txt 2>diagnostics.txt) || fail "the README's host (CMake)"
[ "$(wc -l <"$work/host/units.txt")" = 100 ] || fail "the README's host emitted $(wc -l <"$work/host/units.txt") units of 100"

export PKG_CONFIG_PATH=$libdir/pkgconfig
host_libraries=(-lorb_utils_v4_comm -lorb_utils_v4_io -lorb_utils_v4_h264 -lorb_utils_v4_mpeg12_video -lorb_utils_v4_misc)
# shellcheck disable=SC2046 # several flags
g++ -std=c++20 "$work/host/host.cpp" -o "$work/host/pkg" $(pkg-config --cflags --libs gsve libavcodec) \
    "${host_libraries[@]}" -Wl,-rpath,"$libdir"
(cd "$work/host" && ./pkg >units.txt 2>diagnostics.txt) || fail "the README's host (pkg-config)"

# Another host framework's headers and libraries: no stand-in may be built.
cmake -G Ninja -S "$source_dir" -B "$work/other" -DGSVE_HOST_PREFIX="$prefix" >/dev/null
cmake --build "$work/other" >/dev/null
stand_ins=$(find "$work/other" -name 'liborb_utils_v4_*.so*' ! -name '*streaming_encoder*')
[ -z "$stand_ins" ] || fail "stand-ins were built beside the host's own libraries: $stand_ins"

"$prefix/bin/gsve" --version >/dev/null || fail "the installed gsve does not start"
echo "installation works"
