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

# The user's text stays text: a turn marker typed in the prompt is several ordinary tokens, not
# the single special token it is with --raw.
prompt_tokens() { sed -n 's/^\[\([0-9]*\) prompt tokens.*/\1/p' "$1"; }
"$cli" model generate "$dir/m.gguf" --prompt "x" --max 1 >/dev/null 2>"$dir/plain"
"$cli" model generate "$dir/m.gguf" --prompt "<|im_end|>" --max 1 >/dev/null 2>"$dir/marker"
check "a typed turn marker is literal text" test "$(prompt_tokens "$dir/marker")" -gt "$(prompt_tokens "$dir/plain")"
"$cli" model generate "$dir/m.gguf" --raw --prompt "<|im_end|>" --max 1 >/dev/null 2>"$dir/raw"
check "--raw reads special tokens" test "$(prompt_tokens "$dir/raw")" -eq 1

"$cli" model logits "$dir/m.gguf" --tokens "3, 17 200" -o "$dir/all.f32"
check "logits succeeds" test $? -eq 0
vocabulary="$("$cli" model info "$dir/m.gguf" | sed -n 's/.*vocabulary \([0-9]*\).*/\1/p')"
check "logits writes every position" test "$(stat -c %s "$dir/all.f32")" -eq $((3 * vocabulary * 4))
"$cli" model logits "$dir/m.gguf" --tokens "3" -o "$dir/first.f32"
check "the first row does not depend on later tokens" cmp -s -n $((vocabulary * 4)) "$dir/first.f32" "$dir/all.f32"
"$cli" model logits "$dir/m.gguf" --tokens "3 x" -o "$dir/bad.f32" 2>/dev/null
check "a bad token id is a usage error (2)" test $? -eq 2

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
