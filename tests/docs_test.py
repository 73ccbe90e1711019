"""Holds the documents against the code.

docs_test.py names ROOT               every file, link and name that a document mentions is there
docs_test.py consumer README OUTPUT   takes the consumer out of README
docs_test.py run COMPONENT CONSUMER   that consumer, run against the component, becomes ready
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile


def names(root):
    root = pathlib.Path(root)
    folders = "src include platform component tools tests scripts cmake examples".split()
    sources = [path for folder in folders for path in (root / folder).rglob("*") if path.is_file()]
    known = set(re.findall(r"\w+", " ".join(path.read_text() for path in sources)))
    missing = []
    for document in [root / "README.md", *sorted((root / "docs").glob("*.md"))]:
        for number, line in enumerate(document.read_text().splitlines(), 1):
            spans = re.findall(r"`([^`]+)`", line)
            files = [span for span in spans if re.match(rf"({'|'.join(folders)}|docs)/[\w./*-]*$", span)]
            missing += [f"{document}:{number}: no file {file}" for file in files if not list(root.glob(file))]
            bare = [span for span in spans if re.fullmatch(r"\w+\.(cpp|hpp|h)", span)]
            missing += [f"{document}:{number}: no file {file}" for file in bare
                        if all(path.name != file for path in sources)]
            links = re.findall(r"\]\(([^)#:]+)\)", line)
            missing += [f"{document}:{number}: no file {link}" for link in links
                        if not (document.parent / link).exists()]
            # Where a line says what is in which files, it must be there.
            text = known
            if line.startswith("Where: "):
                text = set(re.findall(r"\w+", " ".join(p.read_text() for f in files for p in root.glob(f))))
            words = [span for span in spans if re.fullmatch(r"\w*([a-z][A-Z]|_)\w*", span)]
            missing += [f"{document}:{number}: no {word} in the code" for word in words if word not in text]
    sys.exit("\n".join(missing) or 0)


def consumer(readme, output):
    code = re.search(r"```c\n(.*?)```", pathlib.Path(readme).read_text(), re.DOTALL).group(1)
    pathlib.Path(output).write_text(code)


def run(component, program):
    with tempfile.TemporaryDirectory() as directory:
        environment = {**os.environ, "PEGEIR_RUNTIME_DIR": directory + "/run"}
        server = subprocess.Popen([component], env=environment, stdout=subprocess.PIPE, text=True)
        try:
            print(server.stdout.readline(), end="")
            result = subprocess.run([program], env=environment, stdout=subprocess.PIPE, text=True, timeout=30)
        finally:
            server.terminate()
            code = server.wait()
        lines = result.stdout.splitlines()
        print(result.stdout)
        assert result.returncode == 0 and code == 0, (result.returncode, code)
        assert "interface lo" in lines and lines[-1] == "ready"


globals()[sys.argv[1]](*sys.argv[2:])
