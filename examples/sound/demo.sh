#!/usr/bin/env bash
# Shows the sound example at work on a real recording.
set -euo pipefail

usage()
{
    cat <<'END'
usage: demo.sh QUORVAL PLUGIN_DIR OUTPUT_DIR

Draws the graph loudness.toml, shows what is said of the mistakes in mistakes.toml, and runs the
graph on a recording that a Debian package brings. Where the broker mosquitto is installed, it also
runs two-machines.toml in two processes with the broker between them. QUORVAL is the command,
PLUGIN_DIR the directory of sound.so. What comes of it lies in OUTPUT_DIR. Run it twice to see that
the meters remember the highest peak.
END
}

fail()
{
    echo "demo.sh: $1" >&2
    exit 1
}

# The first recording that is there; the packages are alsa-utils and sound-theme-freedesktop.
find_recording()
{
    local file
    for file in /usr/share/sounds/alsa/Front_Center.wav /usr/share/sounds/alsa/*.wav \
        /usr/share/sounds/freedesktop/stereo/*.oga; do
        if [[ -r "$file" ]]; then
            echo "$file"
            return
        fi
    done
    fail "there is no recording: install the package alsa-utils or sound-theme-freedesktop"
}

# Runs one machine of two-machines.toml.
run_machine()
{
    "$quorval" run "${plugins[@]}" -v --machine "$@" "$here/two-machines.toml" "$directory/broker.toml"
}

# wait_for TEXT FILE: until the text stands in the file, for ten seconds at most.
wait_for()
{
    local attempt
    for ((attempt = 0; attempt < 100; ++attempt)); do
        if grep -qs "$1" "$2"; then
            return
        fi
        sleep 0.1
    done
    fail "'$1' does not appear in $2"
}

# The first machine may only begin when the broker keeps values for the second one.
run_two_machines()
{
    local port=$((20000 + RANDOM % 10000))
    "$1" -p "$port" >"$directory/broker.log" 2>&1 &
    broker=$!
    trap 'kill "$broker"' EXIT
    wait_for running "$directory/broker.log"
    printf 'format = 1\nlink.broker = "mqtt://localhost:%s"\n' "$port" >"$directory/broker.toml"
    run_machine archive --for 15s --set "sink.path=$directory/archive.flac" \
        2>"$directory/archive.log" &
    local archive=$!
    wait_for stands "$directory/archive.log"
    run_machine studio --set "source.path=$recording" 2>"$directory/studio.log"
    wait "$archive" || fail "the archive failed: see $directory/archive.log"
    "$quorval" run "${plugins[@]}" --local --set "source.path=$recording" \
        --set "sink.path=$directory/local.flac" "$here/two-machines.toml" >/dev/null
    cmp "$directory/archive.flac" "$directory/local.flac" ||
        fail "two machines wrote another recording than one"
    echo "Two machines wrote the same recording as one: $directory/archive.flac"
}

if [[ "${1:-}" == "-h" || "${1:-}" == "--help" ]]; then
    usage
    exit 0
fi
if [[ $# -ne 3 ]]; then
    usage >&2
    exit 2
fi

quorval=$1
plugins=(--plugin-path "$2")
recording=$(find_recording)
mkdir -p "$3"
directory=$(cd "$3" && pwd)
here=$(dirname "${BASH_SOURCE[0]}")

echo "== The graph, as quorval graph draws it for Mermaid:"
echo
"$quorval" graph "${plugins[@]}" --format mermaid "$here/loudness.toml"
echo
echo "== A graph with three mistakes, and what quorval check says:"
echo
status=0
"$quorval" check "${plugins[@]}" "$here/mistakes.toml" 2>&1 || status=$?
[[ $status -eq 3 ]] || fail "quorval check ended with the status $status"
echo
echo "== The graph runs on $recording:"
echo
"$quorval" run "${plugins[@]}" --state "$directory/levels" \
    --set "source.path=$recording" --set "sink.path=$directory/out.flac" "$here/loudness.toml"
if mosquitto=$(PATH="$PATH:/usr/sbin" command -v mosquitto); then
    echo
    echo "== The graph two-machines.toml runs in two processes, with a broker between them:"
    echo
    run_two_machines "$mosquitto"
fi
echo
echo "== Done. The output lies in $directory/out.flac"
