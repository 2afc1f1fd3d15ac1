#!/usr/bin/python3
"""kelvo-report's JSON against its schema, its Prometheus text through the
client library's parser, and the two forms against each other.

    report_check.py SCHEMA REPORT.json REPORT.prom
"""
import json
import sys

import jsonschema
from prometheus_client.parser import text_string_to_metric_families

schema, report, prom = (open(path).read() for path in sys.argv[1:4])
report = json.loads(report)
jsonschema.Draft7Validator.check_schema(json.loads(schema))
jsonschema.validate(report, json.loads(schema), cls=jsonschema.Draft7Validator)

families = {f.name: f for f in text_string_to_metric_families(prom)}
expected = """report_success report_duration_seconds space_size_bytes space_used_bytes
    volume_size_bytes volume_used_bytes volume_preallocate_remain_bytes volume_lost_bytes
    volume_leak channel_null_storage_ids channel_recording_days channel_recorded_bytes
    channel_recycle_whole_window""".split()
assert sorted(families) == sorted("kelvo_" + name for name in expected), sorted(families)
for f in families.values():
    assert f.type == "gauge" and f.documentation, f.name

def values(name):
    return {tuple(sorted(s.labels.items())): s.value for s in families[name].samples}

MB = 1048576
spaces = {s["name"]: s for s in report["spaces"]}
want = {
    "kelvo_space_size_bytes": {(("space", n),): s["total_mb"] * MB for n, s in spaces.items()},
    "kelvo_volume_used_bytes": {
        (("space", v["space"] or ""), ("volume", v["name"])): v["used_mb"] * MB
        for v in report["volumes"]},
    "kelvo_volume_lost_bytes": {
        (("volume", v["name"]),): v["lost_mb"] * MB
        for v in report["volumes"] if v["lost_mb"] is not None},
    "kelvo_volume_leak": {(("volume", v["name"]),): int(v["leak"]) for v in report["volumes"]},
    "kelvo_channel_null_storage_ids": {
        (("channel", "ch%02d" % (c["channel_id"] + 1)),): c["null_storage_ids"]
        for c in report["channels"]},
    "kelvo_channel_recording_days": {
        (("channel", "ch%02d" % (c["channel_id"] + 1)), ("record_type", t),
         ("space", r["space"])): len(r["days"][t])
        for c in report["channels"] for r in c["recordings"] for t in ("NR", "AR")},
    "kelvo_channel_recycle_whole_window": {
        (("channel", "ch%02d" % (c["channel_id"] + 1)), ("record_type", r["record_type"]),
         ("stream", str(r["stream"]))): int(r["whole_window"])
        for c in report["channels"] for r in c["recycle"]},
}
for name, samples in want.items():
    assert values(name) == samples, (name, values(name), samples)
assert values("kelvo_report_success") == {(): 1}
