#!/usr/bin/env bash
# End-to-end check of "parlune-cli settings" against real settings files in a scratch directory.
# Usage: settings_cli_test.sh PATH_TO_PARLUNE_CLI
set -u
cli="$1"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
source "$(dirname "$0")/check.sh"

fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

# run NAME [ARGS...]: runs the CLI with XDG_CONFIG_HOME=$scratch/NAME; sets $out, $err, $rc.
run() {
  local home="$scratch/$1"; shift
  out="$(XDG_CONFIG_HOME="$home" "$cli" settings "$@" 2>"$scratch/stderr")"
  rc=$?
  err="$(cat "$scratch/stderr")"
}

expect_eq() { [ "$2" == "$3" ] || fail "$1: expected [$3], got [$2]"; }
expect_contains() { [[ "$2" == *"$3"* ]] || fail "$1: [$2] does not contain [$3]"; }

# How the settings file itself is read, set aside, locked and protected is the settings store's
# own test; here, what the command shows and how it exits.

# A fresh installation shows the defaults and writes nothing.
run fresh
expect_eq "fresh exit" "$rc" 0
expect_eq "fresh output" "$out" "Rewrite mode: Improve clarity
Shortcut: Alt+Space
Writing preferences for: no mode
Workflow test completed: no
Settings file: $scratch/fresh/parlune/parlune.conf"
[ -e "$scratch/fresh/parlune" ] && fail "showing the settings created files"

# Changing the mode is saved and shown from then on.
run fresh set-mode "Casual"
expect_eq "set-mode exit" "$rc" 0
expect_eq "set-mode output" "$out" "Rewrite mode: Casual"
grep -qx 'rewriteMode=Casual' "$scratch/fresh/parlune/parlune.conf" || fail "mode not in the settings file"
run fresh
expect_contains "mode after change" "$out" "Rewrite mode: Casual"

# An unknown mode is refused on stderr and changes nothing.
run fresh set-mode "casual"
expect_eq "unknown mode exit" "$rc" 2
expect_eq "unknown mode stdout" "$out" ""
expect_contains "unknown mode stderr" "$err" 'unknown mode "casual"; choose one of "Improve clarity", "Make concise", "Professional", "Casual", "Improve prompt"'
run fresh
expect_contains "mode after refusal" "$out" "Rewrite mode: Casual"

for args in "set-mode" "set-mode Casual extra" "frobnicate"; do
  # shellcheck disable=SC2086
  run fresh $args
  expect_eq "usage error exit for '$args'" "$rc" 2
  expect_contains "usage error for '$args'" "$err" "usage: parlune-cli settings [set-mode MODE]"
done

# Stored values of the application are read; preference texts are never printed.
mkdir -p "$scratch/stored/parlune"
cat > "$scratch/stored/parlune/parlune.conf" <<'CONF'
[General]
rewriteMode=Professional
hotKeyKeyCode=15
hotKeyModifiers=6144
hotKeyDisplayName=Ctrl+Alt+R
writingPreferencesByMode="{\"Casual\":\"secret wording\",\"Professional\":\"no jargon\"}"
localIntelligenceWorkflowTestV1=true
CONF
run stored
expect_eq "stored exit" "$rc" 0
expect_eq "stored output" "$out" "Rewrite mode: Professional
Shortcut: Ctrl+Alt+R
Writing preferences for: Professional, Casual
Workflow test completed: yes
Settings file: $scratch/stored/parlune/parlune.conf"
[[ "$out$err" == *"secret wording"* || "$out$err" == *"jargon"* ]] && fail "a preference text was printed"

# A settings directory that cannot be written makes the change fail loudly.
mkdir -p "$scratch/readonly"
printf 'not a directory' > "$scratch/readonly/parlune"
run readonly set-mode "Make concise"
expect_eq "unsaved exit" "$rc" 1
expect_contains "unsaved stderr" "$err" "could not save the rewrite mode"

# Stored text is escaped before it reaches the terminal.
mkdir -p "$scratch/escapes/parlune"
printf '[General]\nhotKeyKeyCode=15\nhotKeyModifiers=6144\nhotKeyDisplayName=\033[2J\033[31mRed\007\n' \
  > "$scratch/escapes/parlune/parlune.conf"
run escapes
expect_eq "escapes exit" "$rc" 0
[[ "$out" == *$'\033'* ]] && fail "an escape character reached the terminal"
expect_contains "escaped shortcut" "$out" 'Shortcut: \x1b[2J\x1b[31mRed\x07'

exit $((failures > 0))
