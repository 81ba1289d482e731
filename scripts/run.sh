#!/usr/bin/env bash
# Sets up, builds the optimised binaries and runs Parlune. Arguments go to the program.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release
exec build/release/src/cli/parlune-cli "${@:---help}"
