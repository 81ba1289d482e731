#!/usr/bin/env bash
# Fuzzes the Ollama manifest reader of model discovery: builds the libFuzzer target with clang,
# AddressSanitizer and UndefinedBehaviorSanitizer in build/fuzz and runs it from the seed
# manifests in tests/fuzz/ollama-seeds.
# usage: scripts/fuzz-ollama-manifest.sh [SECONDS (default 600)] [more libFuzzer options...]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build/fuzz"
seconds=${1:-600}
shift || true

"$root/scripts/fuzz-build.sh" ollama_manifest_fuzz
mkdir -p "$build/ollama-corpus" "$build/ollama-findings"

# New inputs go to the first folder (kept between runs); findings to ollama-findings/.
exec "$build/tests/fuzz/ollama_manifest_fuzz" "$build/ollama-corpus" "$root/tests/fuzz/ollama-seeds" \
  -max_total_time="$seconds" -rss_limit_mb=2048 -artifact_prefix="$build/ollama-findings/" \
  -print_final_stats=1 "$@"
