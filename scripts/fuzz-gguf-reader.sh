#!/usr/bin/env bash
# Fuzzes the GGUF reader, or with FUZZ_TARGET=model_load_fuzz everything loaded from a model file
# after it (configuration, model, tokenizer, chat format): builds the libFuzzer target with clang,
# AddressSanitizer and UndefinedBehaviorSanitizer in build/fuzz, writes the seed corpus there and
# runs the fuzzer.
# usage: [FUZZ_TARGET=gguf_reader_fuzz|model_load_fuzz] scripts/fuzz-gguf-reader.sh [SECONDS (default 600)]
#        [more libFuzzer options...]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build/fuzz"
seconds=${1:-600}
shift || true
target=${FUZZ_TARGET:-gguf_reader_fuzz}
name=${target%_fuzz}

"$root/scripts/fuzz-build.sh" "$target" gguf_fuzz_seeds

"$build/tests/fuzz/gguf_fuzz_seeds" "$build/gguf-seeds"
mkdir -p "$build/$name-corpus" "$build/$name-findings"

# New inputs go to the first folder (kept between runs); findings to <name>-findings/.
exec "$build/tests/fuzz/$target" "$build/$name-corpus" "$build/gguf-seeds" \
  -dict="$root/tests/fuzz/gguf.dict" -max_total_time="$seconds" -rss_limit_mb=2048 \
  -artifact_prefix="$build/$name-findings/" -print_final_stats=1 "$@"
