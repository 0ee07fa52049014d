#!/usr/bin/env bash
# Installs what is missing, checks the sources (scripts/lint.sh), builds, and runs all tests: on the
# build that ships, and then once more with AddressSanitizer and UndefinedBehaviorSanitizer; then each
# fuzz target for a moment; then the Windows build, run by wine. --linux-only leaves out the last,
# --quick runs only the first.
#
# The last line tells the sum, "N passed, N failed"; the exit code is 0 if none failed.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

presets=(release lto sanitizers fuzz windows)
packages=()
case "${1-}" in
"") ;;
--linux-only) presets=(release lto sanitizers fuzz) ;;
--quick) presets=(release) ;;
*)
    echo "usage: test.sh [--linux-only | --quick]" >&2
    exit 2
    ;;
esac
[[ "${presets[*]}" != *windows* ]] || packages=(--windows)

scripts/install-packages.sh "${packages[@]}"

log=$(mktemp)
trap 'rm -f "$log"' EXIT
echo "== lint"
total=1 failed=0 skipped=0 code=0
scripts/lint.sh || failed=1 code=1
for preset in "${presets[@]}"; do
    echo "== $preset: build"
    scripts/build-preset.sh "$preset"
    echo "== $preset: test"
    preset_code=0
    ctest --preset "$preset" --parallel "$(nproc)" --no-tests=error >"$log" 2>&1 || preset_code=1
    # "98% tests passed, 2 tests failed out of 100"
    read -r preset_failed preset_total < <(
        sed -nE 's/^[0-9]+% tests passed, ([0-9]+) tests? failed out of ([0-9]+)$/\1 \2/p' "$log"
        echo "0 0"
    )
    if [ "$preset_code" = 0 ]; then
        grep -E '^[0-9]+% tests passed|^Total Test time|\((Skipped|Disabled)\)$' "$log"
    else
        cat "$log"
        code=1
        # A run that ended without a count of its own failed as a whole.
        [ "$preset_failed" != 0 ] || preset_failed=1 preset_total=$((preset_total + 1))
    fi
    # What was skipped is in ctest's list at the end, and is no pass.
    skipped=$((skipped + $(grep -cE '^[[:space:]]+[0-9]+ - .*\((Skipped|Disabled)\)$' "$log" || true)))
    failed=$((failed + preset_failed))
    total=$((total + preset_total))
done

summary="$((total - failed - skipped)) passed, $failed failed"
[ "$skipped" = 0 ] || summary+=", $skipped skipped"
echo "$summary"
exit "$code"
