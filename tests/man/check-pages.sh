#!/bin/sh
# SPDX-License-Identifier: MIT
# check-pages.sh PAGE...
# Formats each page with every groff warning on (any output on standard
# error fails the page) and asks lexgrog for its whatis entry, which a
# malformed NAME section does not yield. Exit 77 (skipped) without the tools.
for tool in groff lexgrog; do
  if ! command -v "$tool" >/dev/null 2>&1; then
    echo "check-pages: $tool is not installed; skipped"
    exit 77
  fi
done
failed=0
for page in "$@"; do
  warnings=$(LC_ALL=C.UTF-8 groff -ww -man -Tutf8 -z "$page" 2>&1 >/dev/null)
  if [ -n "$warnings" ]; then
    printf '%s: groff:\n%s\n' "$page" "$warnings"
    failed=$((failed + 1))
  fi
  whatis=$(lexgrog "$page" 2>&1)
  case $? in
    0) case $whatis in *' - '*) ;; *) echo "$page: no whatis entry: $whatis"; failed=$((failed + 1)) ;; esac ;;
    *) echo "$page: lexgrog: $whatis"; failed=$((failed + 1)) ;;
  esac
done
echo "check-pages: $# pages, $failed failures"
[ "$failed" -eq 0 ]
