#!/bin/bash
# What bash offers after some words. Usage: completion_test.sh COMPLETION PROGRAMS-FOLDER
set -eu
. "$1"
PATH=$2:$PATH
cd "$(mktemp -d)"
touch some.cache
bad=0
# offers EXPECTED WORD...: the last word is the one that is completed.
offers() {
    local expected=$1
    shift
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    COMPREPLY=()
    _kspool
    [ "${COMPREPLY[*]}" = "$expected" ] && return
    echo "after '$*': '${COMPREPLY[*]}' in place of '$expected'"
    bad=1
}
offers "scan record verify images find expire" kspool-agent ""
offers "stat shape shrink" kspool-cache "s"
offers "--image" kspool-agent record --im
offers "some.cache" kspool-cache stat ""
offers "some.cache" kspool-agent record --cache so
offers "import" kspool-mb po i
offers "--name --newsegments" kspool-mb --json po find --n
offers "serve" kspool-sandbox se
exit $bad
