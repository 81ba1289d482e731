#!/usr/bin/env bash
# Engine throughput on random-weight models of real shapes: prompt (batched) and generation
# tokens/s with 2 threads, beside the reference runtime's figures on this machine class and the
# memory-bandwidth bound for generation (every weight is read once per generated token). The
# bound uses a read bandwidth measured in the same run (several independent accumulators over a
# 512 MiB buffer of distinct pages, so neither latency nor shared pages flatter it), before and
# after the models, unless PARLUNE_BENCH_BANDWIDTH_GBS gives one.
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

cli="$build/src/cli/parlune-cli"
kernelBench="$build/bench/parlune-kernel-bench"
if [[ ! -x "$cli" || ! -x "$kernelBench" ]]; then
  (cd "$root" && cmake --preset release >/dev/null &&
    cmake --build --preset release -j2 --target parlune-cli parlune-kernel-bench)
  cli="$root/build/release/src/cli/parlune-cli"
  kernelBench="$root/build/release/bench/parlune-kernel-bench"
fi
mkdir -p "$models"

bandwidthBefore="${PARLUNE_BENCH_BANDWIDTH_GBS:-$("$kernelBench" bandwidth "$threads")}"

# name  arch  shape  type  reference-prompt  reference-generate ("-": none recorded)
cases=(
  "SmolLM2-135M-shape llama 135m q8_0   283 63.8"
  "SmolLM2-135M-shape llama 135m q4_k_m 233 70.3"
  "Qwen2.5-0.5B-shape qwen2 0.5b q8_0   85  21.7"
  "Qwen2.5-0.5B-shape qwen2 0.5b q4_k_m 85  20.6"
  "Llama-3.2-1B-shape llama 1b   q4_k_m -   -"
  "Qwen2.5-1.5B-shape qwen2 1.5b q4_k_m -   -"
  "Qwen2.5-1.5B-shape qwen2 1.5b q8_0   -   -"
  "Qwen2.5-3B-shape   qwen2 3b   q4_k_m -   -"
)
if [[ -n "${PARLUNE_BENCH_CASES:-}" ]]; then # a subset, e.g. PARLUNE_BENCH_CASES=1.5b
  mapfile -t cases < <(printf '%s\n' "${cases[@]}" | grep -E "$PARLUNE_BENCH_CASES")
fi

printf '%-20s %-7s %8s %15s %9s %15s %9s %8s %9s %11s\n' model type "MB" "prompt128 tok/s" "(ref)" \
  "generate tok/s" "(ref)" "bound" "% bound" "RSS MiB"
for entry in "${cases[@]}"; do
  read -r name arch shape type refPrompt refGen <<<"$entry"
  file="$models/$arch-$shape-$type.gguf"
  [[ -f "$file" ]] || "$cli" model make-test --arch "$arch" --shape "$shape" --type "$type" "$file" >/dev/null
  out="$("$cli" model bench "$file" --threads "$threads" --runs "$runs" --prompt-tokens 128 --gen-tokens 64)"
  mb="$(sed -n 's/.*(\(.*\), \([0-9.]*\) MB of weights).*/\2/p' <<<"$out")"
  prompt="$(awk '/^prompt/ {print $3 " [" $7 "-" $9}' <<<"$out" | tr -d ',)')]"
  gen="$(awk '/^generate/ {print $3 " [" $7 "-" $9}' <<<"$out" | tr -d ',)')]"
  rss="$(sed -n 's/.*RSS while generating \([0-9.]*\) MiB.*/\1/p' <<<"$out")"
  bound="$(awk -v bw="$bandwidthBefore" -v mb="$mb" 'BEGIN {printf "%.1f", bw * 1000 / mb}')"
  share="$(awk -v g="${gen%% *}" -v b="$bound" 'BEGIN {printf "%.0f%%", 100 * g / b}')"
  printf '%-20s %-7s %8s %15s %9s %15s %9s %8s %9s %11s\n' "$name" "$type" "$mb" "${prompt%% *}" "$refPrompt" \
    "${gen%% *}" "$refGen" "$bound" "$share" "$rss"
  printf '%-20s %-7s %8s %15s %9s %15s\n' "" "" "" "${prompt#* }" "" "${gen#* }"
done
bandwidthAfter="${PARLUNE_BENCH_BANDWIDTH_GBS:-$("$kernelBench" bandwidth "$threads")}"
echo "medians of $runs runs after a warm-up, $threads threads; [min-max] below each; load: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "read bandwidth on $threads threads: $bandwidthBefore GB/s before the models (the bound uses it), $bandwidthAfter after"
