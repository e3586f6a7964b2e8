#!/usr/bin/env python3
"""Counts the cases in meson's JUnit reports (the cases inside each test program, where it reports them) and prints
'N passed, N failed'. A program in a later report replaces its results in an earlier one; a report that is not there is
passed over; a case that failed in an earlier one and passed in a later one is named. A program that ended before it
said what failed is one failure: the JSON log beside the last report tells of it. Exits non-zero when a case failed or none ran.
With --failed: names the programs that failed, from meson's JSON log."""
import json
import os
import re
import sys
import xml.etree.ElementTree as tree


def failed_programs(log):
    runs = [json.loads(line) for line in open(log, errors="replace") if line.strip()]
    return sorted({r["name"].split(" / ")[-1] for r in runs if r["result"] not in ("OK", "SKIP", "EXPECTEDFAIL")})


if sys.argv[1] == "--failed":
    print(" ".join(failed_programs(sys.argv[2])))
    sys.exit(0)

programs = {}
second = []
for report in filter(os.path.exists, sys.argv[1:]):
    latest = {}
    # What a program printed stands in there as it is, and not every byte of it may.
    with open(report, errors="replace") as text:
        root = tree.fromstring(re.sub("[\x00-\x08\x0b\x0c\x0e-\x1f\ufffe\uffff]", "?", text.read()))
    for suite in root.iter("testsuite"):
        for case in suite.iter("testcase"):
            # A program that reports no cases is one case itself, in the suite named after the project.
            whole = suite.get("name") == "brisel"
            program = case.get("name") if whole else suite.get("name").split(" / ")[-1].split(".")[0]
            program = program.split(" / ")[-1]
            kinds = {child.tag for child in case}
            if "skipped" not in kinds:
                latest.setdefault(program, []).append((case.get("name"), bool(kinds & {"failure", "error"})))
    for program, cases in latest.items():
        now = dict(cases)
        second += [f"{program}: {name}" for name, bad in programs.get(program, []) if bad and now.get(name) is False]
    programs.update(latest)
passed = failed = 0
for program, cases in programs.items():
    for name, bad in cases:
        passed, failed = passed + (not bad), failed + bad
        if bad:
            print(f"failed: {program}: {name}")
for program in failed_programs(sys.argv[-1].removesuffix(".junit.xml") + ".json"):
    if not any(bad for _, bad in programs.get(program, [])):
        failed += 1
        print(f"failed: {program}: it ended before it said what failed")
for name in second:
    print(f"failed at first, passed alone: {name}")
print(f"{passed} passed, {failed} failed")
sys.exit(0 if passed and not failed else 1)
