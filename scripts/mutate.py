"""Do the tests bite?  Puts small faults into src/, one at a time, and runs the fast tests against each.

A fault is a change of one place: a comparison turned, a number off by one, a statement removed, a condition
negated, a constant, a list or a box taken for another one, and now and then a changed text.  Places are
found in the text of the code, without a parser; what does not compile is replaced by the next one and
does not count.  The order depends on the seed alone, so the same call finds the same faults again.

What makes it fast: the tests are built once and load the library as a shared object, so that a fault costs
the compilation of what it touches, a link, and the tests up to the first that fails, the quick ones first.
They are built against the headers as they are: a changed constant cannot hide by changing the test too.
A test that takes far longer than it should, or wants more than 2 GB, has noticed the fault.
"""

import argparse
import concurrent.futures
import os
import pathlib
import queue
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import time

ROOT = pathlib.Path.cwd()
SCRATCH = ROOT / "build" / "mutate"
TREE = SCRATCH / "tree"
# Below tests/; a folder is one program.
TESTS = ["nd_lib*_test.cpp", "tlv_test.cpp", "session_test.cpp", "model/*.cpp", "torture_test.cpp", "lossy_test.cpp"]
NEEDED = 0.9

COMPILE = ["g++", "-std=c++20", "-w", "-g0", "-fPIC", "-pthread"]
LIBRARY = ["-O0", "-fno-exceptions", "-fno-rtti", "-fno-threadsafe-statics"]
FOLDERS = ["tests", "src", "include", "platform", "platform/include", "platform/sim/include"]
SHARED = ["platform/sim", "platform/common", "tests/support"]
MEMORY = 2 << 30
SLOWEST = 20  # times the usual run time of a test, and at least so many seconds


# ---- Faults ---------------------------------------------------------------------------------------

# How often a kind is chosen, per place where it is possible.
WEIGHTS = {
    "comparison": 3,
    "number": 2,
    "removal": 3,
    "negation": 3,
    "logic": 3,
    "constant": 2,
    "arithmetic": 2,
    "text": 0.2,
}

COMPARISONS = {"==": ["!="], "!=": ["=="], "<": ["<=", ">"], "<=": ["<", ">"], ">": [">=", "<"], ">=": [">", "<"]}
ARITHMETIC = {"+": "-", "-": "+", "+=": "-=", "-=": "+=", "/": "*", "%": "/", "++": "--", "--": "++", "|": "&", "<<": ">>"}
# Names that stand for each other: one family a pattern.
FAMILIES = [
    r"ND_LIB_FSM_(?!RECORD|TRANS|STATE)[A-Z_]+",
    r"ND_LIB_EVT_[A-Z_]+",
    r"ND_LIB_STAT_[A-Z_]+",
    r"NDPI_MSG_(?!PROC|SUB_INTF|INTF)[A-Z_]+",
    r"ND_LIB_LOG_[A-Z]+",
    r"ND_LIB_BLACKBOX_(?:ASSERT|INFO)",
    r"ND_LIB_OK|ND_LIB_ERR(?:_[A-Z]+)?",
    r"ND_LIB_DIAG_[A-Z_]+",
    r"ND_LIB_KEY_CMP_[A-Z]+",
    r"ND_LIB_NOTIFY_[A-Z_]+",
    r"ND_LIB_PACK_[A-Z]+",
    r"ND_LIB_SUBSCRIBE|ND_LIB_UNSUBSCRIBE",
    r"ND_LIB_COMP_[A-Z_]+",
    r"KAL_RBT_(?:RED|BLACK)",
    r"subscribingList|unsubscribingList|waitSubAckList|subscribeTmpList",
    r"sendSubNum|sendUnSubNum",
    r"dataListNode|workListNode",
    r"keyType|dataType",
    r"keyLen|dataLen",
    r"maxKeyLength|maxValueLength",
    r"gmt|local",
    r"true|false",
    r"k(?:Init|Step|Max)Size",
]


def mask(text):
    """The text with comments, preprocessor lines and the insides of strings blanked; and where strings are."""
    out = list(text)
    strings = []
    pattern = re.compile(
        r'//[^\n]*|/\*.*?\*/|^[ \t]*#(?:\\\n|[^\n])*|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'', re.S | re.M
    )
    for found in pattern.finditer(text):
        inside = found.group().startswith(('"', "'"))
        if inside:
            strings.append((found.start() + 1, found.end() - 1))
        for at in range(found.start() + inside, found.end() - inside):
            if out[at] != "\n":
                out[at] = " "
    return "".join(out), strings


