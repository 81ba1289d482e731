#!/usr/bin/env bash
# parlune-cli discover / catalogue / download on fake tool stores in a scratch home; the models
# are made by the CLI itself. Nothing here reaches the network.
set -uo pipefail
cli="$1"
dir="$(mktemp -d)"
trap 'rm -rf "$dir"' EXIT
source "$(dirname "$0")/check.sh"
run() { timeout 60 env -u XDG_DATA_HOME -u XDG_CACHE_HOME -u HF_HOME -u HF_HUB_CACHE -u OLLAMA_MODELS \
  -u LLAMA_CACHE HOME="$dir" "$cli" "$@"; }

digest=$(printf 'a%.0s' {1..64})
store="$dir/.ollama/models"
mkdir -p "$store/blobs" "$store/manifests/registry.ollama.ai/library/qwen3" \
  "$store/manifests/registry.ollama.ai/library/broken" "$dir/.local/share/parlune/models"
check "make-test writes a model" "$cli" model make-test --arch qwen3 --shape tiny --type q8_0 --seed 5 \
  "$store/blobs/sha256-$digest"
printf '{"layers":[{"mediaType":"application/vnd.ollama.image.model","digest":"sha256:%s"}]}' "$digest" \
  >"$store/manifests/registry.ollama.ai/library/qwen3/tiny"
printf '{"layers":[' >"$store/manifests/registry.ollama.ai/library/broken/latest"
echo "not a model" >"$dir/.local/share/parlune/models/notes.gguf"
mkfifo "$dir/.local/share/parlune/models/pipe.gguf"

found="$(run discover)"
check "discover ends (a FIFO does not block it)" test $? -eq 0
check "the Ollama model is named by its tag" grep -q "^qwen3:tiny  \[Ollama\]" <<<"$found"
check "it is described" grep -q "qwen3 Q8_0, context [0-9]*, chat template" <<<"$found"
check "it can be run" grep -A2 "^qwen3:tiny" <<<"$found" | grep -q "Parlune can run it"
check "a broken manifest says why" grep -A2 "^broken:latest" <<<"$found" | grep -q "not usable: the manifest is not valid JSON"
check "a file that is not a model says so" grep -A2 "^notes.gguf" <<<"$found" | grep -q "not usable: "
check "the FIFO is not listed" bash -c "! grep -q pipe.gguf <<<\"\$0\"" "$found"

listed="$(run catalogue)"
check "catalogue lists the models" grep -q "qwen2.5-1.5b-instruct-q4_k_m" <<<"$listed"
check "catalogue marks a recommendation" grep -q "^\* " <<<"$listed"

run download no-such-model 2>/dev/null
check "an unknown model is a usage error (2)" test $? -eq 2
run download qwen3-4b-q4_k_m --folder "$dir/downloads" 2>"$dir/err"
check "an unpinned model is refused (1)" test $? -eq 1
check "the refusal says why" grep -q "has no download pinned" "$dir/err"
check "nothing was written" test ! -e "$dir/downloads"

exit $((failures > 0))
