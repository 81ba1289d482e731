#!/usr/bin/env bash
# A rewrite opens no internet socket: parlune-cli runs with a preload that refuses and records
# every AF_INET/AF_INET6 socket. A probe that does open one shows the preload works.
set -uo pipefail
cli="$1" preload="$2" probe="$3"
dir="$(mktemp -d)"
trap 'rm -rf "$dir"' EXIT
source "$(dirname "$0")/check.sh"
export HOME="$dir/home" XDG_DATA_HOME="$dir/data" XDG_CONFIG_HOME="$dir/config" PARLUNE_NETWORK_LOG="$dir/network.log"
unset PARLUNE_MODEL
mkdir -p "$HOME" "$XDG_DATA_HOME/parlune/models"

LD_PRELOAD="$preload" "$probe"
check "the probe's socket is refused" test $? -eq 1
check "and recorded" grep -q "socket(AF_INET)" "$dir/network.log"
rm -f "$dir/network.log"

check "make-test writes a model" "$cli" model make-test --arch qwen2 --shape tiny --type q8_0 --untied --seed 5 \
  "$XDG_DATA_HOME/parlune/models/tiny.gguf" >/dev/null
printf 'A private sentence about the merger.' |
  LD_PRELOAD="$preload" "$cli" rewrite --mode "Make concise" --bench-response-tokens 8 >"$dir/out" 2>"$dir/err"
check "the rewrite succeeds (0)" test $? -eq 0
check "no internet socket was opened" test ! -e "$dir/network.log"

exit $((failures > 0))
