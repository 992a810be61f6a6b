#!/usr/bin/env bash
# Fails, naming the files, when C and C++ sources differ from what
# clang-format makes of them with the project's .clang-format.
set -euo pipefail
cd "$(dirname "$0")/.."
bad=()
while IFS= read -r f; do
  clang-format --dry-run --Werror "$f" >/dev/null 2>&1 || bad+=("$f")
done < <(git ls-files '*.c' '*.cpp' '*.h')
if [ ${#bad[@]} -gt 0 ]; then
  echo "check-format: not formatted (run clang-format -i on them):" >&2
  printf '  %s\n' "${bad[@]}" >&2
  exit 1
fi
echo "check-format: $(git ls-files '*.c' '*.cpp' '*.h' | wc -l) files formatted"
