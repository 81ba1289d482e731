#!/usr/bin/env bash
# Engine throughput on random-weight models of real shapes: prompt (batched) and generation
# tokens/s, beside a reference runtime's bench program run on the same files, same threads, its
# runs interleaved with ours (PARLUNE_REF_BENCH=/path/to/its bench binary; without it only ours),
# and the memory-bandwidth bound for generation (every weight is read once per generated token).
# The bound uses a read bandwidth measured in the same run (several independent accumulators
# over a 512 MiB buffer of distinct pages, so neither latency nor shared pages flatter it), once
# beside every interleaved run and the median per model: this VM's bandwidth moves by a third
# within minutes, so one reading for the whole run misstates the later models' bound.
# PARLUNE_BENCH_BANDWIDTH_GBS gives a fixed figure instead.
#
# usage: bench/engine_bench.sh [BUILD_DIR] [RUNS]
#   BUILD_DIR defaults to build/release (configured and built if missing);
#   models go to ${PARLUNE_BENCH_DIR:-/tmp/parlune-bench} and are never part of the repository.
#   Generation is measured from an empty context, in its own run, the way the reference does.
#   The reference program is called as `BIN -m FILE -t THREADS -p 128 -n 64 -r 1 -o csv` and its
#   avg_ts column read for the 128-token prompt row and the 64-token generation row.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build/release}"
runs="${2:-5}"
threads="${PARLUNE_BENCH_THREADS:-2}"
models="${PARLUNE_BENCH_DIR:-/tmp/parlune-bench}"
ref="${PARLUNE_REF_BENCH:-}"
if [[ -n "$ref" && ! -x "$ref" ]]; then
  echo "PARLUNE_REF_BENCH=$ref is not an executable file" >&2
  exit 2
fi

cli="$build/src/cli/parlune-cli"
kernelBench="$build/bench/parlune-kernel-bench"
if [[ ! -x "$cli" || ! -x "$kernelBench" ]]; then
  (cd "$root" && cmake --preset release >/dev/null &&
    cmake --build --preset release -j2 --target parlune-cli parlune-kernel-bench)
  cli="$root/build/release/src/cli/parlune-cli"
  kernelBench="$root/build/release/bench/parlune-kernel-bench"
fi
mkdir -p "$models"

median() { sort -g | awk '{v[NR] = $1} END {if (NR == 0) print "-"; else if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {if (a == "-" || b == "-" || b == 0) print "-"; else printf "%.2fx", a / b}'; }
percent() { awk -v a="$1" -v b="$2" 'BEGIN {if (a == "-" || b == 0) print "-"; else printf "%.0f%%", 100 * a / b}'; }

# One run of the reference program: "PROMPT_TPS GEN_TPS" from its CSV (columns found by name).
refRun() {
  "$ref" -m "$1" -t "$threads" -p 128 -n 64 -r 1 -o csv 2>/dev/null | tr -d '"' | awk -F, '
    NR == 1 { for (i = 1; i <= NF; ++i) col[$i] = i; next }
    $col["n_prompt"] == 128 && $col["n_gen"] == 0 { prompt = $col["avg_ts"] }
    $col["n_prompt"] == 0 && $col["n_gen"] == 64 { gen = $col["avg_ts"] }
    END { print (prompt == "" ? "-" : prompt), (gen == "" ? "-" : gen) }'
}

bandwidth() { echo "${PARLUNE_BENCH_BANDWIDTH_GBS:-$("$kernelBench" bandwidth "$threads")}"; }
allBandwidths=()
loadBefore="$(cut -d' ' -f1-3 /proc/loadavg)"

# name  arch  shape  type
cases=(
  "SmolLM2-135M-shape llama 135m     q8_0"
  "Qwen2.5-0.5B-shape qwen2 0.5b     q8_0"
  "Llama-3.2-1B-shape llama 1b       q4_k_m"
  "Qwen2.5-1.5B-shape qwen2 1.5b     q4_k_m"
  "Qwen2.5-1.5B-shape qwen2 1.5b     q8_0"
  "Qwen2.5-3B-shape   qwen2 3b       q4_k_m"
  "Llama-3.2-3B-shape llama 3b-llama q4_k_m"
)
if [[ -n "${PARLUNE_BENCH_CASES:-}" ]]; then # a subset, e.g. PARLUNE_BENCH_CASES=1.5b
  mapfile -t cases < <(printf '%s\n' "${cases[@]}" | grep -E "$PARLUNE_BENCH_CASES")
