#!/bin/bash
# check_page.sh PAGE: mandoc and groff report nothing about a manual page.
set -u
mandoc -T lint -W warning "$1" || exit 1
complaints=$(groff -ww -mdoc -z -Tutf8 "$1" 2>&1)
[ -z "$complaints" ] || { printf '%s\n' "$complaints"; exit 1; }
