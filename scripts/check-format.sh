#!/usr/bin/env bash
# Fails when a C++ file of the repository differs from what clang-format
# (with the root .clang-format) makes of it. With --fix, formats them instead.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t files < <(git ls-files --cached --others --exclude-standard -- '*.cpp' '*.h' | grep -v '^fuzz/corpus/')
[[ ${#files[@]} -gt 0 ]] || exit 0
if [[ "${1:-}" == "--fix" ]]; then
    clang-format -i "${files[@]}"
else
    clang-format --dry-run --Werror "${files[@]}"
fi
