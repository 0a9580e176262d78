"""Checks that a document shows the file that a program writes.

usage: check_hex.py DOCUMENT PROGRAM

PROGRAM gets a directory and writes one file to it. The bytes of the fences marked "hex" in DOCUMENT,
what stands behind a "|" left out, have to be those of the file.
"""

import pathlib
import re
import subprocess
import sys
import tempfile


def shown_bytes(text):
    shown = bytearray()
    for fence in re.findall(r"^```hex\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        for line in fence.splitlines():
            shown += bytes.fromhex(line.split("|")[0])
    return bytes(shown)


def written_bytes(program):
    with tempfile.TemporaryDirectory() as directory:
        subprocess.run([program, directory + "/"], check=True, stdout=subprocess.DEVNULL)
        (file,) = pathlib.Path(directory).iterdir()
        return file.read_bytes()


shown = shown_bytes(pathlib.Path(sys.argv[1]).read_text())
written = written_bytes(sys.argv[2])
if not written:
    sys.exit("the program wrote nothing")
if shown != written:
    sys.exit(f"shown:   {shown.hex(' ')}\nwritten: {written.hex(' ')}")
print(f"{len(written)} bytes")
