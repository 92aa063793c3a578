#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds an application
# against it twice: through find_package(KavrelDirect) and through pkg-config.
# Usage: install_consumer.sh BUILD_DIR CONSUMER_SOURCE_DIR CMAKE
set -euo pipefail
build=$1
source=$2
cmake=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

"$cmake" --install "$build" --prefix "$scratch/prefix" >/dev/null
"$cmake" -S "$source" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
"$cmake" --build "$scratch/build" >/dev/null
libdir=$(dirname "$(find "$scratch/prefix" -name 'libkavrel_direct.so' | head -n 1)")
LD_LIBRARY_PATH="$libdir" "$scratch/build/consumer"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
cc -std=c99 -Wall -Werror -o "$scratch/consumer-pc" "$source/main.c" $(pkg-config --cflags --libs kavrel_direct)
LD_LIBRARY_PATH="$libdir" "$scratch/consumer-pc"
