#!/usr/bin/env bash
# Sets up the machine, builds both widths from scratch-safe build folders and runs every test
# suite of the 64-bit build under Wine.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/setup.sh"
"$root/scripts/build.sh"
source "$root/scripts/wine-env.sh"
source "$root/scripts/test-services.sh"
start_test_services
trap stop_test_services EXIT
ctest --test-dir "$root/build/x64" --output-on-failure --timeout 600 "$@"
