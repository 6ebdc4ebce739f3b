#!/usr/bin/env bash
# Sets up the machine, builds both widths and runs every test suite of each under Wine: the
# shipped 32-bit build in wine64's WoW64 mode, then the 64-bit build. Ends with one result line
# per width, counted from GoogleTest's own reports. Arguments go to ctest (e.g. -R log).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/setup.sh"
"$root/scripts/build.sh"
source "$root/scripts/wine-env.sh"
source "$root/scripts/test-services.sh"
start_test_services
trap stop_test_services EXIT

status=0
summary=()
for arch in ${TAVRIN_ARCHS:-x86 x64}; do
  dir="$root/build/$arch"
  rm -rf "$dir/test-results"
  echo "== $arch: test suites under Wine"
  ctest --test-dir "$dir" --output-on-failure --timeout 600 "$@" || status=1
  summary+=("$(python3 "$root/scripts/test-summary.py" "$arch" "$dir/test-results")") || status=1
done
echo
printf '%s\n' "${summary[@]}"
archs="${TAVRIN_ARCHS:-x86 x64}"
[ "$status" -eq 0 ] && echo "All suites passed (${archs// /, })." || echo "Some suites failed."
exit "$status"
