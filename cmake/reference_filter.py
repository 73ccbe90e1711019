"""Turns a header of pegeir into what Doxygen reads.

The headers' comments are written for people who open the header: plain comments, a text over a declaration
or over a group of them.  This makes documentation comments of them, keeps indented passages as they are,
and repeats a text that stands over a group for every declaration of the group.
"""

import re
import sys

NAMESPACE_OR_BRACE = re.compile(r"\s*(namespace|extern|public:|private:|friend|[{}#])")


def items(lines):
    """Yields (code, text): a line of code or None, and the lines of the comment behind or below it."""
    lines = list(lines)
    while lines:
        code, mark, first = re.fullmatch(r"(.*?)(?:(?:(?<=\s)|^)(/\*|//) ?(.*))?", lines.pop(0)).groups()
        column = len(code)
        code = code.rstrip()
        text = [] if mark is None else [first]
        if mark == "//":
            while lines and re.match(r"\s*//", lines[0]) and (not code or lines[0].index("//") == column):
                text.append(re.sub(r"^\s*// ?", "", lines.pop(0)))
        elif mark:
            while "*/" not in text[-1]:
                text.append(re.sub(r"^\s*(\*(?!/) ?)?", "", lines.pop(0)) if not code else lines.pop(0).strip())
            text[-1] = text[-1].partition("*/")[0]
        yield code, [line.rstrip() for line in text]


def documentation(opening, text):
    """A comment with what is indented, lists apart, as verbatim."""
    result, verbatim, in_list = [opening], False, False
    for line in text:
        indent = len(line) - len(line.lstrip())
        in_list = bool(re.match(r" {0,2}- ", line)) or (in_list and indent > 1)
        keep = indent > 1 and not in_list
        if line and keep != verbatim:
            result.append("@verbatim" if keep else "@endverbatim")
            verbatim = keep
        result.append(line if verbatim else re.sub(r"([<>%#@\\])", r"\\\1", line))
    return result + ["@endverbatim"] * verbatim + ["*/"]


def rewritten(lines):
    output, above, section, level = [], [], [], 0
    for code, text in items(lines):
        if not output:
            output += documentation("/** @file", text)
        elif code and text and not code.startswith("#"):
            output += [code, *documentation("/**<", text)]
        elif text:
            title = re.match(r"-{2,} (.*?)[ -]*$", text[0])
            section, above = ([title[1] + "."], []) if title else ([], text)
            output += documentation("/**", above) if above else []
        elif not code:
            above = []
            output.append("")
        elif not code.startswith("#define"):
            if not NAMESPACE_OR_BRACE.match(code):
                indent = len(code) - len(code.lstrip())
                if above and indent == level and re.search(r"[;}]$", output[-1]):
                    output += documentation("/**", above)
                elif section:  # what begins a section without a text of its own has the section's title
                    output += documentation("/**", section)
                level = indent if output[-1] == "*/" else level
                section = []
            output.append(code)
    return output


print("\n".join(rewritten(open(sys.argv[1]).read().splitlines())))
