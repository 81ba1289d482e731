#!/usr/bin/env bash
# Engine throughput on random-weight models of real shapes: prompt (batched) and generation
# tokens/s with 2 threads, beside the reference runtime's figures on this machine class and the
# memory-bandwidth bound for generation (every weight is read once per generated token).
#
# usage: bench/engine_bench.sh [BUILD_DIR] [RUNS]
#   BUILD_DIR defaults to build/release (configured and built if missing);
#   models go to ${PARLUNE_BENCH_DIR:-/tmp/parlune-bench} and are never part of the repository.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build/release}"
runs="${2:-9}"
threads="${PARLUNE_BENCH_THREADS:-2}"
models="${PARLUNE_BENCH_DIR:-/tmp/parlune-bench}"
# Read bandwidth of this machine class on two threads (GB/s), for the bound column.
bandwidth="${PARLUNE_BENCH_BANDWIDTH_GBS:-16.5}"

cli="$build/src/cli/parlune-cli"
if [[ ! -x "$cli" ]]; then
  (cd "$root" && cmake --preset release >/dev/null && cmake --build --preset release -j2 --target parlune-cli)
  cli="$root/build/release/src/cli/parlune-cli"
fi
mkdir -p "$models"

# name  arch  shape  type  reference-prompt  reference-generate
cases=(
  "SmolLM2-135M-shape llama 135m q8_0   283 63.8"
  "SmolLM2-135M-shape llama 135m q4_k_m 233 70.3"
  "Qwen2.5-0.5B-shape qwen2 0.5b q8_0   85  21.7"
  "Qwen2.5-0.5B-shape qwen2 0.5b q4_k_m 85  20.6"
)

printf '%-20s %-7s %8s %15s %9s %15s %9s %8s %11s\n' model type "MB" "prompt128 tok/s" "(ref)" \
  "generate tok/s" "(ref)" "bound" "RSS MiB"
for entry in "${cases[@]}"; do
  read -r name arch shape type refPrompt refGen <<<"$entry"
  file="$models/$arch-$shape-$type.gguf"
  [[ -f "$file" ]] || "$cli" model make-test --arch "$arch" --shape "$shape" --type "$type" "$file" >/dev/null
  out="$("$cli" model bench "$file" --threads "$threads" --runs "$runs" --prompt-tokens 128 --gen-tokens 64)"
  mb="$(sed -n 's/.*(\(.*\), \([0-9.]*\) MB of weights).*/\2/p' <<<"$out")"
  prompt="$(awk '/^prompt/ {print $3 " [" $7 "-" $9}' <<<"$out" | tr -d ',)')]"
  gen="$(awk '/^generate/ {print $3 " [" $7 "-" $9}' <<<"$out" | tr -d ',)')]"
  rss="$(sed -n 's/.*RSS while generating \([0-9.]*\) MiB.*/\1/p' <<<"$out")"
  bound="$(awk -v bw="$bandwidth" -v mb="$mb" 'BEGIN {printf "%.0f", bw * 1000 / mb}')"
  printf '%-20s %-7s %8s %15s %9s %15s %9s %8s %11s\n' "$name" "$type" "$mb" "${prompt%% *}" "$refPrompt" \
    "${gen%% *}" "$refGen" "$bound" "$rss"
  printf '%-20s %-7s %8s %15s %9s %15s\n' "" "" "" "${prompt#* }" "" "${gen#* }"
done
echo "medians of $runs runs after a warm-up, $threads threads; [min-max] below each; load: $(cut -d' ' -f1-3 /proc/loadavg)"
