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
wine64 ./tavrin_sample.exe "$@"
