#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when missing;
# with --build-only, just what building the library and kavrel needs.
set -euo pipefail

# CLI11 parses the options of kavrel and of the simulated instruments' stream
# server; nlohmann-json writes kavrel's JSON. The libftdi1 provider needs only
# the headers of libftdi1 and libusb: the libraries load at run time.
build_packages=(cmake ninja-build g++ pkg-config libcli11-dev nlohmann-json3-dev
                libftdi1-dev libusb-1.0-0-dev)
packages=("${build_packages[@]}" clang binutils python3
          # libFuzzer and the sanitizers' runtime for clang.
          libclang-rt-14-dev
          googletest libgtest-dev libgmock-dev libbenchmark-dev valgrind
          # The Windows stage: the 64-bit mingw-w64 C and C++ cross compilers
          # with posix threads (std::mutex needs them), and wine to run the
          # tests.
          g++-mingw-w64-x86-64-posix wine64 wine
          # The Python package and its tests (Debian's /usr/bin/python3).
          python3-numpy python3-matplotlib python3-pytest)

[ "${1:-}" = "--build-only" ] && packages=("${build_packages[@]}")

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "installing: ${missing[*]}"
$sudo apt-get update -q
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
