#!/usr/bin/env bash
# Builds libFuzzer targets with clang, AddressSanitizer and UndefinedBehaviorSanitizer in
# build/fuzz (a build folder of its own: everything in it is instrumented).
# usage: scripts/fuzz-build.sh TARGET...
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cmake -S "$root" -B "$root/build/fuzz" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DPARLUNE_BUILD_FUZZERS=ON -DPARLUNE_BUILD_TESTS=OFF >/dev/null
cmake --build "$root/build/fuzz" -j2 --target "$@"