def statements(code):
    """Where the statements of functions that can be left out begin and end."""
    begin, depth = 0, 0
    for at, char in enumerate(code):
        depth += {"(": 1, ")": -1, "[": 1, "]": -1}.get(char, 0)
        if char in "{}" and depth <= 0:
            begin, depth = at + 1, 0
        elif char == ";" and depth <= 0:
            text = re.sub(r"^\s*(?:(?:case\s+[\w:]*\w|default)\s*:(?!:)\s*)*", "", code[begin:at])
            start, begin, depth = at - len(text), at + 1, 0
            words = text.strip()
            indented = code[code.rfind("\n", 0, start) + 1 : start].strip(" ") == "" and code[start - 1] == " "
            plain = re.match(r"return$|break$|continue$|\+\+|--|\(void\)|[\w.>*&()\[\]:-]+\s*(?:\(|[-+|]?=[^=])", words)
            declares = re.match(r"(?:const |auto |static_assert|using |return |struct |enum |constexpr |if |for |while )", words)
            if words and indented and plain and not declares:
                yield start, at


def faults_of(path, text):
    """Every fault for one file: kind, begin, end, and what stands there instead."""
    code, strings = mask(text)
    skipped = [m.span() for m in re.finditer(r"static_assert\(.*?\);|^\s*(?:using|template|extern|namespace)\b[^\n]*|"
                                             r"^ND_LIB_API.*?;|operator\S+", code, re.S | re.M)]

    def add(kind, begin, end, instead):
        if not any(first <= begin < last for first, last in skipped):
            found.append((kind, begin, end, instead))

    found = []
    for m in re.finditer(r" (==|!=|<=|>=|<|>) ", code):
        for other in COMPARISONS[m[1]]:
            add("comparison", m.start(1), m.end(1), other)
    for m in re.finditer(r"(?<![\w.\"'])(0[xX][0-9a-fA-F]+|\d+)(?![\w.\"'])", code):
        value = int(m[1], 0)
        for other in (value + 1, value - 1):
            if other >= 0:
                add("number", *m.span(1), str(other))
    for begin, end in statements(code):
        add("removal", begin, end, "\n" * text.count("\n", begin, end))
    for m in re.finditer(r"\b(?:if|while) \(", code):
        depth, at = 1, m.end()
        while depth:
            depth += {"(": 1, ")": -1}.get(code[at], 0)
            at += 1
        if "ND_LIB_ListNode *" not in code[m.end() : at] and "const auto" not in code[m.end() : at]:
            add("negation", m.end(), at - 1, "!(" + text[m.end() : at - 1] + ")")
    for m in re.finditer(r" (&&|\|\|) ", code):
        add("logic", *m.span(1), "||" if m[1] == "&&" else "&&")
    for m in re.finditer(r"(?<=[\s(])!(?=[\w(])", code):
        add("negation", *m.span(), "")
    for m in re.finditer(r" (\+|-|/|%|\+=|-=|\||<<) |(?<![\w+-])(\+\+|--)(?=\w)", code):
        group = 1 if m[1] else 2
        add("arithmetic", *m.span(group), ARITHMETIC[m[group]])
    for family in FAMILIES:
        pattern = re.compile(r"\b(?:" + family + r")\b")
        for m in pattern.finditer(code):
            line = code[code.rfind("\n", 0, m.start()) + 1 : code.find("\n", m.start())]
            if not re.match(r"\s*\w+(?: = [^;]*)?,?$", line):  # not the declaration of an enumerator
                add("constant", *m.span(), pattern)
    for begin, end in strings:
        if end - begin > 2 and text[begin - 1] == '"':
            add("text", begin, end, text[begin : end - 2] + text[end - 1 : end])
    return [(path, *fault) for fault in found]


