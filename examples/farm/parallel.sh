#!/bin/sh
# A plan's tasks on a few machines, by GNU parallel over ssh. All of them have the plan's directory under the same
# name, and gsve.
#
#     examples/farm/parallel.sh film.plan.json host1,host2,host3
#
# Run again after a failure, it does what has failed or is missing: parallel keeps a log of what is done.
set -eu

if [ $# != 2 ]; then
    echo "usage: parallel.sh PLAN HOST,HOST,..." >&2
    exit 2
fi
plan=$(realpath -- "$1")
hosts=$2
work=${plan%.json}
mkdir -p -- "$work"

last=$(($(jq '.chunks | length' "$plan") - 1))
tasks=$(seq 0 "$last")
if [ "$(jq '.sound' "$plan")" = true ]; then tasks="$tasks
sound"; fi

# The quoting below is sh's, whatever the user's shell is, and where none is named.
export PARALLEL_SHELL=/bin/sh
# parallel quotes what stands for {}, and -q the rest, for each shell on the way.
printf '%s\n' "$tasks" |
    parallel -q --sshlogin "$hosts" --jobs 1 --retries 3 --joblog "$work/parallel.log" --resume-failed \
        gsve chunk -q "$plan" {}
gsve join -q "$plan"
