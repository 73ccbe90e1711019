"""Holds libpegeir.so against its headers: it defines what they declare and nothing else, and asks the
system for the platform's operations, memory and string functions of the C library, and nothing else."""

import glob
import re
import subprocess
import sys

nm, readelf, library, root = sys.argv[1:]


def lines(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines()


def declared(marker, *patterns):
    names = set()
    for path in (p for pattern in patterns for p in glob.glob(f"{root}/{pattern}")):
        code = re.sub(r"^#.*$", "", open(path).read(), flags=re.MULTILINE)
        for statement in code.split(";"):
            if marker in statement:
                found = re.search(r"(\w+)\s*(?:\(|\[)", statement.rsplit(marker, 1)[1])
                names.add(found.group(1))
    return names


def symbols(kind):
    return {line.split()[-1].split("@")[0] for line in lines(nm, "-D", kind, library)}


LIBC = {"memcpy", "memmove", "memset", "memcmp", "strlen", "strcmp"}
COMPILER = {"__stack_chk_fail", "__stack_chk_guard"}

interface = declared("ND_LIB_API", "include/pegeir/pegeir.h", "src/*/*.h")
platform = declared("PEGEIR_PLATFORM_API", "platform/include/pegeir/platform.h")
defined = symbols("--defined-only") - {"PEGEIR_1"}
undefined = symbols("--undefined-only")
needed = [line for line in lines(readelf, "-d", library) if "NEEDED" in line and not re.search(r"\[(libc\.so|ld-linux)", line)]

problems = [f"declared, but not exported: {name}" for name in sorted(interface - defined)]
problems += [f"exported, but not declared: {name}" for name in sorted(defined - interface)]
problems += [f"needs {name}, which is neither the platform's nor libc's" for name in
             sorted(undefined - platform - LIBC - COMPILER)]
problems += [f"the platform declares {name}, which nothing uses" for name in sorted(platform - undefined)]
weak = {line.split()[-1] for line in lines(nm, "-D", "--undefined-only", library) if line.split()[-2] == "w"}
if weak != {"DMS_MsgDataLenGet"}:
    problems.append(f"a platform may leave out {', '.join(sorted(weak)) or 'nothing'}, not DMS_MsgDataLenGet alone")
problems += [f"a call of its own may end elsewhere: {line.split()[4]}" for line in lines(readelf, "-rW", library)
             if re.search(r"JUMP_SLO.*\bND_LIB_", line)]
problems += needed
print("\n".join(problems) or f"{len(defined)} exported, {len(undefined & platform)} imported")
sys.exit(1 if problems or len(interface) < 100 else 0)
