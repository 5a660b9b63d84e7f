# Sourced by scripts that count tests: what came of them, in passed, failed and skipped.
passed=0 failed=0 skipped=0
skips=$(mktemp)  # a line for each test and each part that was not run, with the reason
trap 'rm -f "$skips"' EXIT

count() {
  passed=$((passed + $1)) failed=$((failed + $2)) skipped=$((skipped + $3))
}

# Runs the tests of a build and adds up what CTest wrote about them: run_tests PRESET JOBS [argument of ctest...].
# What is in ctest_under goes in front of the command.
ctest_under=()
run_tests() {
  local preset=$1 at_once=$2 junit=build/$1/tests.xml numbers
  shift 2
  say "== tests: $preset"
  ${ctest_under[@]+"${ctest_under[@]}"} ctest --preset "$preset" -j "$at_once" --no-tests=error \
    --output-junit "$PWD/$junit" "$@" >build/"$preset"/tests.log 2>&1 || python3 scripts/lib/junit.py failures "$junit" >&2
  numbers=$(python3 scripts/lib/junit.py counts "$junit") || numbers="0 1 0"
  # shellcheck disable=SC2086 # three numbers
  count $numbers
  python3 scripts/lib/junit.py skips "$junit" | sed "s/^/$preset: /" >>"$skips"
}
