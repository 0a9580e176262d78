#!/usr/bin/env bash
# Shows the sound example at work on a real recording.
set -euo pipefail

usage()
{
    cat <<'END'
usage: demo.sh QUORVAL PLUGIN_DIR OUTPUT_DIR

Draws the graph loudness.toml, shows what is said of the mistakes in mistakes.toml, and runs the
graph on a recording that a Debian package brings. QUORVAL is the command, PLUGIN_DIR the directory
of sound.so. What comes of it lies in OUTPUT_DIR. Run it twice to see that the meters remember the
highest peak.
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
echo
echo "== Done. The output lies in $directory/out.flac"
