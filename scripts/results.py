#!/usr/bin/env python3
"""Prints one line for each test of a JUnit file: passed, failed or skipped, TAB, name, TAB, why."""
import re
import sys
import xml.etree.ElementTree as tree


def reason(case):
    """The first line that a skipped test printed about why."""
    text = case.findtext("system-out") or ""
    for line in text.splitlines():
        found = re.search(r"(?:skip(?:ped)?:|SKIP:)\s*(.+)", line, re.IGNORECASE)
        if found:
            return found.group(1).strip()
    lines = [line.strip() for line in text.splitlines() if line.strip()]
    after = [lines[i + 1] for i, line in enumerate(lines[:-1]) if line.endswith(": Skipped")]
    return after[0] if after else ""


for case in tree.parse(sys.argv[1]).getroot().iter("testcase"):
    status = case.get("status")
    if case.find("skipped") is not None or status in ("notrun", "disabled"):
        print("skipped", case.get("name"), reason(case), sep="\t")
    elif case.find("failure") is not None or status == "fail":
        print("failed", case.get("name"), "", sep="\t")
    else:
        print("passed", case.get("name"), "", sep="\t")
