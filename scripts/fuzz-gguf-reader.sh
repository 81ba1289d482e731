#!/usr/bin/env bash
# Fuzzes the GGUF reader: builds the libFuzzer target with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer in build/fuzz, writes the seed corpus there and runs the fuzzer.
# usage: scripts/fuzz-gguf-reader.sh [SECONDS (default 600)] [more libFuzzer options...]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build/fuzz"
seconds=${1:-600}
shift || true

"$root/scripts/fuzz-build.sh" gguf_reader_fuzz gguf_fuzz_seeds

"$build/tests/fuzz/gguf_fuzz_seeds" "$build/gguf-seeds"
mkdir -p "$build/gguf-corpus" "$build/gguf-findings"

# New inputs go to the first folder (kept between runs); findings to gguf-findings/.
exec "$build/tests/fuzz/gguf_reader_fuzz" "$build/gguf-corpus" "$build/gguf-seeds" \
  -dict="$root/tests/fuzz/gguf.dict" -max_total_time="$seconds" -rss_limit_mb=2048 \
  -artifact_prefix="$build/gguf-findings/" -print_final_stats=1 "$@"
