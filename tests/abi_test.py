"""Compares the binary interface of a library with the recorded one: abi_test.py ABIDIFF RECORD LIBRARY

A removed or changed operation, table or record breaks programs that were built before; an added one does
not, but belongs into the record."""

import subprocess
import sys

ERROR, CHANGE, INCOMPATIBLE = 1, 4, 8  # abidiff's exit status is a sum of these, and 2 with ERROR

result = subprocess.run([*sys.argv[1:2], "--no-show-locs", *sys.argv[2:]], capture_output=True, text=True)
print(result.stdout + result.stderr)
if result.returncode & (CHANGE | INCOMPATIBLE):
    print(f"The binary interface is not that of {sys.argv[2]}.\n"
          "If anything but additions is listed, programs built before would break: raise the version of the\n"
          "library.  If it is meant so, record it with scripts/abi --update.")
sys.exit(result.returncode != 0)
