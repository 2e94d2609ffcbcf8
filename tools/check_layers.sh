#!/usr/bin/env bash
# Checks which way the #include "..." lines of the program point, so that the layers stay
# readable:
#   core      vol/ dti/ fiber/ io/ ipc/ study/ (not study/gui/) cohort/ report/ tools/ and
#             the GTK-free drawing files of view/ (QUORIX_RENDER_SOURCES in CMakeLists.txt)
#   services  app/services/: the application state record, menu builder, dialogs, status
#             line, viewer sends and the notifications the layers above exchange
#   pages     study/gui/          views   view/ (its GTK parts)
#   top       app/: main window, start-up, loading and commands
# A file includes only files of its own layer or one below; pages and views know nothing
# of each other (they meet through the notifications of the services); no file includes
# GTK in the core; and no group of files includes itself round a circle (x.h and x.cpp
# count as one), inside a folder as much as across folders.
#
#   tools/check_layers.sh [ROOT]      exit status 0 when all holds, 1 with every breach listed
set -euo pipefail
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}
cd "$root"

# Known breaches still to be mended, one "FROM TO" include a line, each with its reason;
# an allowed include counts neither as upward nor as a step of a circle.
allowed=(
  # the runners declare the default control volume that the bounded one narrows
  "study/modeling_controls.cpp study/study_runner.h"
  # the eigen solver's inline bodies (included by tensor.cpp alone) work on its records
  "dti/eigen_solver.h dti/tensor.h"
  # the scanner reader hands back the directory reader's records
  "io/dicom_scanner.h io/dicom_directory.h"
)

render=" $(sed -n '/set(QUORIX_RENDER_SOURCES/,/)/p' CMakeLists.txt 2>/dev/null | grep -o 'view/[a-z_]*\.cpp' |
           sed 's/\.cpp$//' | tr '\n' ' ') "

# "rank group" of a file; empty for files outside the checked folders
layer_of() {
  local f=$1 module=${1%.*}
  if [[ $render == *" $module "* ]]; then echo "0 core"; return; fi
  case $f in
    study/gui/*) echo "2 pages" ;;
    vol/* | dti/* | fiber/* | io/* | ipc/* | study/* | cohort/* | report/* | tools/*) echo "0 core" ;;
    app/services/*) echo "1 services" ;;
    view/*) echo "2 views" ;;
    app/*) echo "3 top" ;;
    *) echo "" ;;
  esac
}

is_allowed() {
  local pair
  for pair in "${allowed[@]}"; do [[ $pair == "$1 $2" ]] && return 0; done
  return 1
}

failures=0
edges=$(mktemp)
trap 'rm -f "$edges"' EXIT
while IFS= read -r file; do
  read -r rank group <<<"$(layer_of "$file")"
  [[ -n ${rank:-} ]] || continue
  if [[ $group == core ]] && grep -qE '^[[:space:]]*#[[:space:]]*include[[:space:]]*<gtk/' "$file"; then
    echo "Err: $file: the core includes GTK"
    failures=$((failures + 1))
  fi
  while IFS= read -r target; do
    [[ -f $target ]] || continue
    read -r trank tgroup <<<"$(layer_of "$target")"
    [[ -n ${trank:-} ]] || continue
    is_allowed "$file" "$target" && continue
    [[ ${file%.*} != "${target%.*}" ]] && echo "${file%.*} ${target%.*}" >>"$edges"
    upward=0
    if ((trank > rank)); then upward=1; fi
    if ((trank == rank)) && [[ $tgroup != "$group" ]]; then upward=1; fi
    if ((upward)); then
      echo "Err: $file ($group) includes $target ($tgroup)"
      failures=$((failures + 1))
    fi
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(find app view study vol dti fiber io ipc cohort report tools -type f \( -name '*.h' -o -name '*.cpp' \) 2>/dev/null | sort)

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
