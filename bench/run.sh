#!/usr/bin/env bash
# Runs every benchmark of a build made with -DQUILL_BUILD_BENCH=ON, one after
# the other (each compares QuillCore with its peers in the same program).
#   bash bench/run.sh [BUILD_DIR]          (default build/bench)
set -euo pipefail
build="${1:-build/bench}"
for name in plist_bench plist_file_bench md5_bench bus_bench task_bench log_bench; do
    echo "=== $name"
    "$build/bench/$name"
done
echo "=== runward_latency_report"
"$build/bench/runward_latency_report" "$build/daemons/runwardctl"
