#!/usr/bin/env bash
# Checks which way the #include "..." lines of the program point, so that the layers stay
# readable:
#   core      vol/ dti/ fiber/ io/ ipc/ study/ (not study/gui/) cohort/ report/ tools/ and
#             the GTK-free drawing files of view/ (QUORIX_RENDER_SOURCES in CMakeLists.txt)
#   services  app/services/: the application state record, menu builder, dialogs, status
#             line, viewer sends and the notices the layers above exchange
#   pages     study/gui/          views   view/ (its GTK parts)
#   top       app/: main window, start-up, loading and commands
# A file includes only files of its own layer or one below; pages and views know nothing
# of each other (they meet through the notices of the services); no file of the core
# includes GTK; and no group of files includes itself round a circle (x.h and x.cpp count
# as one), inside a folder as much as across folders.
#
#   tools/check_layers.sh [ROOT]      exit status 0 when all holds, 1 with every breach listed
set -euo pipefail
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}
cd "$root"

# Known breaches still to be mended, one "FROM TO" include a line, each with its reason;
# an allowed include counts neither as upward nor as a step of a circle.
allowed=(
  # none today
)

render=$(sed -n '/set(QUORIX_RENDER_SOURCES/,/)/p' CMakeLists.txt 2>/dev/null | grep -o 'view/[a-z_]*\.cpp' |
         sed 's/\.cpp$//' | tr '\n' ' ' || true)
files=$(find app view study vol dti fiber io ipc cohort report tools -type f \( -name '*.h' -o -name '*.cpp' \) \
          2>/dev/null | sort || true)
edges=$(mktemp)
trap 'rm -f "$edges"' EXIT

# One pass over every include line ("FILE:#include ..."): breaches out, and the steps
# between groups of files (x.h and x.cpp as one) into $edges for the circle check.
# shellcheck disable=SC2086
breaches=$( (grep -H -E '^[[:space:]]*#[[:space:]]*include[[:space:]]*["<]' $files /dev/null || true) |
  awk -v render="$render" -v allowed="$(printf '%s\n' "${allowed[@]}")" -v edges="$edges" -v list="$files" '
    function module(f) { sub(/\.[^.\/]*$/, "", f); return f }
    # "rank group" of a file, empty outside the checked folders
    function layer(f) {
      if (module(f) in isRender) return "0 core"
      if (f ~ /^study\/gui\//) return "2 pages"
      if (f ~ /^(vol|dti|fiber|io|ipc|study|cohort|report|tools)\//) return "0 core"
      if (f ~ /^app\/services\//) return "1 services"
      if (f ~ /^view\//) return "2 views"
      if (f ~ /^app\//) return "3 top"
      return ""
    }
    BEGIN {
      n = split(render, r, " "); for (i = 1; i <= n; ++i) isRender[r[i]] = 1
      n = split(allowed, a, "\n"); for (i = 1; i <= n; ++i) if (a[i] != "") isAllowed[a[i]] = 1
      n = split(list, l, "\n"); for (i = 1; i <= n; ++i) exists[l[i]] = 1
    }
    {
      colon = index($0, ":"); file = substr($0, 1, colon - 1); line = substr($0, colon + 1)
      split(layer(file), from, " ")
      if (from[1] == "") next
      if (line ~ /<gtk\//) { if (from[2] == "core") print "Err: " file ": the core includes GTK"; next }
      if (!match(line, /"[^"]*"/)) next
      target = substr(line, RSTART + 1, RLENGTH - 2)
      if (!(target in exists) || ((file " " target) in isAllowed)) next
      split(layer(target), to, " ")
      if (module(file) != module(target)) print module(file) " " module(target) > edges
      if (to[1] > from[1] || (to[1] == from[1] && to[2] != from[2]))
        print "Err: " file " (" from[2] ") includes " target " (" to[2] ")"
    }')
failures=0
if [[ -n $breaches ]]; then
  echo "$breaches"
  failures=$(grep -c . <<<"$breaches")
fi

# circles: tsort names the files of every loop it meets
if ! loops=$(sort -u "$edges" | tsort 2>&1 >/dev/null); then
  echo "Err: files that include each other round a circle:"
  echo "$loops" | grep -v 'input contains a loop' | sed 's/^tsort: /  /'
  failures=$((failures + 1))
fi

if ((failures > 0)); then
  echo "Err: $failures breach(es) of the include layers (tools/check_layers.sh)"
  exit 1
fi
echo "include layers: core < services < pages | views < top, no circles"
