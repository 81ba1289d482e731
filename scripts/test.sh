#!/usr/bin/env bash
# Sets up, builds with warnings as errors and runs the whole test suite.
# Extra arguments go to ctest (e.g. -L desktop, -LE slow).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset ci
cmake --build --preset ci
ctest --preset ci -j2 "$@"
