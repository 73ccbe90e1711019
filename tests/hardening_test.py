"""Reads off built libraries and programs whether they are hardened: hardening_test.py READELF FILE...

Full RELRO, binding at load, no executable stack, no text relocation, programs at any address, the stack
protector in use, and no call of a text function that fortifying would have replaced."""

import re
import subprocess
import sys

PRINTF = {"printf", "fprintf", "vprintf", "vfprintf"}  # replaced wherever they are called


def lacks(readelf, path):
    def read(*options):
        return subprocess.run([readelf, "-W", *options, path], check=True, capture_output=True, text=True).stdout

    kind, segments, dynamic = read("-h"), read("-l"), read("-d")
    imports = {match[1] for match in re.finditer(r" UND (\w+)", read("--dyn-syms"))}
    needed = {
        "a GNU_RELRO segment": "GNU_RELRO" in segments,
        "binding at load": re.search(r"\(FLAGS_1\).*\bNOW\b", dynamic),
        "a stack that is not executable": re.search(r"GNU_STACK.* RW +0x", segments),
        "a text without relocations": "TEXTREL" not in dynamic,
        "a position of its own": re.search(r"Type: +DYN", kind)
                                 and (not re.search(r"\bINTERP\b", segments) or re.search(r"FLAGS_1.*\bPIE\b", dynamic)),
        "the stack protector": "__stack_chk_fail" in imports,
        f"fortified {', '.join(sorted(imports & PRINTF))}": not imports & PRINTF,
    }
    return [f"{path}: lacks {what}" for what, there in needed.items() if not there]


readelf, *files = sys.argv[1:]
sys.exit("\n".join(problem for path in files for problem in lacks(readelf, path)) or 0 if files else "no files")
