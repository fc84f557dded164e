#!/bin/sh
# Runs every fuzz target of a fuzz build (see `make fuzz`) over its seeds and a working corpus
# of its own, either for a time or for a number of inputs:
#
#   scripts/run-fuzzers.sh BUILD_DIR time SECONDS   # each target for SECONDS
#   scripts/run-fuzzers.sh BUILD_DIR runs N         # each target for N inputs (CI)
#
# FUZZ_TARGETS, when set, names the targets to run (space-separated, e.g. "fuzz_base64
# fuzz_uuid"); otherwise all of them run.
#
# The working corpora (BUILD_DIR/fuzz-corpus/<target>) grow from run to run; a crash leaves
# its input as BUILD_DIR/fuzz-artifacts/<target>/crash-... and fails the script. Each target
# prints its figures (executions, coverage) on its last lines.
set -eu
build=$1 mode=$2 amount=$3
here=$(cd "$(dirname "$0")/.." && pwd)
fuzz=$here/tests/fuzz
case $mode in
    time) limit="-max_total_time=$amount" ;;
    runs) limit="-runs=$amount" ;;
    *) echo "mode must be time or runs" >&2; exit 2 ;;
esac
status=0
for target in "$build"/tests/fuzz/fuzz_*; do
    [ -x "$target" ] || continue
    name=$(basename "$target")
    case " ${FUZZ_TARGETS:-$name} " in
        *" $name "*) ;;
        *) continue ;;
    esac
    corpus=$build/fuzz-corpus/$name
    artifacts=$build/fuzz-artifacts/$name/
    mkdir -p "$corpus" "$artifacts"
    # A dictionary of the target's own, else the JSON one for the targets that read JSON.
    dict=
    if [ -f "$fuzz/dict/$name.dict" ]; then
        dict="-dict=$fuzz/dict/$name.dict"
    else
        case $name in
            fuzz_jwt_verify | fuzz_service_models | fuzz_platform_config | fuzz_poll_reply)
                dict="-dict=$fuzz/dict/json.dict" ;;
        esac
    fi
    echo "== $name ($mode $amount)"
    if "$target" $limit $dict -artifact_prefix="$artifacts" -print_final_stats=1 \
        "$corpus" "$fuzz/corpus/$name" > "$build/fuzz-$name.log" 2>&1; then
        grep -E "^stat::number_of_executed_units|^stat::peak_rss_mb|^#[0-9]+.*DONE" \
            "$build/fuzz-$name.log" | sed 's/^/   /'
    else
        echo "   FAILED: see $build/fuzz-$name.log and $artifacts"
        tail -40 "$build/fuzz-$name.log"
        status=1
    fi
done
exit $status
