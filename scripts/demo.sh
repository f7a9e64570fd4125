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
admin=jobcontroller:com.tessaly.lumenforge.cluster.admin
echo "\$ quillctl plist get $sample serviceconfig.$admin._orderList"
"$q" plist get "$sample" "serviceconfig.$admin._orderList"
# The record verbs read the configuration of the user's HOME: a throw-away
# home holds the sample as its configuration file.
demo_home=$(mktemp -d)
trap 'rm -rf "$demo_home"' EXIT
echo "\$ quillctl plist print $sample | head -n 12"
"$q" plist print "$sample" > "$demo_home/printed.plist"
head -n 12 "$demo_home/printed.plist"
mkdir -p "$demo_home/Library/Application Support/Lumenforge"
cp "$sample" "$demo_home/Library/Application Support/Lumenforge/LumenforgeConfig.plist"
echo "\$ quillctl config show";          HOME="$demo_home" "$q" config show
echo "\$ quillctl services list";        HOME="$demo_home" "$q" services list
echo "\$ quillctl digest $sample README.md"
"$q" digest "$sample" README.md
echo "(md5sum says:)"; md5sum "$sample" README.md
# The log format: two scripted records, one of them needing escaping.
log="$demo_home/demo.log"
echo "\$ quillctl log write demo.log 'render queue started'"
"$q" log write "$log" "render queue started"
echo "\$ quillctl log write demo.log --level 5 'frame 7 < frame 8 & \"done\"'"
"$q" log write "$log" --level 5 'frame 7 < frame 8 & "done"'
echo "\$ cat demo.log"; cat "$log"
echo "\$ quillctl log show demo.log"; "$q" log show "$log"
