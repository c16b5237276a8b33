#!/usr/bin/env bash
# Runs the libFuzzer targets for a while each, one after the other, at low
# priority (nice 19, or $FUZZ_NICE), and says how many inputs each ran and
# what it found.
#
#   scripts/fuzz.sh [-t SECONDS] [-r RUNS] [-l MAX_BYTES] [-b BUILD_DIR] [TARGET...]
#
# SECONDS is the time per target (default 60); RUNS, when given, ends a
# target sooner, once it has run that many inputs (for a long run that must
# reach a count on each target); MAX_BYTES the longest input
# tried, longer seeds being cut to it (default 65536; the command targets take
# at most $COMMAND_MAX_LEN, default 16384, as each input runs the command seven
# times). BUILD_DIR is a clang tree configured with -DQVXML_BUILD_FUZZ=ON
# (default build-asan; it is configured so when it does not exist). The
# targets are the readers' native_import_fuzz, xmeml_import_fuzz,
# snapshot_fuzz, xml_parser_fuzz, otio_reader_fuzz and edl_reader_fuzz, and
# the whole command's native_command_fuzz, xmeml_command_fuzz,
# otio_command_fuzz, snapshot_command_fuzz and edl_command_fuzz (default:
# all).
#
# Seeds are copied at run time from examples/, tests/data/ (with the inputs
# earlier runs found, tests/data/fuzz/) and the shared
# corpus (../shared/corpus, or $QVXML_CORPUS); the snapshot targets' seeds are
# made by importing those documents with the built command. The dictionaries
# are tests/fuzz/*.dict. Nothing is kept after a run but findings, which go to
# BUILD_DIR/fuzz-findings/TARGET/. The status is not 0 when a target found
# something.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=60
maxlen=65536
build=build-asan
runs_each=-1
while getopts "t:r:l:b:" option; do
  case $option in
    t) seconds=$OPTARG ;;
    r) runs_each=$OPTARG ;;
    l) maxlen=$OPTARG ;;
    b) build=$OPTARG ;;
    *) echo "usage: scripts/fuzz.sh [-t SECONDS] [-r RUNS] [-l MAX_BYTES] [-b BUILD_DIR] [TARGET...]" >&2
       exit 1 ;;
  esac
