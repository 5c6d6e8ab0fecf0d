# Sourced by the package and systemd test scripts: one named check at a time, counted.
#   check DESCRIPTION COMMAND...   runs the command; PASS or FAIL with the description, and
#                                  the command's success as its own
#   pass DESCRIPTION, fail DESCRIPTION [REASON]
#   tally                          "N passed, N failed", also into $ORVEX_TALLY when set;
#                                  true when something passed and nothing failed
passed=0
failed=0

pass() { passed=$((passed + 1)); echo "PASS: $1"; }
fail() { failed=$((failed + 1)); echo "FAIL: $1${2:+ ($2)}"; }
check() {
  local what=$1
  shift
  if "$@"; then
    pass "$what"
    return 0
  fi
  fail "$what"
  return 1
}
tally() {
  echo "$passed passed, $failed failed"
  [ -n "${ORVEX_TALLY:-}" ] && echo "$passed $failed" > "$ORVEX_TALLY"
  [ "$failed" = 0 ] && [ "$passed" -gt 0 ]
}
