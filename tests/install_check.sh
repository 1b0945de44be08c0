#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs the model library and the host library into a scratch prefix and
# builds the example hosts against them, once with pkg-config and once with
# find_package, as a user outside this tree would, and runs them.
set -eu
build_dir=$1
source_dir=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
libdir=$(dirname "$(find "$scratch/prefix" -name zelsim.pc)")/..
export PKG_CONFIG_PATH="$libdir/pkgconfig"
export LD_LIBRARY_PATH="$libdir"

# pkg-config
g++ -std=c++17 -o "$scratch/print_config" "$source_dir/examples/print_config.cpp" \
  $(pkg-config --cflags --libs zelsim systemc)
"$scratch/print_config" > "$scratch/config.txt"
test "$(grep -c "^\[" "$scratch/config.txt")" -eq 141
grep -qx "\[sc_time\]: 'CORE_CLK'=1600 ps" "$scratch/config.txt"
grep -qx "\[float\]: 'LINK_SPEED'=15" "$scratch/config.txt"
printf 'NUM_QUADS = 2\n' > "$scratch/one.ini"
"$scratch/print_config" "$scratch/one.ini" > "$scratch/set.txt"
test "$(grep -c "^\[" "$scratch/set.txt")" -eq 1
grep -qx "\[\*\] \[unsigned\]: 'NUM_QUADS'=2" "$scratch/set.txt"

# The host library's examples through pkg-config zelsim-host.
g++ -std=c++17 -o "$scratch/minimal_host_lib" "$source_dir/examples/minimal_host_lib.cpp" \
  $(pkg-config --cflags --libs zelsim-host)
g++ -std=c++17 -o "$scratch/tlm_platform" "$source_dir/examples/tlm_platform.cpp" \
  $(pkg-config --cflags --libs zelsim-host)
check_host_examples() {
  (cd "$scratch" && env -u LIBZEL_CONFIG_FILE "$1/minimal_host_lib") > "$scratch/lib.txt"
  test "$(grep -c "^read [0-9]* on link [0-9] at 0x[0-9a-f]*: [0-9.]* ns$" "$scratch/lib.txt")" -eq 32
  grep -q "^32 reads, mean latency [0-9.]* ns$" "$scratch/lib.txt"
  (cd "$scratch" && env -u LIBZEL_CONFIG_FILE "$1/tlm_platform") > "$scratch/tlm.txt"
  grep -Eq "^cpu3 +nb_transport +[1-9][0-9]* +[0-9]+\.[0-9]+" "$scratch/tlm.txt"
}
check_host_examples "$scratch"

# find_package, in a Release build as most users make it: NDEBUG is defined
# and the installed headers must compile all the same.
mkdir -p "$scratch/host"
cat > "$scratch/host/release_check.cpp" <<'CPP'
#ifndef NDEBUG
#error "this host is meant to be built with NDEBUG"
#endif
#include "zel2/zelsim.h"
CPP
cat > "$scratch/host/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.16)
project(host CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(zelsim REQUIRED)
add_executable(minimal_host "$source_dir/examples/minimal_host.cpp" release_check.cpp)
target_link_libraries(minimal_host PRIVATE zelsim::zelsim)
# The host library's package finds the model library by itself.
find_package(zelsim-host REQUIRED)
add_executable(minimal_host_lib "$source_dir/examples/minimal_host_lib.cpp")
target_link_libraries(minimal_host_lib PRIVATE zelsim::host)
add_executable(tlm_platform "$source_dir/examples/tlm_platform.cpp")
target_link_libraries(tlm_platform PRIVATE zelsim::host)
CMAKE
cmake -S "$scratch/host" -B "$scratch/host/build" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/host/build" >/dev/null
(cd "$scratch" && env -u LIBZEL_CONFIG_FILE "$scratch/host/build/minimal_host") > "$scratch/host.txt"
grep -q "read response for tag 1" "$scratch/host.txt"
grep -q "Dumping stats" "$scratch/host.txt"
check_host_examples "$scratch/host/build"
echo "install check passed"
