#!/usr/bin/env bash
# Keeps what the examples and the tool say about listener threads in line with the headers.
# MailboxListener.h and docs/threads.md say that listeners run on the API object's delivery
# threads, never on the HTTP library's pool, and that they may block. A listener class in
# examples/ or cli/ must say the same in the comment above it, and no comment there that talks
# about listeners may put them on the pool or forbid them to block.
#
#   check-listener-comments.sh SOURCE_DIR
set -euo pipefail
source=$1
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# The headers' wording, which the checks below hold the examples to. When it changes, read every
# listener comment in examples/ and cli/ again and bring this script up to date with it.
header=$source/api/Tolva/Tolva/TolvaCore/MailboxListener.h
grep -q "one of that object's delivery threads (never" "$header" ||
    fail "$header no longer says that listeners run on the object's delivery threads"
grep -q "a thread of the HTTP library's pool)" "$header" ||
    fail "$header no longer says that listeners never run on the HTTP library's pool"
grep -q "A listener that blocks delays only its own" "$header" ||
    fail "$header no longer says that a blocking listener delays only its own mailbox"
grep -q '^| "QXP delivery".*the mailbox.s listeners' "$source/docs/threads.md" ||
    fail "docs/threads.md no longer runs the listeners on \"QXP delivery\""

# A comment about listeners never puts them on a pool and never forbids them to block.
checkWording() {
    local lower=${2,,}
    if [[ "$lower" == *pool* && ! "$lower" =~ (never|not)[^.\;:]*pool ]]; then
        fail "$1: a listener comment puts listeners on a pool: $2"
    fi
    if [[ "$lower" == *"never block"* || "$lower" == *"not block"* ]]; then
        fail "$1: a listener comment forbids blocking, which listeners may do: $2"
    fi
}

sources=()
while IFS= read -r -d '' file; do
    sources+=("$file")
done < <(find "$source/examples" "$source/cli" -name '*.cpp' -print0 -o -name '*.h' -print0)
[ "${#sources[@]}" -gt 0 ] || fail "no sources found under $source/examples and $source/cli"

listeners=0
for file in "${sources[@]}"; do
    name=${file#"$source"/}
    # The comment block right above each class that implements MailboxListener.
    while IFS= read -r comment; do
        listeners=$((listeners + 1))
        [[ "$comment" == *"delivery thread"* ]] ||
            fail "$name: the comment above a listener class does not say it runs on a delivery thread: \"$comment\""
        checkWording "$name" "$comment"
    done < <(awk '
        /^[[:space:]]*\/\// { block = block " " $0; next }
        /class [A-Za-z_]+[^;]*:[^;]*MailboxListener/ { print block }
        { block = "" }' "$file")

    # Every other comment line that talks about listeners.
    while IFS= read -r line; do
        checkWording "$name" "$line"
    done < <(grep -n -i -E '^\s*//.*listen' "$file" || true)
done
[ "$listeners" -gt 0 ] || fail "no listener class found: the check looks in the wrong place"

if [ "$failures" -ne 0 ]; then
    exit 1
fi
echo "ok: $listeners listener classes in examples/ and cli/ say where they run, as the headers do"
