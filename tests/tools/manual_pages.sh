#!/bin/bash
# Formats every page for narrow and wide terminals and fails on any warning. Usage: manual_pages.sh MAN DIRECTORY
set -u
man=$1
pages=("$2"/v9_rtmp_ctl.1 "$2"/v9_rtmp_control.7 "$2"/v9_rtmp_server.8)
failed=0
for page in "${pages[@]}"; do
    for width in 60 80 120; do
        warnings=$(LC_ALL=C.UTF-8 MANWIDTH=$width "$man" --warnings -l "$page" 2>&1 >/dev/null) || failed=1
        if [[ -n $warnings ]]; then
            echo "$page in $width columns: $warnings"
            failed=1
        fi
    done
    lines=$(LC_ALL=C.UTF-8 MANWIDTH=80 "$man" -l "$page" 2>/dev/null | wc -l)
    if ((lines < 40)); then
        echo "$page: only $lines lines come out"
        failed=1
    fi
done
exit $failed
