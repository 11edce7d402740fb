#!/bin/bash
# extract.sh README DIRECTORY: writes README's blocks to files. NN.sh has a block of commands,
# NN.text the part of their output that README shows, NN.reason why they are not run ("<!-- not run:
# WHY -->" on the line above the block).
set -u
awk -v out="$2" '
    function fail(what) { print FILENAME ":" FNR ": " what >"/dev/stderr"; failed = 1; exit 1 }
    /^```/ && inside { inside = 0; close(file); next }
    inside { print >file; next }
    /^<!-- not run: .+ -->$/ {
        reason = $0
        sub(/^<!-- not run: /, "", reason)
        sub(/ -->$/, "", reason)
        next
    }
    /^```sh$/ {
        block = sprintf("%s/%02d", out, ++count)
        file = block ".sh"
        if (reason != "") print reason >(block ".reason")
        answered = 0
    }
    /^```text$/ {
        if (count == 0 || answered++) fail("output without commands before it")
        file = block ".text"
    }
    /^```/ {
        if ($0 !~ /^```(sh|text)$/) fail("a block is neither sh nor text")
        if (reason != "" && $0 == "```text") fail("a reason that belongs to no commands")
        inside = 1
        reason = ""
        printf "" >file
        next
    }
    /^(    |\t)/ { fail("an indented block: nothing would run it") }
    /./ && reason != "" { fail("the reason above belongs to no block") }
    END {
        if (!failed && inside) { print FILENAME ": the last block has no end" >"/dev/stderr"; failed = 1 }
        exit failed
    }' "$1"
