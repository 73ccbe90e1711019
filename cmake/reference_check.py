"""Holds the reference that Doxygen made against the headers: each operation is there, and it, each type and
each class has its text.

reference_check.py XML-DIRECTORY HEADER...
"""

import pathlib
import re
import sys
import xml.etree.ElementTree as ElementTree

SHORTEST_TEXT = 10


def text(element):
    parts = [element.find(tag) for tag in ("briefdescription", "detaileddescription")]
    return " ".join(" ".join("".join(part.itertext()).split()) for part in parts if part is not None).strip()


def speaks_for_itself(member, owner):
    """Whether the text of the class is enough: for constructors, destructor and operators."""
    return re.fullmatch(rf"~?{owner.split('::')[-1]}|operator\W+", member.findtext("name"))


documented, problems = {}, []
for path in sorted(pathlib.Path(sys.argv[1]).glob("*.xml")):
    for compound in ElementTree.parse(path).getroot().iter("compounddef"):
        name = compound.findtext("compoundname")
        if compound.get("prot") == "private":
            continue
        needs_text = compound.get("kind") in ("struct", "class", "union", "file") and not name.endswith(".md")
        if needs_text and len(text(compound)) < SHORTEST_TEXT:
            problems.append(f"{name}: no text")
        for member in compound.iter("memberdef"):
            if member.get("prot") == "private" or speaks_for_itself(member, name):
                continue
            documented[member.findtext("name")] = text(member)
            if member.get("kind") in ("function", "typedef") and len(text(member)) < SHORTEST_TEXT:
                problems.append(f"{name}: {member.findtext('name')}: no text")

operations = set()
for header in map(pathlib.Path, sys.argv[2:]):
    code = re.sub(r"/\*.*?\*/|^#.*?$", "", header.read_text(), flags=re.DOTALL | re.MULTILINE)
    operations |= set(re.findall(r"_API\b[^;(]*?(\w+)\s*[(\[]", code))
problems += [f"{name}: not in the reference" for name in sorted(operations) if not documented.get(name)]
if not operations:
    problems.append("the headers declare no operation")
sys.exit("\n".join(problems) or print(f"{len(operations)} operations, each with its text"))
