#!/usr/bin/python3
"""--junit writes well-formed XML 1.0 whatever the names: a file name with
bytes that are not UTF-8, and a title, resource and expectation carrying
control characters, U+FFFE, U+FFFF and markup. The file is read by a strict
parser (expat), and each name comes back as the documented escape.
usage: junit_names.py ZURESOURCE_SIM"""
import json
import os
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET

sim = sys.argv[1]
NAME = "Head\u0001\u001b[31m\ufffe\uffff<&>\"'\t\n\r end"
SEEN = "Head\\x01\\x1B[31m\\uFFFE\\uFFFF<&>\"'\t\n\r end"
scenario = {
    "title": "title \uffff\u0007",
    "resources": [{"name": NAME}],
    "modules": [{"name": "M", "onResource": "ignore"}],
    "owners": [{"name": "tracker", "module": "M"}, {"name": "speaker\u0002", "module": "M"}],
    "actions": [{"at": 0, "owner": "tracker", "do": "waitFor", "resource": NAME}],
    "expect": [{"at": 100, "resource": NAME, "holder": "speaker\u0002"}],
}

with tempfile.TemporaryDirectory() as tmp:
    # Bytes that are no UTF-8: stray, overlong (C0 80), a surrogate (ED A0 80).
    good, bad = b"sc\xff\x01\xc0\x80\xed\xa0\x80n.json", b"bad\xfe.json"
    with open(os.path.join(tmp.encode(), good), "w") as f:
        json.dump(scenario, f)
    with open(os.path.join(tmp.encode(), bad), "w") as f:
        f.write("not json")
    run = subprocess.run([sim, "--quiet", good, bad, "--junit", "out.xml"], cwd=tmp,
                         capture_output=True)
    if run.returncode != 2:
        sys.exit(f"exit status {run.returncode}, expected 2 (a refused scenario):\n{run.stderr}")
    root = ET.parse(os.path.join(tmp, "out.xml")).getroot()  # raises unless well-formed

suites = {s.get("name"): s for s in root.iter("testsuite")}
GOOD = "sc\\xFF\\x01\\xC0\\x80\\xED\\xA0\\x80n.json"
ran, refused = suites.get(GOOD), suites.get("bad\\xFE.json")
failed = []
rows = [
    ("suite names", sorted(suites), sorted([GOOD, "bad\\xFE.json"])),
    ("title", ran.find("properties/property").get("value"), "title \\uFFFF\\x07"),
    ("case name", [c.get("name") for c in ran.iter("testcase")],
     [f"expect[0]: {SEEN} held by speaker\\x02 at 100 ms"]),
    ("failure text", ran.find("testcase/failure").text,
     f"{SEEN} held by speaker\\x02 at 100 ms, found tracker"),
    ("refusal names the file", "bad\\xFE.json" in refused.find("testcase/error").get("message"),
     True),
]
for what, found, expected in rows:
    if found != expected:
        failed.append(f"{what}: found {found!r}, expected {expected!r}")
print("\n".join(failed) or f"{len(rows)} rows hold")
sys.exit(1 if failed else 0)
