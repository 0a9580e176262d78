"""Checks that no layer includes a header of a layer that it may not use.

usage: check_includes.py ROOT

The layers are those of docs/design.md. A layer may include headers that another one may not even
know; what a rule forbids is named by a pattern that is matched with the included name.
"""

import pathlib
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s*[<"]([^>"]+)[>"]', re.MULTILINE)

RUNTIME = r"quorval/runtime/"
KIT = r"quorval/(settings|codec|state)\.h"
LIBRARIES_OF_RUNTIME = r"systemd/|toml\+\+/|sqlite3\.h|mosquitto\.h|mqtt_protocol\.h|openssl/"
LIBRARIES_OF_COMMAND = r"CLI/|nlohmann/"
PLUGINS = r"(\.\./)*plugins/"

# The files of a layer, and what they may not include.
LAYERS = {
    "core": (["include/quorval/*.h", "src/core/**/*"],
             [RUNTIME, KIT, LIBRARIES_OF_RUNTIME, LIBRARIES_OF_COMMAND, PLUGINS]),
    "kit": (["include/quorval/settings.h", "include/quorval/codec.h", "include/quorval/state.h"],
            [RUNTIME, LIBRARIES_OF_RUNTIME, LIBRARIES_OF_COMMAND, PLUGINS]),
    "runtime": (["include/quorval/runtime/*.h", "src/runtime/**/*"],
                # It has a folder `plugins` of its own.
                [LIBRARIES_OF_COMMAND, r"(\.\./)+plugins/"]),
    # No header of the runtime's own: those are named by their folder, without "quorval/".
    "command": (["src/command/**/*"],
                [LIBRARIES_OF_RUNTIME, PLUGINS, r"(?!quorval/|CLI/|nlohmann/|sys/|[a-z0-9_]+(\.h)?$)"]),
    "plug-ins": (["plugins/**/*"], [LIBRARIES_OF_COMMAND, r"quorval/runtime/(?!tools\.h)"]),
}


def find_files(root, layer):
    patterns, _ = LAYERS[layer]
    files = {path for pattern in patterns for path in root.glob(pattern)
             if path.suffix in {".h", ".cpp"}}
    if layer == "core":
        files -= set(find_files(root, "kit"))
    return sorted(files)


def check(root):
    """What is wrong, as a list of texts, and the number of files by layer."""
    mistakes = []
    counts = {}
    for layer, (_, forbidden) in LAYERS.items():
        files = find_files(root, layer)
        counts[layer] = len(files)
        for path in files:
            mistakes += [f"{path.relative_to(root)}: the {layer} may not include {name}"
                         for name in INCLUDE.findall(path.read_text())
                         if any(re.match(pattern, name) for pattern in forbidden)]
    return mistakes, counts


if __name__ == "__main__":
    found, numbers = check(pathlib.Path(sys.argv[1]))
    for needed in ("core", "runtime", "command"):
        if numbers[needed] == 0:
            found.append(f"there are no files of the {needed}")
    print(", ".join(f"{layer}: {count} files" for layer, count in numbers.items()))
    if found:
        sys.exit("\n".join(found))
