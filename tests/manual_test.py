"""Holds the manual pages against what they describe.

manual_test.py options PAGE PROGRAM   the page has every option that PROGRAM --help has, and no other
manual_test.py calls PAGE HEADER      the page has every operation that HEADER declares, and no other
"""

import pathlib
import re
import subprocess
import sys


def options(page, program):
    result = subprocess.run([program, "--help"], capture_output=True, text=True, check=True)
    shown = set(re.findall(r"(?<![\w-])--?[a-z][\w-]*", result.stdout))
    items = re.findall(r"^\.It Fl (.*)$", page, re.MULTILINE)
    return shown, {"-" + part.split()[0] for item in items for part in item.split(" , ")}


def calls(page, header):
    declared = re.findall(r"^ND_LIB_API\b[^;(]*?(\w+)\(", pathlib.Path(header).read_text(), re.MULTILINE)
    names = {name for name in re.findall(r"^\.Nm (ND_LIB_\w+)", page, re.MULTILINE)}
    return set(declared), names & set(re.findall(r'^\.Fn (\w+) "', page, re.MULTILINE))


kind, path, subject = sys.argv[1:]
there, described = globals()[kind](pathlib.Path(path).read_text(), subject)
problems = [f"{path}: nothing about {name}" for name in sorted(there - described)]
problems += [f"{path}: {name}, which {subject} has not" for name in sorted(described - there)]
sys.exit("\n".join(problems) or (0 if len(there) > 5 else f"{subject}: found {len(there)} {kind}"))
