#!/usr/bin/env bash
# Writes a manual page from a program's own --help, so that the page names every option and every command the
# program has: the template (docs/man/NAME.1.in) holds what the help does not tell, and its lines @SYNOPSIS@,
# @HELP@ and @COMMANDS@ are replaced with the help turned into roff. Usage: manpage.sh PROGRAM TEMPLATE OUTPUT
# (OUTPUT.gz is written beside OUTPUT, compressed without name and time, so the same bytes every time).
#   @SYNOPSIS@  the usage line of the program or, when it has subcommands, of each one
#   @HELP@      the program's help: its options, then each heading of its footer as a section
#   @COMMANDS@  one subsection per subcommand: what it does, its arguments and options, its footer
set -euo pipefail
program=$1 template=$2 output=$3
version=$("$program" --version)
help=$("$program" --help)
commands=$(awk '/^Subcommands:$/ {inside=1; next} inside && /^$/ {exit} inside {print $1}' <<<"$help")
name=$(basename "$program")

# The help text of one command in roff. Lists (Positionals:, Options:, Subcommands:) become tagged paragraphs;
# an item's name takes the first 30 columns (or its whole line, with the description on the next ones indented by
# 30). Lines in capitals are headings (.SH, or .SS inside a command); lines indented further than the text, or
# with columns apart, are kept as they are; the rest is running text.
to_roff() {
  awk -v heading="$1" '
    function escape(text) {
      gsub(/\\/, "\\e", text); gsub(/-/, "\\-", text)
      if (text ~ /^[.\047]/) text = "\\&" text
      return text
    }
    function verbatim(on) {
      if (on && !nofill) print ".nf"
      if (!on && nofill) print ".fi"
      nofill = on
    }
    function item(text,   flags, rest) {
      sub(/^ +/, "", text); sub(/ +$/, "", text)
      flags = text; rest = ""
      if (match(text, / /)) { flags = substr(text, 1, RSTART - 1); rest = substr(text, RSTART) }
      print ".TP"
      print "\\fB" escape(flags) "\\fR" escape(rest)
    }
    # An item waits for the line after it: indented by 30, that line is its description and the item is all name.
    function flush(continued) {
      if (pending == "") return
      if (!continued && length(pending) > 30 && substr(pending, 30, 1) == " ") {
        item(substr(pending, 1, 30)); print escape(substr(pending, 31))
      } else {
        item(pending)
      }
      pending = ""
    }
    /^(Positionals|Options|Subcommands):$/ { verbatim(0); list = 1; next }
    /^Usage:/ { next }
    list && /^$/ { flush(0); list = 0; print ".PP"; next }
    list && /^  [^ ]/ {
      flush(0)
      skip = $0 ~ /^  -h,--help/ && heading == ".SS"
      if (!skip) pending = $0
      next
    }
    list { flush(1); if (!skip) { sub(/^ +/, ""); print escape($0) } next }
    /^$/ { verbatim(0); if (started) print ".PP"; next }
    $0 ~ "^[A-Z][A-Z\047]+( [A-Z\047]+)*( [(].*[)])?$" { verbatim(0); print heading " " escape($0); started = 0; next }
    /^   / || /[^ ]   +[^ ]/ { verbatim(1); print escape($0); started = 1; next }
    /^Exit codes:/ && started { print ".PP" }
    { verbatim(0); sub(/^ +/, ""); print escape($0); started = 1 }
    END { flush(0); verbatim(0) }
  '
}

synopsis() {
  local usage
  if [ -z "$commands" ]; then
    printf '%s\n' "$help" | sed -n 's/^Usage: //p' | to_roff .SH
    return
  fi
  for command in $commands; do
    usage=$("$program" "$command" --help | sed -n 's/^Usage: //p')
    printf '%s\n.br\n' "$usage" | sed 's/-/\\-/g'
  done
}

# The program's own help without the lines before its option lists (the template says what the program is).
own_help() {
  printf '%s\n' "$help" | awk '/^(Options|Positionals):$/ {inside=1} /^Subcommands:$/ {skip=1} skip && /^$/ {skip=0; next}
                               inside && !skip' | to_roff .SH
}

subcommands() {
  for command in $commands; do
    printf '.SS "%s %s"\n' "$name" "$command"
    "$program" "$command" --help | to_roff .SS
  done
}

{
  while IFS= read -r line; do
    case "$line" in
    @SYNOPSIS@) synopsis ;;
    @HELP@) own_help ;;
    @COMMANDS@) subcommands ;;
    *) printf '%s\n' "${line//@VERSION@/$version}" ;;
    esac
  done <"$template"
} >"$output.new"
mv "$output.new" "$output"
gzip -9n -c "$output" >"$output.gz"