done
shift $((OPTIND - 1))
targets=("$@")
if ((${#targets[@]} == 0)); then
  targets=(native_import_fuzz xmeml_import_fuzz snapshot_fuzz xml_parser_fuzz otio_reader_fuzz
    edl_reader_fuzz native_command_fuzz xmeml_command_fuzz otio_command_fuzz
    snapshot_command_fuzz edl_command_fuzz)
fi
command_maxlen=${COMMAND_MAX_LEN:-16384}
corpus=${QVXML_CORPUS:-../shared/corpus}

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
    -DQVXML_BUILD_FUZZ=ON -DQVXML_BUILD_BENCH=OFF >/dev/null
fi
if ! grep -q "QVXML_BUILD_FUZZ:BOOL=ON" "$build/CMakeCache.txt"; then
  echo "fuzz.sh: $build is not configured with -DQVXML_BUILD_FUZZ=ON" >&2
  exit 1
fi
cmake --build "$build" -j"${JOBS:-2}" --target "${targets[@]}" qvxml_app >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Copies the files given (those that exist, under 1 MB, or under $under
# bytes) into a folder.
seed() {
  local into=$1
  shift
  mkdir -p "$into"
  local f
  for f in "$@"; do
    if [ -f "$f" ] && [ "$(stat -c %s "$f")" -lt "${under:-1048576}" ]; then
      cp "$f" "$into/$(basename "$f" | tr -c 'A-Za-z0-9._\n-' '_')"
    fi
  done
}

native=(examples/native/*.xml tests/data/native/*.xml tests/data/fuzz/native/*)
xmeml=(examples/xmeml/*.xml tests/data/xmeml/*.xml "$corpus"/xmeml/*.xml tests/data/fuzz/xmeml/*)
seed "$work/native_import_fuzz" "${native[@]}"
seed "$work/xmeml_import_fuzz" "${xmeml[@]}"
seed "$work/xml_parser_fuzz" "${native[@]}" "${xmeml[@]}" "$corpus"/fcpxml/*.fcpxml
seed "$work/snapshot_fuzz" examples/timeline.json
seed "$work/otio_reader_fuzz" "$corpus"/otio/*.otio
seed "$work/edl_reader_fuzz" tests/data/edl/*.edl "$corpus"/edl/*.edl
# Snapshots of what the documents import to.
n=0
for doc in "${native[@]}" "${xmeml[@]}"; do
  [ -f "$doc" ] || continue
  n=$((n + 1))
  "$build/bin/qvxml" import --quiet --lenient "$doc" \
    --snapshot "$work/snapshot_fuzz/import-$n.json" >/dev/null 2>&1 || true
done
# The command targets skip inputs over 256 KB.
under=262144 seed "$work/native_command_fuzz" "${native[@]}"
under=262144 seed "$work/xmeml_command_fuzz" "${xmeml[@]}"
under=262144 seed "$work/otio_command_fuzz" "$corpus"/otio/*.otio "$corpus"/otio/*/*.otio
under=262144 seed "$work/snapshot_command_fuzz" "$work"/snapshot_fuzz/*.json
under=262144 seed "$work/edl_command_fuzz" tests/data/edl/*.edl "$corpus"/edl/*.edl


status=0
total=0
echo "== fuzzing ${#targets[@]} target(s), ${seconds} s each"
for target in "${targets[@]}"; do
  findings="$build/fuzz-findings/$target"
  mkdir -p "$findings" "$work/$target.corpus"
  # The names each kind of document is made of, for the fuzzer to try together.
  case $target in
    otio_* | snapshot_*) dictionary=tests/fuzz/json.dict ;;
    edl_*) dictionary=tests/fuzz/edl.dict ;;
    *) dictionary=tests/fuzz/xml.dict ;;
  esac
  # The command says what it wrote and what it lost on every run: only
  # libFuzzer's own lines and the sanitizers' reports are kept. Its runs
  # cover tens of thousands of features, which the entropic schedule would
  # weigh after every run, at ten times the cost of the run itself.
  extra=()
  length=$maxlen
  if [[ $target == *_command_fuzz ]]; then
    extra=(-close_fd_mask=3 -entropic=0)
    ((length > command_maxlen)) && length=$command_maxlen
  fi
  started=$SECONDS
  set +e
  nice -n "${FUZZ_NICE:-19}" "$build/bin/$target" -max_total_time="$seconds" -runs="$runs_each" -max_len="$length" \
    -timeout=30 -rss_limit_mb=2048 "${extra[@]}" \
    -print_final_stats=1 -dict="$dictionary" -artifact_prefix="$findings/" \
    "$work/$target.corpus" "$work/$target" >"$work/$target.log" 2>&1
  result=$?
  set -e
  elapsed=$((SECONDS - started))
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$target.log" | tail -1)
  runs=${runs:-0}
  total=$((total + runs))
  # A crash, a leak, a time-out or running out of memory is a finding. An
  # input that took over 10 s once is kept apart: on a busy machine, at this
  # low priority, that is usually the machine; run the target on the file
  # to see what it costs alone.
  found=$(find "$findings" -type f ! -name 'slow-unit-*' | wc -l)
  slow=$(find "$findings" -type f -name 'slow-unit-*' | wc -l)
  line="$target: $runs runs in ${elapsed} s ($((runs / (elapsed > 0 ? elapsed : 1)))/s), $found finding(s)"
  ((slow > 0)) && line="$line, $slow slow input(s)"
  echo "$line in $findings"
  if [ "$result" != 0 ]; then
    status=1
    tail -40 "$work/$target.log" >&2
  fi
done
echo "== $total runs in all"
exit $status
