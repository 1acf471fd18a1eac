#!/usr/bin/env bash
# Writes the manual page repoctl(1) from what the built program says about itself: the command
# list of `repoctl help` and, for each command, the text of `repoctl help COMMAND`. The build
# runs it after every link of repoctl, so the page always lists exactly the program's commands.
# Usage: repoctl-manpage.sh REPOCTL VERSION OUTPUT
set -euo pipefail
repoctl=$1 version=$2 output=$3

# roff text: a backslash is written \e, a minus \-, and a line that would start with a control
# character (. or ') is protected by \&.
roff() { sed -e 's/\\/\\e/g' -e 's/-/\\-/g' -e "s/^\\([.']\\)/\\\\\\&\\1/"; }

# The lines of `repoctl help` under "commands:": a line indented by two spaces starts a command
# (usage, two or more blanks, summary); a line indented deeper continues the summary above.
# Prints "name<TAB>usage<TAB>summary", one command a line.
command_table() {
  "$repoctl" help | awk '
    function flush() { if (name != "") print name "\t" usage "\t" summary; name = "" }
    /^commands:/ { inside = 1; next }
    !inside { next }
    /^  [^ ]/ {
      flush()
      line = substr($0, 3)
      split(line, words, " "); name = words[1]
      if (match(line, /  +/)) {
        usage = substr(line, 1, RSTART - 1); summary = substr(line, RSTART + RLENGTH)
      } else { usage = line; summary = "" }
      next
    }
    /^   +[^ ]/ && name != "" { sub(/^ +/, ""); summary = summary " " $0; next }
    /^[^ ]/ { flush(); inside = 0 }
    END { flush() }'
}

# The longer text of `repoctl help NAME` without its usage line and without the summary that the
# page shows already. Empty when the program prints only its general help for every name.
command_details() {
  local name=$1 summary=$2 text
  text=$("$repoctl" help "$name" 2>/dev/null) || return 0
  if [[ $text == "usage: repoctl COMMAND "* ]]; then return 0; fi
  printf '%s\n' "$text" | awk -v summary="$summary" '
    NR == 1 && /^usage: repoctl / { next }
    !started && ($0 == "" || $0 == summary || $0 == summary ".") { next }
    { started = 1; print }'
}

# The usage line of `repoctl help NAME` when it has one, else the one of the command list.
command_usage() {
  local name=$1 usage=$2 first
  first=$("$repoctl" help "$name" 2>/dev/null | head -n 1) || true
  if [[ $first == "usage: repoctl $name"* ]]; then usage=${first#usage: repoctl }; fi
  printf '%s\n' "$usage"
}

write_page() {
  local table=$1 name usage summary details date=""
  if [ -n "${SOURCE_DATE_EPOCH:-}" ]; then date=$(date -u -d "@$SOURCE_DATE_EPOCH" +%Y-%m-%d); fi
  cat <<EOF
.TH REPOCTL 1 "$date" "repohandler $version" "System Administration"
.SH NAME
repoctl \\- operator's command line of the repository library librepohandler
.SH SYNOPSIS
.B repoctl
.I COMMAND
.RI [ ARGUMENTS ...]
.br
.B repoctl help
.RI [ COMMAND ]
.SH DESCRIPTION
.B repoctl
runs the operations of the storage repositories of the image archive server from a shell: it
shows the state of repositories and mounts, finds, creates, locks and removes resources, and
runs the maintenance that moves or deletes the least recently used resources when a mount
passes its limits.
A repository is named by its directory, as the archive server names it.
Options are long GNU options and may stand before or after the positional arguments.
.PP
.B repoctl help
lists the commands;
.B repoctl help
.I COMMAND
describes one command.
.SH COMMANDS
EOF
  while IFS=$'\t' read -r name usage summary; do
    usage=$(command_usage "$name" "$usage")
    details=$(command_details "$name" "$summary")
    printf '.SS "%s"\n' "$(printf '%s' "$usage" | roff | sed 's/"/\\(dq/g')"
    printf '%s\n' "$summary" | roff
    if [ -n "$details" ]; then
      printf '.PP\n.nf\n'
      printf '%s\n' "$details" | roff
      printf '.fi\n'
    fi
  done <"$table"
  cat <<'EOF'
.SH EXIT STATUS
.TP
.B 0
the command succeeded
.TP
.B 1
the operation answered with a failure status, or a check found something
.TP
.B 2
usage error; one line on standard error says what is wrong, followed by the usage line
.SH ENVIRONMENT
.TP
.B LOCK_VAR
directory of the resource lock files of unshared repositories; must be the archive server's
.TP
.B VAR
directory of the move state, the move statistics and the record of the last maintenance run
.TP
.B TMP
directory of the marker files that space out move\-time warnings
.TP
.BR DBNAME ", " MED_USER ", " MYSQL_UNIX_PORT ", " MYSQL_HOST ", " MYSQL_TCP_PORT ", " CONF
the database of shared repositories
.TP
.B NVLOCKTBL
name of the lock table of shared repositories
.TP
.BR LOG_FACILITY ", " LOG_OPER_FACILITY
syslog facilities of ordinary and operator messages
.SH FILES
.TP
.I /etc/repohandler/repositories
the repositories that the scheduled maintenance checks, one directory a line
.TP
.I /etc/repohandler/environment
the environment of the scheduled maintenance
.SH SEE ALSO
.BR systemctl (1),
.BR systemd.timer (5)
EOF
}

table=$(mktemp)
trap 'rm -f "$table" "$output.new"' EXIT
command_table >"$table"
[ -s "$table" ] || { echo "repoctl-manpage.sh: $repoctl help lists no command" >&2; exit 1; }
write_page "$table" >"$output.new"
mv "$output.new" "$output"
