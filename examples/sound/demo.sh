#!/usr/bin/env bash
# Runs the sound example on a real recording and shows what it does.
set -euo pipefail

usage()
{
    cat <<'END'
Usage: demo.sh BUILD_DIR

Runs quorval-sound from BUILD_DIR, of the whole project or of the example alone, on a recording that
a Debian package brings, and prints the configuration, the blocks and connections read back, the
levels before and after, and where the output lies: in BUILD_DIR/demo. Run it twice to see that the
meters remember the highest peak.
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
if [[ $# -ne 1 ]]; then
    usage >&2
    exit 2
fi

host="$1/quorval-sound"
if [[ ! -x "$host" ]]; then
    host="$1/examples/sound/quorval-sound"
fi
[[ -x "$host" ]] || fail "$host is missing: build it first"
recording="$(find_recording)"
mkdir -p "$1/demo"
directory="$(cd "$1/demo" && pwd)"
output="$directory/output.flac"

echo "== A recording goes through a gain and a low-pass filter. The gain starts as 0.5; a line on"
echo "== standard input changes it to 0.25."
echo "Input:  $recording"
echo "Output: $output"
echo
"$host" --verbose --gain 0.5 --taps 0.25,0.5,0.25 --block-size 1024 --store "$directory/levels" \
    "$recording" "$output" <<<"gain.factor 0.25"
echo
echo "== Done. The output lies in $output"
