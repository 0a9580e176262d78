"""Tests that the library has its static probes.

usage: probes_test.py READELF LIBRARY
"""

import re
import subprocess
import sys

PROBES = {"run_begin": 1, "run_end": 2, "wave_begin": 0, "wave_end": 0}

text = subprocess.run([sys.argv[1], "--notes", sys.argv[2]], check=True, text=True,
                      stdout=subprocess.PIPE).stdout
found = {}
for name, arguments in re.findall(r"Provider: quorval\n\s+Name: (\w+)\n.*\n\s+Arguments:(.*)", text):
    found.setdefault(name, set()).add(len(arguments.split()))
if found != {name: {count} for name, count in PROBES.items()}:
    sys.exit(f"the probes are {found}, and have to be {PROBES}")
