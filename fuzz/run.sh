#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) into build/fuzz and runs
# them: fuzz/run.sh TARGET SECONDS, or fuzz/run.sh all SECONDS (one after the
# other). Seeds are written by the targets themselves on the first run; the
# growing corpus, findings and logs stay under build/fuzz. Prints per target
# the executions and the findings (crash-, timeout-, oom-, leak- files).
set -euo pipefail

usage() { echo "usage: $0 {all|keyed_unarchiver|cache_record|frame_table|provider_registry|demuxer|project_document|legacy_container|waveform_encodings} SECONDS" >&2; exit 2; }
[[ $# -eq 2 ]] || usage
which_target=$1
seconds=$2
[[ $seconds =~ ^[0-9]+$ ]] || usage

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/fuzz
all_targets=(keyed_unarchiver cache_record frame_table provider_registry demuxer project_document legacy_container waveform_encodings)
if [[ $which_target == all ]]; then
  targets=("${all_targets[@]}")
else
  [[ " ${all_targets[*]} " == *" $which_target "* ]] || usage
  targets=("$which_target")
fi

# libFuzzer's runtime comes with compiler-rt; it is needed only here.
if ! compgen -G "/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a" >/dev/null; then
  echo "installing libclang-rt-14-dev for libFuzzer" >&2
  apt-get install -y libclang-rt-14-dev >&2
fi

export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER:-$(command -v ccache || true)}
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$root}
if [[ ! -f $build/build.ninja ]]; then
  (cd "$root" && cmake --preset fuzz >/dev/null)
fi
(cd "$root" && nice -n 10 cmake --build "$build" --target $(printf 'fuzz_%s ' "${targets[@]}"))

export BRINDLE_FUZZ_HOME=$build/home
export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

max_len_for() {
  case $1 in
    demuxer) echo 32768 ;;
    *) echo 65536 ;;
  esac
}

summary=()
for target in "${targets[@]}"; do
  binary=$build/fuzz/fuzz_$target
  seeds=$build/seeds/$target
  corpus=$build/corpus/$target
  artifacts=$build/artifacts/$target
  mkdir -p "$corpus" "$artifacts"
  # Seeds name cache files in the home, so they are rewritten with it.
  if [[ ! -d $seeds || -z $(ls -A "$seeds" 2>/dev/null) || ! -d $BRINDLE_FUZZ_HOME/data ]]; then
    rm -rf "$seeds"
    mkdir -p "$seeds"
    BRINDLE_FUZZ_WRITE_SEEDS=$seeds "$binary" >/dev/null
    if [[ $target == keyed_unarchiver ]]; then
      # The archive fixtures of the foundation tests, decoded generically.
      for fixture in "$root"/tests/foundation/fixtures/*.bplist; do
        { printf '\0'; cat "$fixture"; } >"$seeds/fixture-$(basename "$fixture")"
      done
    fi
  fi
  before=$(ls "$artifacts" | wc -l)
  log=$build/logs/$target-$(date +%Y%m%d-%H%M%S).log
  mkdir -p "$(dirname "$log")"
  start=$(date +%s)
  set +e
  nice -n 10 "$binary" -max_total_time="$seconds" -timeout=1 -rss_limit_mb=2048 -max_len="$(max_len_for "$target")" \
    -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" "$seeds" >"$log" 2>&1
  status=$?
  set -e
  elapsed=$(( $(date +%s) - start ))
  executions=$(grep -o 'stat::number_of_executed_units: [0-9]*' "$log" | tail -1 | grep -o '[0-9]*$' || true)
  [[ -n $executions ]] || executions=$(grep -o '^#[0-9]*' "$log" | tail -1 | tr -d '#' || true)
  findings=$(( $(ls "$artifacts" | wc -l) - before ))
  line="$target: ${executions:-0} executions in ${elapsed} s, $findings new finding(s), exit $status, log $log"
  echo "$line"
  if (( findings > 0 )); then
    ls -t "$artifacts" | head -n "$findings" | sed "s|^|  $artifacts/|"
    grep -m1 -E 'ERROR: |runtime error|SUMMARY' "$log" | sed 's/^/  /' || true
  fi
  summary+=("$line")
done

if (( ${#targets[@]} > 1 )); then
  echo "--- summary"
  printf '%s\n' "${summary[@]}"
fi
