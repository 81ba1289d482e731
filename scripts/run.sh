#!/usr/bin/env bash
# Sets up, builds what running needs (not the test suites) and starts Parlune in the tray.
# Arguments go to the program (e.g. --help, --rewrite-selection).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release -DPARLUNE_BUILD_TESTS=OFF >/dev/null
cmake --build --preset release --target parlune parlune-cli
exec build/release/src/app/parlune "$@"
