#!/usr/bin/env bash
# parlune-cli model commands end to end on a tiny model the CLI makes itself.
set -uo pipefail
cli="$1"
dir="$(mktemp -d)"
trap 'rm -rf "$dir"' EXIT
source "$(dirname "$0")/check.sh"

check "make-test writes a model" "$cli" model make-test --arch qwen3 --shape tiny --type q4_k_m --seed 3 "$dir/m.gguf"
info="$("$cli" model info "$dir/m.gguf")"
check "info names the architecture" grep -q "architecture:  qwen3" <<<"$info"
check "info lists the weight types" grep -q "Q4_K" <<<"$info"
check "info names the chat family" grep -q "chat format:   chatml" <<<"$info"

"$cli" model generate "$dir/m.gguf" --prompt "the sea" --system "be brief" --max 4 >"$dir/out" 2>"$dir/err"
check "generate succeeds" test $? -eq 0
check "generate reports its speed" grep -q "generated at" "$dir/err"

bench="$("$cli" model bench "$dir/m.gguf" --threads 1 --runs 1 --prompt-tokens 8 --gen-tokens 4)"
check "bench prints prompt speed" grep -q "^prompt 8 " <<<"$bench"
check "bench prints memory" grep -q "peak RSS" <<<"$bench"

"$cli" model info "$dir/missing.gguf" 2>"$dir/err"
check "a missing file is an error (1)" test $? -eq 1
check "the error names the file" grep -q "missing.gguf" "$dir/err"
"$cli" model bench "$dir/m.gguf" --runs zero 2>/dev/null
check "a bad number is a usage error (2)" test $? -eq 2
"$cli" model make-test --arch gpt9 "$dir/x.gguf" 2>/dev/null
check "an unknown architecture is a usage error (2)" test $? -eq 2
check "nothing written for a bad request" test ! -e "$dir/x.gguf"
head -c 100 "$dir/m.gguf" >"$dir/cut.gguf"
"$cli" model generate "$dir/cut.gguf" --prompt hi 2>/dev/null
check "a truncated file is an error (1)" test $? -eq 1

exit $((failures > 0))
