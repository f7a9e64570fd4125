#!/usr/bin/env bash
# The main job: sets up the machine, builds QuillCore and its command-line
# tool, and runs quillctl over a sample property list and a digest, a log, and
# a service installed, enabled and synchronised against a stand-in for the
# service manager's control command.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUILL_BUILD_TESTS=OFF >/dev/null
cmake --build build/release --target quillctl ExampleService
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
bus_pid=""
cleanup() {
  if [[ -n "$bus_pid" ]]; then kill "$bus_pid" 2>/dev/null || true; fi
  rm -rf "$demo_home"
}
trap cleanup EXIT
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
# A service from its bundle to a running job. The service manager's control
# command is the stand-in, which records its command lines beside itself; the
# notifications to the daemon go over a bus of the demo's own.
bus_address=$(mktemp -u "$demo_home/bus.XXXXXX")
exec 3< <(dbus-daemon --session --address="unix:path=$bus_address" --nofork --print-pid=1 --print-address=1 2>/dev/null)
read -r bus_address_line <&3
read -r bus_pid <&3
cp scripts/runwardctl-standin.sh "$demo_home/runwardctl"
bundle=build/release/examples/ExampleService.bundle
kind=servicecontroller:com.tessaly.corvane.example
run_service_verb() {
  echo "\$ quillctl $*"
  HOME="$demo_home" QUILL_RUNWARDCTL="$demo_home/runwardctl" DBUS_SESSION_BUS_ADDRESS="$bus_address_line" "$q" "$@"
}
run_service_verb services install "$bundle"
run_service_verb services enable "$kind"
run_service_verb services sync "$kind"
run_service_verb jobs show "$kind"
echo "\$ cat runwardctl.calls   # what the control command was asked"
cat "$demo_home/runwardctl.calls"
# Disabled and synchronised again, the trigger file in /tmp goes away.
run_service_verb services disable "$kind"
run_service_verb services sync "$kind"
run_service_verb services list