def faults_in(sources, rng):
    """All faults in an order that chance decides, the likelier kinds first."""
    texts = {path: path.read_text() for path in sources}
    everything = "\n".join(mask(text)[0] for text in texts.values())
    chosen = []
    for path, text in texts.items():
        for _, kind, begin, end, instead in faults_of(path, text):
            if kind == "constant":
                others = sorted(set(instead.findall(everything)) - {text[begin:end]})
                if not others:
                    continue
                instead = rng.choice(others)
            chosen.append((rng.random() ** (1 / WEIGHTS[kind]), path, kind, begin, end, instead))
    chosen.sort(key=lambda fault: fault[0], reverse=True)
    return [Fault(path, texts[path], kind, begin, end, instead) for _, path, kind, begin, end, instead in chosen]


class Fault:
    def __init__(self, path, text, kind, begin, end, instead):
        self.path, self.kind = path, kind
        self.text = text[:begin] + instead + text[end:]
        self.line = text.count("\n", 0, begin) + 1
        self.before = text.split("\n")[self.line - 1].strip()
        self.after = self.text.split("\n")[self.line - 1].strip() or "(removed)"

    def __str__(self):
        return f"{self.path.relative_to(TREE)}:{self.line}: {self.kind}\n    - {self.before}\n    + {self.after}"


# ---- Building and running -------------------------------------------------------------------------


def run(command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options)


def must(command):
    done = run(command)
    if done.returncode != 0:
        sys.exit(f"error: {' '.join(map(str, command))}\n{done.stdout}")


def includes():
    return [f"-I{TREE / folder}" for folder in FOLDERS]


def compile_library(source, overlay, output):
    """Compiles one file of src/; headers are looked for in overlay first."""
    return [*COMPILE, *LIBRARY, f"-I{overlay}", *includes(), "-MMD", "-c", str(source), "-o", str(output)]


def link_library(objects, output):
    # -Bsymbolic, so that inline functions of the tests do not take the place of the library's own; a soname, so
    # that the tests look for the library in LD_LIBRARY_PATH.
    return ["g++", "-shared", "-Wl,-Bsymbolic,-soname,libfaulty.so", "-o", str(output), *map(str, objects)]


def dependencies(output):
    return [pathlib.Path(name) for name in output.with_suffix(".d").read_text().replace("\\\n", " ").split()[1:]]


def is_current(output):
    """Whether an object of an earlier run is younger than all it was made of."""
    try:
        made = output.stat().st_mtime
        return all(path.stat().st_mtime < made for path in [pathlib.Path(__file__), *dependencies(output)])
    except OSError:
        return False


class Builds:
    """The library without a fault, and the tests, which take whatever library they are told to load."""

    def __init__(self, jobs):
        self.objects = {}
        self.folder = SCRATCH / "base"
        self.folder.mkdir(exist_ok=True)
        commands = []
        for source in sorted((TREE / "src").rglob("*.cpp")):
            self.objects[source] = self.folder / ("src_" + "_".join(source.relative_to(TREE / "src").parts) + ".o")
            commands.append(compile_library(source, self.folder, self.objects[source]))
        parts = {}  # what the programs are made of; the parts of "" belong to all
        for name, pattern in [*(("", f"{folder}/*.cpp") for folder in SHARED), *((None, f"tests/{t}") for t in TESTS)]:
            for source in sorted(TREE.glob(pattern)):
                folder = source.parent.name
                program = source.stem if folder == "tests" else f"{folder}_test"
                output = self.folder / ("_".join(source.relative_to(TREE).parts) + ".o")
                parts.setdefault(program if name is None else name, []).append(output)
                commands.append([*COMPILE, "-O1" if name == "" else "-O0", *includes(), "-MMD", "-c", str(source), "-o", str(output)])
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            list(pool.map(must, (command for command in commands if not is_current(pathlib.Path(command[-1])))))
        library = self.folder / "libfaulty.so"
        must(link_library(self.objects.values(), library))
        self.tests = {}
        shared = parts.pop("")
        for name, objects in sorted(parts.items()):
            program = self.folder / name
            must(["g++", "-pthread", "-Wl,--export-dynamic", "-o", *map(str, [program, *objects, *shared, library]),
                  "-lgtest_main", "-lgtest"])  # fmt: skip
            begin = time.monotonic()
            if not self.passes(program, self.folder, 600):
                sys.exit(f"error: {name} fails without any fault; mend that first")
            self.tests[program] = time.monotonic() - begin
        self.includers = {}
        for source, output in self.objects.items():
            for path in dependencies(output):
                self.includers.setdefault(path, []).append(source)

    def passes(self, program, library, seconds):
        def limit():
            resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 26, 1 << 26))

        process = subprocess.Popen(
            [str(program), "--gtest_fail_fast", "--gtest_brief=1"], cwd=library, preexec_fn=limit,
            start_new_session=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env={**os.environ, "LD_LIBRARY_PATH": str(library)})  # fmt: skip
        try:
            return process.wait(seconds) == 0
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
            return False

    def catcher(self, fault, folder):
        """The test that notices the fault; "" when none does, None for a fault that does not compile."""
        shutil.rmtree(folder, ignore_errors=True)
        changed = folder / fault.path.relative_to(TREE / "src")
        changed.parent.mkdir(parents=True)
        changed.write_text(fault.text)
        objects = dict(self.objects)
        for source in [fault.path] if fault.path in objects else self.includers.get(fault.path, []):
            output = folder / objects[source].name
            given = changed if source == fault.path else source
            if run(compile_library(given, folder, output), timeout=120).returncode != 0:
                return None
            objects[source] = output
        library = folder / "libfaulty.so"
        if run(link_library(objects.values(), library)).returncode != 0:
            return None
        for program, usual in sorted(self.tests.items(), key=lambda test: test[1]):
            if not self.passes(program, folder, max(SLOWEST, SLOWEST * usual)):
                return program.name
        return ""


