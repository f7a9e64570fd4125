#!/usr/bin/env bash
# The main job: sets up the machine, builds QuillCore and its command-line
# tool, and runs quillctl over a sample property list and a digest.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUILL_BUILD_TESTS=OFF >/dev/null
cmake --build build/release --target quillctl
q=build/release/tools/quillctl
sample=docs/samples/config.plist

echo "\$ quillctl version";              "$q" version
echo "\$ quillctl plist lint $sample";   "$q" plist lint "$sample"
echo "\$ quillctl plist get $sample corvaneconfig.DaemonPort"
"$q" plist get "$sample" corvaneconfig.DaemonPort
echo "\$ quillctl plist get $sample corvaneservices._orderList"
"$q" plist get "$sample" corvaneservices._orderList
echo "\$ quillctl plist print $sample | head -n 12"
"$q" plist print "$sample" | head -n 12
echo "\$ quillctl digest $sample README.md"
"$q" digest "$sample" README.md
echo "(md5sum says:)"; md5sum "$sample" README.md
