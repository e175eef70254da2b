#!/bin/sh
# scripts/test-ratio.sh: non-blank lines of the git-tracked source files
# (.cpp .h .c .py .sh .mjs .html .js .css .cmake CMakeLists.txt) of the code
# (plugin/ storage/ listing/ transfer/ media/ appstore/ platform/ host/), of
# tests/ and of fuzz/, and the ratio (tests + fuzz) / code. Exits 1 when the
# ratio is above 0.35.
set -eu
cd "$(dirname "$0")/.."
count() {
    git ls-files -z -- "$@" | grep -z -E '(\.(cpp|h|c|py|sh|mjs|html|js|css|cmake)|CMakeLists\.txt)$' |
        xargs -0 -r cat | grep -c -v -E '^\s*$' || true
}
code=$(count plugin storage listing transfer media appstore platform host)
tests=$(count tests)
fuzz=$(count fuzz)
ratio=$(awk -v t="$tests" -v f="$fuzz" -v c="$code" 'BEGIN { printf "%.3f", (t + f) / c }')
echo "test ratio: code $code, tests $tests, fuzz $fuzz, (tests + fuzz) / code = $ratio (limit 0.35)"
awk -v r="$ratio" 'BEGIN { exit !(r <= 0.35) }'
