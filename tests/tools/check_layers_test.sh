#!/usr/bin/env bash
# tools/check_layers.sh on small trees made here: a clean one passes; an upward include, a
# page including a view, GTK in the core and two files including each other each fail
# with the breach named.
set -uo pipefail
check=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# a tree of one file per layer, every include pointing down
clean_tree() {
  rm -rf "$work/t" && mkdir -p "$work/t"/{vol,app/services,study/gui,view}
  cd "$work/t"
  printf 'set(QUORIX_RENDER_SOURCES view/slice_pane.cpp)\n' >CMakeLists.txt
  printf '#pragma once\n' >vol/raw_volume.h
  printf '#include "vol/raw_volume.h"\n' >view/slice_pane.cpp
  printf '#pragma once\n#include "vol/raw_volume.h"\n' >app/services/app_state.h
  printf '#include "app/services/app_state.h"\n#include "view/slice_pane.h"\n' >study/gui/page.cpp
  printf '#pragma once\n' >view/slice_pane.h
  printf '#include "app/services/app_state.h"\n' >view/views_window.cpp
  printf '#include "study/gui/page.h"\n#include "view/views_window.h"\n' >app/main_window.cpp
  printf '#pragma once\n' >study/gui/page.h
  printf '#pragma once\n' >view/views_window.h
}

expect() {  # expect PASS|FAIL TEXT DESCRIPTION
  local out status
  out=$("$check" "$work/t" 2>&1)
  status=$?
  if [[ $1 == PASS && $status -ne 0 ]] || [[ $1 == FAIL && $status -eq 0 ]] || [[ $out != *"$2"* ]]; then
    echo "FAILED: $3 (status $status)"
    echo "$out"
    failures=$((failures + 1))
  fi
}

clean_tree
expect PASS "no circles" "a tree whose includes all point down"

clean_tree
printf '#include "app/main_window.h"\n' >>view/views_window.cpp
printf '#pragma once\n' >app/main_window.h
expect FAIL "view/views_window.cpp (views) includes app/main_window.h (top)" "a view including the top layer"

clean_tree
printf '#include "view/views_window.h"\n' >>study/gui/page.cpp
expect FAIL "study/gui/page.cpp (pages) includes view/views_window.h (views)" "a page including a view"

clean_tree
printf '#include "study/gui/page.h"\n' >>app/services/app_state.h
expect FAIL "app/services/app_state.h (services) includes study/gui/page.h (pages)" "a service including a page"

clean_tree
printf '#include "app/services/app_state.h"\n' >>view/slice_pane.cpp
expect FAIL "view/slice_pane.cpp (core) includes app/services/app_state.h (services)" "a drawing file including a service"

clean_tree
printf '#include <gtk/gtk.h>\n' >>vol/raw_volume.h
expect FAIL "vol/raw_volume.h: the core includes GTK" "GTK in the core"

clean_tree
printf '#pragma once\n' >app/loading.h
printf '#pragma once\n' >app/object_commands.h
printf '#include "app/object_commands.h"\n' >app/loading.cpp
printf '#include "app/loading.h"\n' >app/object_commands.cpp
expect FAIL "app/loading" "two files of one folder including each other"

exit $((failures > 0))
