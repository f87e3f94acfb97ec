#!/bin/sh
# pkg_config.sh COMPILER PREFIX LIBDIR WORK: builds and runs the consumer with what pkg-config says, after the installed
# tree was moved.
set -eu
compiler=$1 prefix=$2 libdir=$3 work=$4
here=$(dirname "$0")
rm -rf "$work"
mkdir -p "$work"
cp -a "$prefix" "$work/moved"
PKG_CONFIG_PATH=$work/moved/$libdir/pkgconfig
export PKG_CONFIG_PATH
flags=$(pkg-config --cflags --libs zellive)
# shellcheck disable=SC2086  # the flags are words
"$compiler" -std=c++20 "$here/consumer/main.cpp" -o "$work/consumer" $flags
LD_LIBRARY_PATH=$work/moved/$libdir "$work/consumer"
