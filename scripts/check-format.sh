#!/usr/bin/env bash
# Fails when a C++ file of the repository differs from what the project's .clang-format makes of
# it, and names the files. `scripts/check-format.sh --fix` rewrites them instead.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = "--fix" ]; then
  clang-format -i "${files[@]}"
  exit 0
fi
# One run over every file; each difference is reported as "FILE:LINE:COL: error: ...".
report=$(clang-format --dry-run --Werror "${files[@]}" 2>&1 || true)
drift=$(printf '%s\n' "$report" | grep -oE '^[^:]+:[0-9]+:[0-9]+: error' | cut -d: -f1 | sort -u || true)
if [ -n "$drift" ]; then
  echo "format: $(printf '%s\n' "$drift" | wc -l) file(s) differ from .clang-format (run scripts/check-format.sh --fix):" >&2
  printf '  %s\n' $drift >&2
  exit 1
fi
echo "format: ${#files[@]} files match .clang-format"
