"""Prints the sizes of the library in a build as tables: footprint.py BUILD TOOL_PREFIX

Exit status 1 when the whole is above its limits."""

import pathlib
import re
import subprocess
import sys

KINDS = ["text", "rodata", "relocated constants", "data", "bss"]
READ_ONLY_LIMIT = 40 * 1024


def kind(section):
    if re.match(r"\.(text|init|fini|plt)", section) and not section.endswith("_array"):
        return "text"
    if re.match(r"\.(rodata|ARM\.ex|eh_frame)", section):
        return "rodata"
    if section.startswith(".data.rel.ro"):
        return "relocated constants"
    return {".data": "data", ".bss": "bss"}.get(section)


def sizes(*files):
    output = subprocess.run([prefix + "size", "-A", *map(str, files)], check=True, capture_output=True, text=True)
    sums, others = dict.fromkeys(KINDS, 0), {}
    for line in output.stdout.splitlines():
        if match := re.match(r"(\.\S+) +(\d+) +(\d+)", line):
            section, size, address = match[1], int(match[2]), int(match[3])
            if kind(section):
                sums[kind(section)] += size
            elif address:
                others[section] = size
    return sums, others


build, prefix = pathlib.Path(sys.argv[1]), sys.argv[2]
objects = build / "src/CMakeFiles/pegeir_objects.dir"
library = build / "libpegeir.stripped.so"
subprocess.run([prefix + "strip", "-o", library, build / "lib/libpegeir.so"], check=True)
dynamic = subprocess.run([prefix + "readelf", "-dW", library], check=True, capture_output=True, text=True).stdout

print("| module | " + " | ".join(KINDS) + " |\n|---|" + "---:|" * len(KINDS))
for folder in sorted(path for path in objects.iterdir() if path.is_dir()):
    row = sizes(*folder.glob("*.o"))[0]
    print(f"| src/{folder.name} | " + " | ".join(str(row[k]) for k in KINDS) + " |")
whole, others = sizes(library)
print("| libpegeir.so, stripped | " + " | ".join(str(whole[k]) for k in KINDS) + " |")

linking = sum(others.get(s, 0) for s in others if s not in (".got", ".dynamic"))
readOnly = whole["text"] + whole["rodata"]
print(f"\nBesides, for the dynamic linker: {linking} bytes of symbols and relocations, read only, and "
      f"{others.get('.got', 0) + others.get('.dynamic', 0)} bytes\nof addresses, read only once it has filled them in. "
      f"The file has {library.stat().st_size} bytes.")
print("Needed: " + ", ".join(re.findall(r"NEEDED.*\[(.*)\]", dynamic)) + ", and the platform's functions.")
limits = [("text and rodata", readOnly, READ_ONLY_LIMIT), ("text, rodata, symbols and relocations", readOnly + linking,
          READ_ONLY_LIMIT), ("data", whole["data"], 0), ("bss", whole["bss"], 0)]
print("\n| limit | bytes | at most |\n|---|---:|---:|")
for what, size, limit in limits:
    print(f"| {what} | {size} | {limit}{' EXCEEDED' if size > limit else ''} |")
sys.exit(any(size > limit for _, size, limit in limits))
