#!/usr/bin/env bash
# lint.sh [--all]: checks the format of all C and C++, runs linters over the shell scripts and the
# Python, and looks whether what docs/architecture.md and docs/compatibility.md name exists; then runs
# clang-tidy over the driver, its platform layer and its log, a minute on two cores. With --all it goes
# over every source of the Linux build, which takes some ten minutes. Says nothing of what is clean; the
# exit code is 0 if everything is.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

tidied="(MCI|platform|log)/"
case "${1-}" in
"") ;;
--all) tidied='' ;;
*)
    echo "usage: lint.sh [--all]" >&2
    exit 2
    ;;
esac

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
code=0
check() {
    "$@" >"$work/log" 2>&1 || { code=1; cat "$work/log" >&2; echo "lint.sh: not clean: $1" >&2; }
}

# files TEST...: those that pass a test of find, without what was built.
files() { find . -type d \( -name 'build*' -o -name dist -o -name .git \) -prune -o -type f \( "$@" \) -print; }
mapfile -t sources < <(files -name '*.c' -o -name '*.cpp' -o -name '*.h' -o -name '*.hpp')
mapfile -t scripts < <(files -exec grep -qIE -m 1 '^#!.*[/ ](ba)?sh$' {} \;)
mapfile -t python < <(files -name '*.py')
check clang-format --dry-run -Werror "${sources[@]}"
check shellcheck --severity=warning "${scripts[@]}" cli/completion/ffdhost.bash
check pyflakes3 "${python[@]}"

# Every file and every name with an underscore in docs/architecture.md and docs/compatibility.md.
names_exist() {
    local name missing=0
    while read -r name; do
        grep -qxE "(.*/)?${name//./\\.}" \
            <(printf '%s\n' "${sources[@]}" "${scripts[@]}" "${python[@]}" ./*/*.txt docs/*.md) ||
            grep -qwF "$name" "${sources[@]}" ./*/CMakeLists.txt || {
            echo "docs/ names $name, which is not there"
            missing=1
        }
    done < <(sed 's/[A-Za-z0-9_/]*\*[A-Za-z0-9_.]*//g' docs/architecture.md docs/compatibility.md |
        grep -oE '[A-Za-z0-9][A-Za-z0-9_/-]*\.(cpp|hpp|h|c|py|sh|txt|md)|[A-Za-z0-9]+_[A-Za-z0-9_]*[A-Za-z0-9]' |
        sort -u)
    return "$missing"
}
check names_exist

# The driver's sources are compiled for several libraries: once is enough here.
cmake --preset release >"$work/log" || { cat "$work/log" >&2; exit 1; }
python3 - "$work" "$tidied" >"$work/files" <<'END'
import json, os, re, sys
commands = json.load(open("build/compile_commands.json"))
first = {os.path.relpath(each["file"]): each for each in reversed(commands)}
json.dump(list(first.values()), open(sys.argv[1] + "/compile_commands.json", "w"))
print(*sorted(name for name in first if re.match(sys.argv[2], name)), sep="\n")
END
tidy() { xargs -P "$(nproc)" -n 1 clang-tidy -p "$work" --quiet --extra-arg=-U_FORTIFY_SOURCE \
    <"$work/files" 2>"$work/counts"; }
check tidy
exit "$code"
