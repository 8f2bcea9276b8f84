"""Checks a recording (JSON lines) against the schema, and what the schema
cannot say: the start line comes first, once; each event's number is unique;
every kind in KINDS occurs. Usage: validate_recording.py SCHEMA RECORDING"""
import json
import sys

import jsonschema

KINDS = {"requested", "waiting", "granted", "handedBack", "released", "givenBack", "notObtained",
         "timedOut", "stopped", "stateActivated", "stateDeactivated", "switched",
         "deadlockFormed", "deadlockBroken", "lost"}

schema_path, recording_path = sys.argv[1:3]
validator = jsonschema.Draft202012Validator(json.load(open(schema_path)))
lines = [json.loads(text) for text in open(recording_path)]
for number, line in enumerate(lines, 1):
    for error in validator.iter_errors(line):
        sys.exit(f"{recording_path}:{number}: {error.message}\n{json.dumps(line)}")
types = [line["type"] for line in lines]
seqs = [line["seq"] for line in lines if line["type"] == "event"]
kinds = {line["kind"] for line in lines if line["type"] == "event"}
if types[:1] != ["start"] or types.count("start") != 1 or "snapshot" not in types:
    sys.exit(f"{recording_path}: one start line first, and a snapshot, expected")
if len(set(seqs)) != len(seqs):
    sys.exit(f"{recording_path}: an event number occurs twice")
if KINDS - kinds:
    sys.exit(f"{recording_path}: no event of kind {sorted(KINDS - kinds)}")
print(f"{recording_path}: {len(lines)} lines match the schema")
