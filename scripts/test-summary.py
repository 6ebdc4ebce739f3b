#!/usr/bin/env python3
"""Prints one line of test results for a build width from GoogleTest's XML reports."""
import glob
import os
import sys
import xml.etree.ElementTree as ET

arch, folder = sys.argv[1], sys.argv[2]
totals = {"tests": 0, "failures": 0, "skipped": 0, "errors": 0}
suites = []
for path in sorted(glob.glob(os.path.join(folder, "*.xml"))):
    root = ET.parse(path).getroot()
    cases = root.findall(".//testcase")
    skipped = sum(1 for c in cases if c.find("skipped") is not None or c.get("result") == "skipped")
    failed = sum(1 for c in cases if c.find("failure") is not None)
    totals["tests"] += len(cases)
    totals["failures"] += failed
    totals["skipped"] += skipped
    suites.append(f"{os.path.splitext(os.path.basename(path))[0]} {len(cases) - failed - skipped}/{len(cases)}")
passed = totals["tests"] - totals["failures"] - totals["skipped"]
print(f"{arch}: {passed} passed, {totals['skipped']} skipped, {totals['failures']} failed of {totals['tests']} tests"
      f" ({', '.join(suites) if suites else 'no reports'})")
sys.exit(1 if totals["failures"] or not suites else 0)
