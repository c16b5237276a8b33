#!/usr/bin/env bash
# Writes everything qvxml makes of every corpus document into one folder, so
# that two builds can be compared byte for byte:
#
#   scripts/corpus-outputs.sh build/bin/qvxml /tmp/before
#   ... change the code, rebuild ...
#   scripts/corpus-outputs.sh build/bin/qvxml /tmp/after
#   diff -r /tmp/before /tmp/after && echo identical
#
# Options after the folder go to every run (--set xml_legacy_interchange=1).
#
# For each document (the shared corpus and examples/): the conversion to every
# format with its loss report, the import's snapshot, `info --json`, and the
# messages and exit status of each run.
set -uo pipefail
cd "$(dirname "$0")/.."

if (($# < 2)); then
  echo "usage: $0 QVXML OUTDIR [OPTION...]" >&2
  exit 2
fi
qvxml=$(realpath "$1")
out=$2
shift 2
extra=("$@")
corpus=${QVXML_CORPUS:-../shared/corpus}
if [ -e "$out" ]; then
  echo "$out exists; give a new folder" >&2
  exit 2
fi
mkdir -p "$out"
outAbs=$(realpath "$out")
root=$(pwd)

formats=(native xmeml fcpxml otio)
if "$qvxml" convert --help 2>&1 | grep -q "edl"; then formats+=(edl); fi

documents=()
for dir in "$corpus/xmeml" "$corpus/otio" "$corpus/otio/from-xmeml" "$corpus/edl" examples/native examples/xmeml; do
  [ -d "$dir" ] || continue
  for f in "$dir"/*; do
    case "$f" in *.xml | *.otio | *.edl) documents+=("$f") ;; esac
  done
done

# Runs one command in a folder of its own; keeps its messages and status,
# with the folders that differ from one checkout to another named alike.
run() {
  local dir=$1 name=$2
  shift 2
  mkdir -p "$dir"
  (cd "$dir" && "$@" >"$name.out" 2>"$name.err"; echo $? >"$name.status")
  # Documents beside the checkout (examples/) are written with its path.
  grep -rlF -e "$outAbs" -e "$root" "$dir" | while IFS= read -r written; do
    sed -i -e "s|$outAbs|OUT|g" -e "s|$root|ROOT|g" "$written"
  done
}

n=0
for doc in "${documents[@]}"; do
  key=$(echo "${doc#"$corpus"/}" | tr '/ ' '__')
  abs=$(realpath "$doc")
  for f in "${formats[@]}"; do
    run "$out/$key/$f" convert "$qvxml" convert "$abs" --to "$f" -o . --report report.json "${extra[@]}"
  done
  run "$out/$key/import" import "$qvxml" import "$abs" --snapshot snapshot.json "${extra[@]}"
  run "$out/$key/info" info "$qvxml" info "$abs" --json "${extra[@]}"
  n=$((n + 1))
done
echo "$n documents, ${#formats[@]} formats each, in $out"
