#!/usr/bin/env bash
# Sets up, checks the formatting, builds with warnings as errors and runs the whole test suite,
# then the core and llm suites again under AddressSanitizer and UndefinedBehaviorSanitizer.
# Extra arguments go to ctest (e.g. -L desktop, -LE slow) and skip the sanitizer stage.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/check-format.sh
cmake --preset ci
cmake --build --preset ci
ctest --preset ci -j2 "$@"
if [ $# -eq 0 ]; then
    cmake --preset sanitize
    cmake --build --preset sanitize
    ctest --preset sanitize -j2 -L "core|llm" -LE slow
fi
