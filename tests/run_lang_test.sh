#!/usr/bin/env bash
# Runs one language test: feeds NAME.tv to the kernel program in batch mode and compares
# what it prints (standard output and error, then "[exit N]" when N is not 0) with
# NAME.out. A file NAME.args, when present, holds the whole argument list instead of
# "-b - NAME.tv"; @DIR@ in it stands for the test's directory.
set -u
kernel=$1
tv=$2
dir=$(dirname "$tv")
base=${tv%.tv}
expected=$base.out
if [ -f "$base.args" ]; then
  args=$(sed "s|@DIR@|$dir|g" "$base.args")
  # shellcheck disable=SC2086
  actual=$(cd "$dir" && "$kernel" $args </dev/null 2>&1; rc=$?; [ $rc -ne 0 ] && echo "[exit $rc]")
else
  actual=$(cd "$dir" && "$kernel" -b - "$(basename "$tv")" </dev/null 2>&1; rc=$?; [ $rc -ne 0 ] && echo "[exit $rc]")
fi
if [ "$actual" == "$(cat "$expected")" ]; then
  exit 0
fi
echo "output of $(basename "$tv") differs from $(basename "$expected"):"
diff <(printf '%s\n' "$actual") "$expected"
exit 1
