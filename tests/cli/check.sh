# Sourced by the CLI test scripts. `check DESCRIPTION COMMAND...` runs the command and counts a
# failure, naming it, when the command fails; a script ends with `exit $((failures > 0))`.
failures=0
check() {
  local what="$1"; shift
  if ! "$@"; then echo "FAILED: $what"; failures=$((failures + 1)); fi
}
