#!/bin/bash
# Runs the filenotify command under valgrind through a scripted session and
# fails on any memory error or definite/indirect leak:
#   watch -r   folders made, files renamed, folders moved and deleted
#   watch -p   a file written, read and deleted, with the acting process
#   guard      an allowed and a denied read
# Each run is stopped by SIGINT, as a user would stop it.
#   tests/memcheck.sh [path of filenotify]
set -u

bin=${1:-build/bin/filenotify}
work=$(mktemp -d /tmp/fn_memcheck.XXXXXX) || exit 1
trap 'rm -rf "$work"' EXIT
vg=(valgrind --quiet --error-exitcode=99 --leak-check=full --show-leak-kinds=definite,indirect
    --errors-for-leak-kinds=definite,indirect)
failed=0

# Waits (bounded) until file holds a line matching pattern.
await() {
    for _ in $(seq 1 600); do
        grep -qs -- "$2" "$1" && return 0  # the file may not exist yet
        sleep 0.1
    done
    echo "memcheck: no \"$2\" in $1"
    failed=1
    return 1
}

# name, workload function, then the command's arguments.
run() {
    local name=$1 workload=$2
    shift 2
    local started=$SECONDS
    "${vg[@]}" "$bin" "$@" > "$work/$name.out" 2> "$work/$name.err" &
    local pid=$!
    if ! await "$work/$name.err" "watching"; then
        cat "$work/$name.err"
        kill -KILL $pid; wait $pid; failed=1; return
    fi
    $workload
    kill -INT $pid
    wait $pid
    local status=$?
    local lines
    lines=$(wc -l < "$work/$name.out")
    if [ $status -ne 0 ]; then
        echo "memcheck $name: FAILED (exit $status)"; cat "$work/$name.err"; failed=1
    else
        echo "memcheck $name: clean, $lines lines, $((SECONDS - started)) s"
    fi
}

tree() {
    mkdir -p "$work/t/a/b" && touch "$work/t/a/b/f"
    mv "$work/t/a/b/f" "$work/t/a/g" && mv "$work/t/a" "$work/t/c"
    rm -rf "$work/t/c" && mkdir "$work/t/d" && rmdir "$work/t/d"
    touch "$work/t/done" && await "$work/watch-r.out" "CREATE $work/t/done"
}

process() {
    echo x > "$work/p/f" && cat "$work/p/f" > /dev/null && rm "$work/p/f"
    await "$work/watch-p.out" "DELETE $work/p/f"
}

guarded() {
    cat "$work/g/ok.txt" > /dev/null || { echo "memcheck guard: ok.txt was not allowed"; failed=1; }
    if cat "$work/g/s.key" > /dev/null 2>&1; then
        echo "memcheck guard: s.key was not denied"; failed=1
    fi
    await "$work/guard.out" "s.key.*verdict=deny"
}

mkdir -p "$work/t" "$work/p" "$work/g"
echo ok > "$work/g/ok.txt"
echo key > "$work/g/s.key"
run watch-r tree watch -r "$work/t"
run watch-p process watch -p "$work/p"
run guard guarded guard --deny '*.key' "$work/g"
exit $failed
