#!/usr/bin/env bash
# Sets everything up and runs the main job on a bundled example: the example
# cut, a QVXML document whose media has moved, is converted to xmeml.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=g++ >/dev/null
cmake --build build -j"${JOBS:-2}" --target qvxml_app

mkdir -p out
# --overwrite: a second run replaces what the first one wrote.
echo "== qvxml convert examples/native/interview-cut.xml --to xmeml -o out --overwrite"
build/bin/qvxml convert examples/native/interview-cut.xml --to xmeml -o out --overwrite
echo "Done: the file above is the cut as xmeml, for Premiere, Resolve or Final Cut Pro 7."
echo "Try 'build/bin/qvxml --help', and see docs/user-guide.md."
