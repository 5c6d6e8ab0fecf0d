#!/usr/bin/env bash
# man_check.sh PROGRAM MANPAGE: every option that `PROGRAM --help` names ("-x", "--name",
# "--name=value" counts as "--name") must appear in MANPAGE; names each missing one.
set -uo pipefail
program=$1 page=$2
[ -f "$page" ] || { echo "man page missing: $page"; exit 1; }
help=$(timeout 20 "$program" --help 2>&1)
# Options start a word: after a blank, "[", "(", "|" or ",".
options=$(grep -oE '(^|[][ (|,])--?[A-Za-z][A-Za-z0-9-]*' <<<"$help" | sed -E 's/^[][ (|,]//' | sort -u)
if [ -z "$options" ]; then
  echo "$(basename "$program") --help names no option (output: $(head -c 200 <<<"$help"))"
  exit 1
fi
# roff writes a hyphen as "\-" and may set option names in \fB...\fR.
text=$(sed -e 's/\\-/-/g' -e 's/\\f[BIRP]//g' "$page")
missing=0
for option in $options; do
  if ! grep -qE -- "(^|[^A-Za-z0-9-])$option([^A-Za-z0-9-]|$)" <<<"$text"; then
    echo "$(basename "$program") $option: not in $page"
    missing=1
  fi
done
[ $missing = 0 ] && echo "$(basename "$program"): $(wc -w <<<"$options") options, all in $(basename "$page")"
exit $missing