fi

printf '%-20s %-7s %7s | %7s %7s %6s | %7s %7s %6s | %5s %6s %6s %6s | %7s\n' model type MB \
  "prompt" "ref" "ratio" "gen" "ref" "ratio" "GB/s" "bound" "ours%" "ref%" "RSS MiB"
for entry in "${cases[@]}"; do
  read -r name arch shape type <<<"$entry"
  file="$models/$arch-$shape-$type.gguf"
  [[ -f "$file" ]] || "$cli" model make-test --arch "$arch" --shape "$shape" --type "$type" "$file" >/dev/null
  ourPrompt=() ourGen=() refPrompt=() refGen=() bandwidths=()
  mb="" rss=""
  for ((run = 0; run < runs; ++run)); do
    out="$("$cli" model bench "$file" --threads "$threads" --runs 1 --prompt-tokens 128 --gen-tokens 64)"
    mb="$(sed -n 's/.*(\(.*\), \([0-9.]*\) MB of weights).*/\2/p' <<<"$out")"
    rss="$(sed -n 's/.*RSS while generating \([0-9.]*\) MiB.*/\1/p' <<<"$out")"
    ourPrompt+=("$(awk '/^prompt/ {print $3}' <<<"$out")")
    # Generation from an empty context, as the reference measures it (after the 128-token
    # prompt it is a few percent slower: attention over the longer cache).
    gen="$("$cli" model bench "$file" --threads "$threads" --runs 1 --prompt-tokens 1 --gen-tokens 64)"
    ourGen+=("$(awk '/^generate/ {print $3}' <<<"$gen")")
    if [[ -n "$ref" ]]; then
      read -r p g <<<"$(refRun "$file")"
      [[ "$p" == "-" ]] || refPrompt+=("$p")
      [[ "$g" == "-" ]] || refGen+=("$g")
    fi
    bandwidths+=("$(bandwidth)")
  done
  allBandwidths+=("${bandwidths[@]}")
  bw="$(printf '%s\n' "${bandwidths[@]}" | median)"
  op="$(printf '%s\n' "${ourPrompt[@]}" | median)"
  og="$(printf '%s\n' "${ourGen[@]}" | median)"
  rp="-" rg="-"
  if ((${#refPrompt[@]})); then rp="$(printf '%s\n' "${refPrompt[@]}" | median)"; fi
  if ((${#refGen[@]})); then rg="$(printf '%s\n' "${refGen[@]}" | median)"; fi
  bound="$(awk -v bw="$bw" -v mb="$mb" 'BEGIN {printf "%.1f", bw * 1000 / mb}')"
  printf '%-20s %-7s %7s | %7.1f %7s %6s | %7.1f %7s %6s | %5.1f %6s %6s %6s | %7s\n' "$name" "$type" "$mb" \
    "$op" "$rp" "$(ratio "$op" "$rp")" "$og" "$rg" "$(ratio "$og" "$rg")" "$bw" "$bound" \
    "$(percent "$og" "$bound")" "$(percent "$rg" "$bound")" "$rss"
done
echo "medians of $runs interleaved runs (each after its own warm-up), $threads threads"
echo "reference: ${ref:-none given (PARLUNE_REF_BENCH)}; generation from an empty context for both"
echo "load average: $loadBefore before, $(cut -d' ' -f1-3 /proc/loadavg) after"
echo "read bandwidth on $threads threads, GB/s: one reading per run, bound = MB / the model's median;" \
  "all readings $(printf '%s\n' "${allBandwidths[@]}" | sort -g | awk 'NR == 1 {lo = $1} {hi = $1} END {print lo " to " hi}')"
