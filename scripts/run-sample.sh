#!/usr/bin/env bash
# Sets up the machine, builds, and runs the sample application under Wine.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/setup.sh"
"$root/scripts/build.sh"
source "$root/scripts/wine-env.sh"
source "$root/scripts/test-services.sh"
start_test_services
trap stop_test_services EXIT
cd "$root/build/x64/bin"
# The console writes UTF-16 text (colour changes on standard output, text on standard error);
# one pipe keeps their order and iconv makes it readable on this terminal.
set +e
wine64 ./tavrin_sample.exe "$@" 2>&1 | iconv -f UTF-16LE -t UTF-8
status=${PIPESTATUS[0]}
echo "tavrin_sample exited with $status"
exit "$status"
