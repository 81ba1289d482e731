#!/usr/bin/env bash
# parlune-cli models and rewrite end to end on a tiny random model the CLI makes itself (untied
# output, so greedy answers are not one repeated blank token).
set -uo pipefail
cli="$1"
dir="$(mktemp -d)"
trap 'rm -rf "$dir"' EXIT
export HOME="$dir/home" XDG_DATA_HOME="$dir/data" XDG_CONFIG_HOME="$dir/config"
unset PARLUNE_MODEL
mkdir -p "$HOME"
source "$(dirname "$0")/check.sh"

"$cli" models >"$dir/out"
check "no model is an error (1)" test $? -eq 1
check "no model is explained" grep -q "No model file found" "$dir/out"
echo "Some text to rewrite" | "$cli" rewrite --mode "Make concise" >"$dir/out" 2>"$dir/err"
check "rewrite without a model fails (1)" test $? -eq 1
check "the user-facing sentence is shown" grep -q "The on-device model is still preparing. Try again when it is ready." "$dir/err"
check "the real cause follows it" grep -q "No model file was found. Put a GGUF model in $XDG_DATA_HOME/parlune/models" "$dir/err"
check "nothing on standard output" test ! -s "$dir/out"

models="$XDG_DATA_HOME/parlune/models"
mkdir -p "$models"
check "make-test writes a model" "$cli" model make-test --arch qwen2 --shape tiny --type q8_0 --untied --seed 5 "$models/b-tiny.gguf" >/dev/null
echo "not a model" >"$models/a-broken.gguf"
"$cli" models >"$dir/out"
check "a usable model is found (0)" test $? -eq 0
check "the broken file is explained" grep -q "unusable:" "$dir/out"
check "the good file is chosen" grep -q "^\* .*b-tiny.gguf" "$dir/out"

out="$(printf 'Hello  world' | "$cli" rewrite --mode "Improve clarity")"
check "a trivially safe clarity fix needs no model" test "$out" = "Hello world"

secret="A private sentence about the merger that must never leak into logs."
printf '%s' "$secret" | "$cli" rewrite --mode "Make concise" --stats --bench-response-tokens 8 >"$dir/out" 2>"$dir/err"
check "a forced-length rewrite succeeds (0)" test $? -eq 0
check "stats count the forced tokens" grep -q "8 tokens generated" "$dir/err"
check "stats never show the text" bash -c "! grep -q merger '$dir/err'"
check "stats count guesses and model runs" grep -q "drafted [0-9]* tokens, [0-9]* accepted, [0-9]* forward passes" "$dir/err"
printf '%s' "$secret" | "$cli" rewrite --mode "Make concise" --stats --no-draft --bench-response-tokens 8 >"$dir/plain" 2>"$dir/err"
check "without guesses the rewrite is the same" cmp -s "$dir/out" "$dir/plain"
check "without guesses none are drafted" grep -q "drafted 0 tokens, 0 accepted, 7 forward passes" "$dir/err"
printf '%s' "$secret" | PARLUNE_DRAFT=off "$cli" rewrite --mode "Make concise" --stats --bench-response-tokens 8 >/dev/null 2>"$dir/err"
check "PARLUNE_DRAFT=off turns guesses off" grep -q "drafted 0 tokens" "$dir/err"

printf 'plan a trip' | "$cli" rewrite --mode "Improve prompt" >/dev/null 2>"$dir/err"
check "an unusable improved prompt fails (1)" test $? -eq 1
check "its sentence is shown" grep -q "could not complete that rewrite" "$dir/err"

printf ' \n\t ' | "$cli" rewrite --mode "Casual" >"$dir/out" 2>"$dir/err"
check "blank input fails (1)" test $? -eq 1
check "blank input is named" grep -q "no text to rewrite" "$dir/err"
prefs="$(head -c 20000 /dev/zero | tr '\0' 'p')"
printf 'Two words' | "$cli" rewrite --mode "Casual" --preferences "$prefs" >"$dir/out" 2>"$dir/err"
check "long preferences fail (1)" test $? -eq 1
check "the preferences are named, not the selection" grep -q "writing preferences for this mode are too long" "$dir/err"
head -c 1000000 /dev/zero | tr '\0' 'w' | "$cli" rewrite --mode "Casual" >"$dir/out" 2>"$dir/err"
check "a long selection fails (1)" test $? -eq 1
check "the selection is named" grep -q "That selection is too long" "$dir/err"
head -c 100000000 /dev/zero | tr '\0' 'w' | "$cli" rewrite --mode "Casual" >"$dir/out" 2>"$dir/err"
check "a 100 MB selection fails (1)" test $? -eq 1
check "it is refused as too long" grep -q "That selection is too long" "$dir/err"

printf 'x' | "$cli" rewrite --mode "Shout" 2>/dev/null
check "an unknown mode is a usage error (2)" test $? -eq 2
printf 'x' | PARLUNE_MODEL="$models/a-broken.gguf" "$cli" rewrite --mode "Casual" 2>"$dir/err"
check "an unusable explicit model fails (1)" test $? -eq 1
check "it is not blamed on the computer" bash -c "! grep -q 'does not support' '$dir/err'"
check "the file and the reason are named" grep -q "The model file $models/a-broken.gguf cannot be used: not a GGUF file" "$dir/err"
printf 'x' | "$cli" rewrite --mode "Casual" --model "$models/b-tinny.gguf" 2>"$dir/err"
check "a typo in --model fails (1)" test $? -eq 1
check "the typo is named as a missing file" grep -q "b-tinny.gguf cannot be used: no such file" "$dir/err"

# Entries that are not regular files are refused by type, never opened (a FIFO would block).
mkfifo "$models/c-fifo.gguf"
mkdir "$models/d-folder.gguf"
timeout 20 "$cli" models >"$dir/out"
check "a FIFO in the folder does not hang discovery" test $? -eq 0
check "the FIFO is named as such" grep -A1 "c-fifo.gguf" "$dir/out" | grep -q "is not a regular file (a FIFO)"
check "the folder is named as such" grep -A1 "d-folder.gguf" "$dir/out" | grep -q "is not a regular file (a directory)"
printf 'x' | timeout 20 "$cli" rewrite --mode "Casual" --model "$models/c-fifo.gguf" 2>"$dir/err"
check "a FIFO as the model fails at once (1)" test $? -eq 1
check "the FIFO is the reason" grep -q "c-fifo.gguf cannot be used: is not a regular file (a FIFO)" "$dir/err"
timeout 20 "$cli" model info "$models/c-fifo.gguf" 2>"$dir/err" >/dev/null
check "model info refuses a FIFO (1)" test $? -eq 1
check "model info names it" grep -q "is not a regular file (a FIFO)" "$dir/err"

exit $((failures > 0))
