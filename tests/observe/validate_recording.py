"""Checks a recording (JSON lines) against the schema, and what a schema
cannot say: one start line, first; events numbered once each; every kind in
KINDS present. Usage: validate_recording.py SCHEMA RECORDING"""
import json
import sys

import jsonschema

# The kinds the sample recording must contain, so that their form is checked.
KINDS = {"requested", "waiting", "granted", "handedBack", "released", "givenBack", "notObtained",
         "timedOut", "stopped", "stateActivated", "stateDeactivated", "switched",
         "deadlockFormed", "deadlockBroken", "lost"}


def main(schema_path, recording_path):
    with open(schema_path) as f:
        validator = jsonschema.Draft202012Validator(json.load(f))
    seen_kinds, seen_seqs, types = set(), set(), []
    with open(recording_path) as f:
        for number, text in enumerate(f, 1):
            line = json.loads(text)
            errors = sorted(validator.iter_errors(line), key=lambda e: e.path)
            if errors:
                sys.exit(f"{recording_path}:{number}: {errors[0].message}\n{text}")
            types.append(line["type"])
            if line["type"] == "event":
                if line["seq"] in seen_seqs:
                    sys.exit(f"{recording_path}:{number}: sequence {line['seq']} twice")
                seen_seqs.add(line["seq"])
                seen_kinds.add(line["kind"])
    if not types or types[0] != "start" or types.count("start") != 1:
        sys.exit(f"{recording_path}: the start line must come first, once")
    for needed in ("snapshot",):
        if needed not in types:
            sys.exit(f"{recording_path}: no {needed} line")
    if KINDS - seen_kinds:
        sys.exit(f"{recording_path}: no event of kind {sorted(KINDS - seen_kinds)}")
    print(f"{recording_path}: {len(types)} lines match the schema")


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(sys.argv[1], sys.argv[2])
