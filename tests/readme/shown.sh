#!/bin/bash
# shown.sh EXPECTED OUTPUT: the output has every line that README shows, in this order; a line
# "[...]" means any number of lines. Parts that differ from run to run are ignored: life times, the
# state "tentative", the width of columns.
set -u
plain() {
    sed -E 's/\x1b\[[0-9;]*m//g; s/\btentative\b//g; s/\b(valid|preferred) [0-9a-z]+/\1 TIME/g; s/[[:space:]]+/ /g; s/ $//' "$1"
}
awk 'NR == FNR { wanted[++count] = $0; next }
     { lines[++total] = $0 }
     END {
         at = 1
         for (i = 1; i <= count; i++) {
             if (wanted[i] == "[...]") { anywhere = 1; continue }
             start = at
             while (anywhere && at <= total && lines[at] != wanted[i]) at++
             if (at > total || lines[at] != wanted[i]) {
                 print "README shows: " wanted[i]
                 print "what came:    " (start <= total ? lines[start] : "nothing more")
                 exit 1
             }
             at++
             anywhere = 0
         }
     }' <(plain "$1") <(plain "$2")