# ---- The whole ------------------------------------------------------------------------------------


def main():
    parser = argparse.ArgumentParser(prog="scripts/mutate", description=__doc__.split("\n")[0])
    parser.add_argument("--count", type=int, default=300, help="faults to try (300)")
    parser.add_argument("--seed", type=int, default=1, help="which ones (1)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="faults at a time")
    arguments = parser.parse_args()
    if arguments.count < 1 or arguments.jobs < 1:
        parser.error("--count and --jobs want a number above 0")

    shutil.rmtree(TREE, ignore_errors=True)
    for folder in ("src", "include", "platform", "tests"):
        shutil.copytree(ROOT / folder, TREE / folder)
    print("building the tests ...", flush=True)
    builds = Builds(arguments.jobs)
    # Of the layout the compiler says whether it is right; every word of that file is an assertion.
    sources = sorted(
        path for path in (TREE / "src").rglob("*") if path.suffix in (".cpp", ".h") and path.stem != "layout"
    )
    faults = faults_in(sources, random.Random(arguments.seed))
    print(*(f"{path.name} {seconds:.1f} s," for path, seconds in builds.tests.items()), "without a fault")
    print(f"{len(faults)} faults are possible; trying {arguments.count} of them, seed {arguments.seed}", flush=True)

    folders = queue.SimpleQueue()
    for job in range(arguments.jobs):
        folders.put(SCRATCH / f"job{job}")

    def attempt(fault):
        folder = folders.get()
        try:
            return builds.catcher(fault, folder)
        finally:
            folders.put(folder)

    caught, survivors, refused = {}, [], 0
    begin = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        waiting = []
        rest = iter(faults)
        while len(survivors) + sum(caught.values()) < arguments.count:
            while len(waiting) < 2 * arguments.jobs and (fault := next(rest, None)) is not None:
                waiting.append((fault, pool.submit(attempt, fault)))
            if not waiting:
                break
            fault, result = waiting.pop(0)
            catcher = result.result()
            if catcher is None:
                refused += 1
            elif catcher:
                caught[catcher] = caught.get(catcher, 0) + 1
            else:
                survivors.append(fault)
                print(f"survived: {fault}", flush=True)
            tried = len(survivors) + sum(caught.values())
            if catcher is not None and tried % 50 == 0:
                print(f"{tried} tried, {tried - len(survivors)} caught", flush=True)
        for _, result in waiting:
            result.cancel()

    total = len(survivors) + sum(caught.values())
    share = sum(caught.values()) / total if total else 0.0
    print(f"\ncaught by {', '.join(f'{name} {number}' for name, number in sorted(caught.items()))}")
    print(f"{refused} more did not compile; {(time.monotonic() - begin) / max(total, 1):.1f} seconds each")
    print(f"seed {arguments.seed}: {total} faults, {total - len(survivors)} caught, {len(survivors)} survived: {100 * share:.1f} %")
    sys.exit(0 if share >= NEEDED else 1)


if __name__ == "__main__":
    main()
