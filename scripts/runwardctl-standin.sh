#!/usr/bin/env bash
# A stand-in for the service manager's control command, for tests and the
# demo (point QUILL_RUNWARDCTL at it). It keeps everything beside itself, so
# that it needs nothing from the environment that the library hands its
# commands:
#   <this script>.calls    one line per call: the arguments, each quoted as
#                          the shell would need it (printf %q), so that an
#                          argument with spaces, quotes or a line feed stays
#                          one argument on one line
#   <this script>.output   when present, printed on standard output
#   <this script>.exit     when present, the exit status to end with
# Copy it into a throw-away directory before use.
self="$0"
line=""
for arg in "$@"; do
  line+="$(printf '%q' "$arg") "
done
printf '%s\n' "${line% }" >> "$self.calls"
if [[ -f "$self.output" ]]; then cat "$self.output"; fi
status=0
if [[ -f "$self.exit" ]]; then status=$(< "$self.exit"); fi
exit "$status"
