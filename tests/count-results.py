#!/usr/bin/env python3
"""Counts the cases in meson's JUnit report (the cases inside each test program, where it reports them) and prints
'N passed, N failed'. Exits non-zero when a case failed or none ran."""
import sys
import xml.etree.ElementTree as tree

passed = failed = 0
for suite in tree.parse(sys.argv[1]).getroot().iter("testsuite"):
    for case in suite.iter("testcase"):
        kinds = {child.tag for child in case}
        if "skipped" in kinds:
            continue
        if kinds & {"failure", "error"}:
            failed += 1
            print(f"failed: {suite.get('name')}: {case.get('name')}")
        else:
            passed += 1
print(f"{passed} passed, {failed} failed")
sys.exit(0 if passed and not failed else 1)
