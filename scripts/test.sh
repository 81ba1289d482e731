#!/usr/bin/env bash
# Sets up, checks the formatting, builds with warnings as errors and runs the whole test suite,
# then the core and llm suites again under AddressSanitizer and UndefinedBehaviorSanitizer.
# Extra arguments go to ctest (e.g. -L desktop, -LE slow) and skip the sanitizer stage.
# The desktop suites drive third-party applications (a browser, terminals, compositors) whose start
# on a loaded machine varies by seconds, so a failed one gets one more try; every other test runs once.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/check-format.sh
cmake --preset ci
cmake --build --preset ci
if [ $# -gt 0 ]; then
    ctest --preset ci -j2 "$@"
else
    ctest --preset ci -j2 -LE desktop
    ctest --preset ci -j2 -L desktop --repeat until-pass:2
    cmake --preset sanitize
    cmake --build --preset sanitize
    ctest --preset sanitize -j2 -L "core|llm" -LE slow
fi
