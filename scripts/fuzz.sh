#!/usr/bin/env bash
# Runs the libFuzzer targets for a while each, one after the other, at low
# priority, and says how many inputs each ran and what it found.
#
#   scripts/fuzz.sh [-t SECONDS] [-l MAX_BYTES] [-b BUILD_DIR] [TARGET...]
#
# SECONDS is the time per target (default 60); MAX_BYTES the longest input
# tried, longer seeds being cut to it (default 65536). BUILD_DIR is a clang tree
# configured with -DQVXML_BUILD_FUZZ=ON (default build-asan; it is configured
# so when it does not exist). The targets are native_import_fuzz,
# xmeml_import_fuzz, snapshot_fuzz, xml_parser_fuzz, otio_reader_fuzz and
# edl_reader_fuzz (default: all).
#
# Seeds are copied at run time from examples/, tests/data/ and the shared
# corpus (../shared/corpus, or $QVXML_CORPUS); the snapshot target's seeds are
# made by importing those documents with the built command. Nothing is kept
# after a run but findings, which go to BUILD_DIR/fuzz-findings/TARGET/. The
# status is not 0 when a target found something.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=60
maxlen=65536
build=build-asan
while getopts "t:l:b:" option; do
  case $option in
    t) seconds=$OPTARG ;;
    l) maxlen=$OPTARG ;;
    b) build=$OPTARG ;;
    *) echo "usage: scripts/fuzz.sh [-t SECONDS] [-l MAX_BYTES] [-b BUILD_DIR] [TARGET...]" >&2
       exit 1 ;;
  esac
done
shift $((OPTIND - 1))
targets=("$@")
if ((${#targets[@]} == 0)); then
  targets=(native_import_fuzz xmeml_import_fuzz snapshot_fuzz xml_parser_fuzz otio_reader_fuzz
    edl_reader_fuzz)
fi
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

# Copies the files given (those that exist, under 1 MB) into a folder.
seed() {
  local into=$1
  shift
  mkdir -p "$into"
  local f
  for f in "$@"; do
    if [ -f "$f" ] && [ "$(stat -c %s "$f")" -lt 1048576 ]; then
      cp "$f" "$into/$(basename "$f" | tr -c 'A-Za-z0-9._\n-' '_')"
    fi
  done
}

native=(examples/native/*.xml tests/data/native/*.xml)
xmeml=(examples/xmeml/*.xml tests/data/xmeml/*.xml "$corpus"/xmeml/*.xml)
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

# The names the documents are made of, for the fuzzer to try together.
cat >"$work/dictionary" <<'EOF'
"<QVXML Version=\"2.0\">"
"<QVXML Version=\"1.0\">"
"<EditRes num=\"250000\" den=\"10000\"/>"
"<Shot>"
"<Edit>"
"<ChanList>"
"<Chan>"
"<CelEvent>"
"<Ref magic=\"true\">V-00000002-00000287-00000000-00000000-ff-00</Ref>"
"<Transition><Type>Wipe</Type><Id>-12</Id></Transition>"
"<Effect><Type>Track levels</Type>"
"<Keyframe><Position>"
"<Rate num=\"300000\" den=\"10001\"/>"
"<Label Str=\"TC 5 DF 00:01:00;00 105\"/>"
"<xmeml version=\"5\">"
"<sequence>"
"<clipitem>"
"<transitionitem>"
"<timebase>"
"<ntsc>TRUE</ntsc>"
"<file id=\"f\">"
"<pathurl>"
"<filter><effect><effectid>timeremap</effectid>"
"\"editIn\":"
"\"alternates\":"
"\"audioInputSampleRate\":"
"\"nan\""
"1e300"
"-2147483648"
"TITLE: "
"FCM: DROP FRAME"
"FCM: NON-DROP FRAME"
"001  AX       V     C        01:00:00:00 01:00:01:00 01:00:00:00 01:00:01:00"
"002  BL       AA/V  D    030 "
"W012R 010 "
"K B "
"M2   AX       -025.0 01:00:00:00"
"AUD  3 4"
"* FROM CLIP NAME: "
"* TO CLIP NAME: "
"* SOURCE FILE: "
"* LOC: 01:00:00:00 RED "
"* WIPE REVERSE"
">>> SOURCE "
"00:00:59;29"
EOF

status=0
total=0
echo "== fuzzing ${#targets[@]} target(s), ${seconds} s each"
for target in "${targets[@]}"; do
  findings="$build/fuzz-findings/$target"
  mkdir -p "$findings" "$work/$target.corpus"
  set +e
  nice -n 19 "$build/bin/$target" -max_total_time="$seconds" -max_len="$maxlen" \
    -timeout=30 -rss_limit_mb=2048 \
    -print_final_stats=1 -dict="$work/dictionary" -artifact_prefix="$findings/" \
    "$work/$target.corpus" "$work/$target" >"$work/$target.log" 2>&1
  result=$?
  set -e
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$target.log" | tail -1)
  runs=${runs:-0}
  total=$((total + runs))
  # A crash, a leak, a time-out or running out of memory is a finding. An
  # input that took over 10 s once is kept apart: on a busy machine, at this
  # low priority, that is usually the machine; run the target on the file
  # to see what it costs alone.
  found=$(find "$findings" -type f ! -name 'slow-unit-*' | wc -l)
  slow=$(find "$findings" -type f -name 'slow-unit-*' | wc -l)
  line="$target: $runs runs in ${seconds} s, $found finding(s)"
  ((slow > 0)) && line="$line, $slow slow input(s)"
  echo "$line in $findings"
  if [ "$result" != 0 ]; then
    status=1
    tail -40 "$work/$target.log" >&2
  fi
done
echo "== $total runs in all"
exit $status
