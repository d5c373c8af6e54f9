#pragma once

// What a cluster's node runs. The texts are always the same: whatever a plan or a user names comes as an
// argument, and is never read by the shell.

#include <string_view>

namespace gsve::cli {

/// With which a log says when and where an attempt begins: seconds since 1970, and the node.
inline constexpr std::string_view kBeginLine = "gsve farm: begins ";

/// PROGRAM LOGS FIRST ARGUMENT...: the program with its arguments and, last, the number of the task, or the
/// word that FIRST is. LOGS: a directory whose logs Slurm cannot write; else empty.
inline constexpr std::string_view kTaskScript = R"(#!/bin/sh
program=$1 logs=$2 task=$3
shift 3
if [ -n "$SLURM_ARRAY_TASK_ID" ]; then
    task=$((task + SLURM_ARRAY_TASK_ID))
    number=$(printf %05d "$task")
fi
if [ -n "$logs" ]; then exec >>"$logs/log-${number:-$task}.txt" 2>&1; fi
echo "gsve farm: begins $(date +%s) on $SLURMD_NODENAME"
exec "$program" "$@" "$task"
)";

/// PROGRAM LOGS ARGUMENT...: the same without a task. That it is done is left in a file of its own. A first
/// attempt may have made the output before its node went down.
inline constexpr std::string_view kJoinScript = R"(#!/bin/sh
program=$1 logs=$2
shift 2
if [ -n "$logs" ]; then exec >>"$logs/log-join.txt" 2>&1; fi
if [ "${SLURM_RESTART_COUNT:-0}" -gt 0 ]; then set -- "$@" --overwrite; fi
echo "gsve farm: begins $(date +%s) on $SLURMD_NODENAME"
"$program" "$@" && : >joined
)";

}  // namespace gsve::cli
