"""Prints the tests that a run of ctest did not run, each with its reason, out of its --output-junit file."""

import re
import sys
import xml.etree.ElementTree as xml

for case in xml.parse(sys.argv[1]).getroot().iter("testcase"):
    if case.get("status") in ("notrun", "disabled"):
        output = case.findtext("system-out") or ""
        said = re.search(r"Skipped\n(.+)", output)  # GoogleTest's "file:line: Skipped", then the text
        skipped = case.find("skipped")
        reason = said.group(1) if said else skipped.get("message") if skipped is not None else "disabled"
        print(f"{case.get('name')}: {reason}")
