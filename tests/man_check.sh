#!/usr/bin/env bash
# man_check.sh PROGRAM MANPAGE [README [SECTION]]: every option that `PROGRAM --help`
# names ("-x", "--name", "--name=value" counts as "--name") must appear in MANPAGE; and
# the exit codes that --help lists must be those of MANPAGE's EXIT STATUS section and,
# when given, of README (its "### SECTION" part, or all of it): a table row "| N | ..."
# or an "Exit status: N ..., N ..." sentence. Names each disagreement.
set -uo pipefail
program=$1 page=$2 readme=${3:-} section=${4:-}
name=$(basename "$program")
[ -f "$page" ] || { echo "man page missing: $page"; exit 1; }
help=$(timeout 20 "$program" --help 2>&1)
# Options start a word: after a blank, "[", "(", "|" or ",".
options=$(grep -oE '(^|[][ (|,])--?[A-Za-z][A-Za-z0-9-]*' <<<"$help" | sed -E 's/^[][ (|,]//' | sort -u)
if [ -z "$options" ]; then
  echo "$name --help names no option (output: $(head -c 200 <<<"$help"))"
  exit 1
fi
# roff writes a hyphen as "\-" and may set option names in \fB...\fR.
text=$(sed -e 's/\\-/-/g' -e 's/\\f[BIRP]//g' "$page")
missing=0
for option in $options; do
  if ! grep -qE -- "(^|[^A-Za-z0-9-])$option([^A-Za-z0-9-]|$)" <<<"$text"; then
    echo "$name $option: not in $page"
    missing=1
  fi
done

# Codes of an "Exit status:" paragraph, as a sentence ("0 after ..., 2 on ...") or as a
# table of indented lines ("  0  done").
prose_codes() {
  perl -0777 -ne 'while (/Exit status:?(.*?)(?:\n[ \t]*\n|\z)/sg) { my $p = $1;
    while ($p =~ /(?:^|[:,]|\n|  )[ \t]*(\d{1,3})[ \t]+(?=[A-Za-z(])/g) { print "$1\n" } }' | sort -un | tr '\n' ' '
}
man_codes() {
  sed -n '/^\.SH EXIT STATUS/,/^\.SH /p' "$page" | sed -nE 's/^\.B ([0-9]+)[[:space:]]*$/\1/p' | sort -un | tr '\n' ' '
}
readme_codes() {
  local part
  if [ -n "$section" ]; then
    part=$(awk -v head="### $section" '$0 == head {on = 1; next} on && /^##/ {exit} on' "$readme")
  else
    part=$(cat "$readme")
  fi
  { sed -nE 's/^\|[[:space:]]*([0-9]+)[[:space:]]*\|.*/\1/p' <<<"$part"; prose_codes <<<"$part" | tr ' ' '\n'; } |
    grep . | sort -un | tr '\n' ' '
}
help_exit=$(prose_codes <<<"$help")
page_exit=$(man_codes)
if [ -z "$help_exit" ] || [ "$help_exit" != "$page_exit" ]; then
  echo "$name exit codes: --help lists [${help_exit% }], $(basename "$page") [${page_exit% }]"
  missing=1
fi
if [ -n "$readme" ]; then
  readme_exit=$(readme_codes)
  if [ "$help_exit" != "$readme_exit" ]; then
    echo "$name exit codes: --help lists [${help_exit% }], $(basename "$readme")${section:+ ($section)} [${readme_exit% }]"
    missing=1
  fi
fi
[ $missing = 0 ] && echo "$name: $(wc -w <<<"$options") options, all in $(basename "$page"); exit codes ${help_exit% } agree"
exit $missing
