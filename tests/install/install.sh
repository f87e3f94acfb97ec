#!/bin/sh
# install.sh BUILD LIBDIR COMPILER GENERATOR WORK: installs what was built and uses it from outside, by find_package and,
# after the installed tree was moved, by pkg-config.
set -eu
build=$1 libdir=$2 compiler=$3 generator=$4 work=$5
consumer=$(dirname "$0")/consumer
rm -rf "$work"
cmake --install "$build" --prefix "$work/first" >/dev/null
"$work/first/bin/zellive" --help >/dev/null
cmake -S "$consumer" -B "$work/build" -G "$generator" -DCMAKE_PREFIX_PATH="$work/first" -DCMAKE_CXX_COMPILER="$compiler"
cmake --build "$work/build"
"$work/build/consumer"
mv "$work/first" "$work/moved"
export PKG_CONFIG_PATH="$work/moved/$libdir/pkgconfig" LD_LIBRARY_PATH="$work/moved/$libdir"
# shellcheck disable=SC2046  # the flags are words
"$compiler" -std=c++20 "$consumer/main.cpp" -o "$work/consumer" $(pkg-config --cflags --libs zellive)
"$work/consumer"
