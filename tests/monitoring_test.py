#!/usr/bin/python3
"""kelvo-report's metrics on a server with every status and state, repeated and non-UTF-8 names, a repeated channel:
promtool, the JSON's figures, the node exporter, the problems' alerts from promtool and a Prometheus. 77: no tools."""
import atexit, codecs, json, os, shutil, socket, subprocess, sys, tempfile, time, urllib.parse, urllib.request
from prometheus_client.parser import text_string_to_metric_families

sys.path.insert(0, os.path.join(HERE := os.path.dirname(os.path.abspath(__file__)), "support"))
from server import Server, uuid

EXPORTER, RULES = "/usr/bin/prometheus-node-exporter", os.path.join(HERE, "../contrib/prometheus/kelvo.rules.yml")
if not (shutil.which("promtool") and shutil.which("prometheus") and os.access(EXPORTER, os.X_OK)):
    sys.exit(print("skipped: promtool, prometheus or prometheus-node-exporter missing") or 77)

# (status, spare_status, severity) for every row of the status table, (state, severity) for the states.
SPACES = [(0, 0, 0), (0, 1, 0), (1, 0, 0), (2, 0, 0), (3, 0, 0), (4, 0, 2), (5, 0, 2), (5, 1, 2), (6, 0, 1),
          (7, 0, 1), (8, 0, 1), (9, 0, 1), (10, 0, 2)]
STATES = [(0, 0), (1, 0), (2, 2), (3, 1), (4, 0), (5, 1), (6, 1), (7, 2), (8, 1), (9, 2)]
# Characters to escape; invalid UTF-8 beside valid at each boundary; a valid end, and a cut one ([:-2]).
HOSTILE = (b'Cold "x" \\ y\n\xe2\x82 \xc0\xaf\xc1\xbf\xc2\xa9 \xed\xa0\x80\xed\x9f\xbf \xf4\x90\x80\x80\xf4\x8f\xbf\xbf '
           b'\xe0\x9f\x80\xe0\xa0\x80 \xf0\x8f\x80\x80\xf0\x90\x80\x80 \xf5\x80 \xf0\x9f\x98\x80\xe2\x82\xac')
server, work = Server(tz="Europe/Berlin"), tempfile.mkdtemp(prefix="kelvo-mon", dir="/tmp")
atexit.register(shutil.rmtree, work, True) or atexit.register(server.close)
now = int(time.time()) // 3600 * 3600 + 1800  # periods half past the hour, kept away from hour edges
rows = ["INSERT INTO spaces VALUES (uuid(%d), %s, uuid(%d), 1000, %d, %d, %d);" % (
    i, "'Dup'" if i < 2 else "CAST(X'%s' AS TEXT)" % HOSTILE.hex() if i == 12 else "'S%d'" % i, 100 + i,
    500 + 40 * i, status, spare) for i, (status, spare, _) in enumerate(SPACES)]
rows += ["INSERT INTO volumes VALUES (uuid(%d), uuid(%d), '{root}/v%d/share/' || %s, %d, %d, %d, 100, %d, '');" % (
    200 + j, 100 + j, j, "'Dup'" if j < 2 else "CAST(X'%s' AS TEXT)" % HOSTILE[:-2].hex() if j == 9 else "'V%d'" % j,
    j, j % 2, j, 50 if j == 3 else 93) for j, _ in STATES]
# (channel, sid, space, stream, days ago, storage id): 0 twice, 1 recent and failing, 3 in two spaces, 4 idle.
PERIODS = [(0, 1, 2, 1, 2, 1), (0, 1, 2, 1, 45, 1), (0, 1, 2, 2, 3, None), (0, 2, 2, 1, 40, 2), (0, 2, 2, 1, 1, 2),
           (1, 3, 3, 1, 5, 3), (3, 5, 4, 1, 60, 5), (3, 5, 5, 1, 10, 6)]
rows += ["INSERT INTO channels VALUES (0, sid(2)), (0, sid(1)), (1, sid(3)), (3, sid(5)), (4, sid(7)), (2, '%s');"
         % ("9" * 32), "INSERT INTO faults VALUES ('query_time_periods', '1:1:2', -1);",
         "INSERT INTO profiles VALUES (3, sid(5), uuid(3), uuid(103), uuid(203), sto(9));"]  # 3 has no day in S3
rows += ["INSERT INTO periods VALUES (%d, 4, %d, %d, %d, %s, 'p%d', %d);" % (ch, stream, (now - ago * 86400) * 1000, (
    now - ago * 86400) * 1000 + 600000, "sto(%d)" % sto if sto else "NULL", k, 7 * k + 1)
         for k, (ch, s, space, stream, ago, sto) in enumerate(PERIODS)]
rows += ["INSERT INTO profiles VALUES (%d, sid(%d), uuid(%d), uuid(%d), uuid(%d), sto(%d));" % (
    ch, s, space, 100 + space, 200 + space, sto) for ch, s, space, sto in sorted({p[:3] + p[5:] for p in PERIODS if p[5]})]
server.exec("\n".join(rows))
for folder in [server.fsu_folder("v%d/share/%s" % (j, "Dup" if j < 2 else "V%d" % j), uuid(200 + j)) for j in range(9)]:
    server.make_dir(folder + "/preallocate") or open(folder + "/preallocate/fill", "wb").write(bytes(3 << 20))  # 3 of 100 MB




def report(*args, db=server.db_path):
    out, err, status = server.run(args, env=["ORN_STORAGE_DB=" + db], binary=os.environ["KELVO_REPORT"])
    assert (err == b"", status) == ((True, 0) if db == server.db_path else (False, 1)), (args, err, status)
    return out.decode()


def samples(text):  # {(name, labels): value} of kelvo's series; empty labels are no labels once scraped
    got = [((s.name, lab(**s.labels)), s.value) for f in text_string_to_metric_families(text) for s in f.samples
           if s.name.startswith("kelvo_") and s.name != "kelvo_report_duration_seconds"]
    assert len(dict(got)) == len(got), "series repeat"
    return dict(got)


query = lambda port, promql: [dict(r["metric"], value=r["value"][1]) for r in json.load(urllib.request.urlopen(
    "http://127.0.0.1:%d/api/v1/query?query=%s" % (port, urllib.parse.quote(promql)), timeout=5))["data"]["result"]]


lab = lambda **kw: tuple(sorted((k, v) for k, v in kw.items() if v))
rep, prom = json.loads(report("--min-days=30")), report("--format=prometheus")
r = subprocess.run(["promtool", "check", "metrics"], input=prom, capture_output=True, text=True, timeout=60)
assert (r.returncode, r.stdout + r.stderr) == (0, ""), r

# The file holds the report's figures, one series per space, volume, channel label and channel in a space.
codecs.register_error("each_byte", lambda e: ("\ufffd", e.start + 1))
spaces = [(u, raw.decode("utf-8", "each_byte")) for u, raw in
          server.db.execute("SELECT uuid, CAST(name AS BLOB) FROM spaces ORDER BY rowid")]
MB, want = 1 << 20, {("kelvo_report_success", ()): 1,
                     ("kelvo_build_info", lab(version=report("--version").split()[1])): 1}
for (u, n), s in zip(spaces, rep["spaces"]):
    want["kelvo_space_info", lab(space_uuid=u, space=n, status=s["status"])] = 1
    want["kelvo_space_size_bytes", lab(space_uuid=u, space=n)] = s["total_mb"] * MB
    want["kelvo_space_used_bytes", lab(space_uuid=u, space=n)] = s["used_mb"] * MB
for (su, sn), v in zip(spaces, rep["volumes"]):  # volume j lies in space j
    v["measured"] = v["preallocate_remain_mb"] is not None  # du was asked for every volume
    vl = lab(volume_uuid=v["uuid"], volume=HOSTILE[:-2].decode("utf-8", "each_byte") if v["uuid"] == uuid(209) else v["name"])
    want["kelvo_volume_info", tuple(sorted(vl + lab(space_uuid=su, space=sn, type=v["type"], state=v["state"])))] = 1
    want.update({("kelvo_volume_" + f, vl): v[k] * unit for f, k, unit in [
        ("size_bytes", "total_mb", MB), ("used_bytes", "used_mb", MB), ("leak", "leak", 1), ("measured", "measured", 1),
        ("preallocate_remain_bytes", "preallocate_remain_mb", MB), ("preallocate_total_bytes", "preallocate_total_mb", MB), ("lost_bytes", "lost_mb", MB)] if v[k] is not None})
merge = lambda key, value, f=max: want.__setitem__(key, f(value, want.get(key, value)))
for c in rep["channels"]:  # entries of one channel label: the largest count and size, the earliest day
    ch = "ch%02d" % (c["channel_id"] + 1)
    merge(("kelvo_channel_null_storage_ids", lab(channel=ch)), c["null_storage_ids"])
    merge(("kelvo_channel_failed_period_queries", lab(channel=ch)),
          sum(r["whole_window"] and r["query_failed"] for r in c["recycle"]))
    for r in c["recordings"]:
        key = lab(channel=ch, space_uuid=uuid(int(r["space"][1:])), space=r["space"])
        merge(("kelvo_channel_recorded_bytes", key), r["size_mb"] * MB)
        for d in r["days"]["NR"] + r["days"]["AR"]:
            merge(("kelvo_channel_oldest_recording_timestamp_seconds", key), time.mktime(time.strptime(d, "%Y-%m-%d")), min)
got = samples(prom)
assert got == want, sorted(set(got.items()) ^ set(want.items()))

# The severity of each status and state; the alerts the problems stand for, by ALERTS' key labels.
states = [p["subject"] for p in rep["problems"] if p["kind"] == "state"]
assert states == ["space " + s["name"] for s, (_, _, sev) in zip(rep["spaces"], SPACES) if sev] + [
    "volume " + v["name"] for v, (_, sev) in zip(rep["volumes"], STATES) if sev], states
ALERT = {"leak critical": "KelvoVolumeLeak", "not_measured warning": "KelvoVolumeNotMeasured", "null_ids warning": "KelvoNullStorageIds", "state space": "KelvoSpaceStatus",
         "failed_queries warning": "KelvoFailedPeriodQueries", "retention warning": "KelvoRetentionShort",
         "state volume": "KelvoVolumeState"}
key_of = {**{"volume " + v["name"]: (uuid(j), v["uuid"], "") for j, v in reversed(list(enumerate(rep["volumes"])))},
          **{"space " + s["name"]: (uuid(i), "", "") for i, s in reversed(list(enumerate(rep["spaces"])))}}
expected = lambda instance: {(
    ALERT.get(p["kind"] + " " + p["severity"]) or ALERT["state " + p["subject"].split()[0]] + p["severity"].title(), instance,
    *(("", "", p["subject"].split()[1]) if p["subject"].startswith("channel ") else
      ("", key_of[p["subject"]][1], "") if p["kind"] in ("leak", "not_measured") else key_of[p["subject"]]))
    for p in rep["problems"]}

# promtool: the file as one server's input, a stale one, a failed run's file; oldest days moved with the clock.
promql = lambda v: '"%s"' % v.replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n").replace("\ufffd", "\\uFFFD")
series = lambda name, labels: "%s{%s}" % (name, ",".join("%s=%s" % (k, promql(v)) for k, v in labels if v))
now, inputs = time.time(), []
for instance, text in [("srv", prom), ("stale", ""), ("down", report("--format=prometheus", db="/nonexistent"))]:
    for (name, labels), value in list(samples(text).items()) + [(("node_textfile_mtime_seconds", ()), 1800 * (instance != "stale"))]:
        value += 1800 - now if name.endswith("_timestamp_seconds") else 0
        inputs.append({"series": series(name, labels + (("instance", instance),) + (
            (("file", "kelvo.prom"),) if name.startswith("node") else ())), "values": "%r+0x40" % value})
want_alerts = expected("srv") | {("KelvoReportStale", "stale", "", "", ""), ("KelvoReportFailing", "down", "", "", "")}
keys = ("alertname", "instance", "space_uuid", "volume_uuid", "channel")
with open(work + "/test.yml", "w") as f:
    json.dump({"rule_files": [os.path.abspath(RULES)], "evaluation_interval": "1m", "tests": [{
        "interval": "1m", "input_series": inputs, "promql_expr_test": [{
            "eval_time": "30m", "expr": "count by (%s) (ALERTS{alertstate='firing'})" % ",".join(keys),
            "exp_samples": [{"labels": series("", tuple(zip(keys, e))), "value": 1} for e in sorted(want_alerts)]}]}]},
        f, ensure_ascii=False)
for args in [("check", "rules", RULES), ("test", "rules", work + "/test.yml")]:
    subprocess.run(["promtool", *args], check=True, timeout=120)

# On loopback: the node exporter reads the file; Prometheus scrapes it every second with the rules.
sockets = [socket.socket(), socket.socket()]  # both bound at once: two free ports
ports = [s.bind(("127.0.0.1", 0)) or s.getsockname()[1] for s in sockets] + [s.close() for s in sockets][:0]
os.mkdir(work + "/textfile") or open(work + "/textfile/kelvo.prom", "w").write(prom)
open(work + "/prometheus.yml", "w").write(json.dumps({
    "global": {"scrape_interval": "1s", "evaluation_interval": "1s"}, "rule_files": [os.path.abspath(RULES)],
    "scrape_configs": [{"job_name": "node", "static_configs": [{"targets": ["127.0.0.1:%d" % ports[0]]}]}]}))
procs = [subprocess.Popen(cmd, stdout=open(work + "/log", "a"), stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL) for cmd in [
    [EXPORTER, "--web.listen-address=127.0.0.1:%d" % ports[0], "--collector.disable-defaults",
     "--collector.textfile", "--collector.textfile.directory=" + work + "/textfile"],
    ["prometheus", "--config.file=" + work + "/prometheus.yml", "--storage.tsdb.path=" + work + "/data",
     "--web.listen-address=127.0.0.1:%d" % ports[1]]]]
try:
    instance, deadline, scraped, firing = "127.0.0.1:%d" % ports[0], time.time() + 90, {}, []
    while time.time() < deadline and (scraped != want or firing != sorted(expected(instance))):
        time.sleep(1)
        try:
            scraped = {(s.pop("__name__"), lab(**{k: v for k, v in s.items() if k not in ("job", "instance", "value")})):
                       float(s["value"]) for s in query(ports[1], '{__name__=~"kelvo_.+",__name__!="kelvo_report_duration_seconds"}')}
            firing = sorted(tuple(a.get(k, "") for k in keys) for a in query(ports[1], "ALERTS"))
        except OSError:
            continue
    assert scraped == want, sorted(set(scraped.items()) ^ set(want.items()))
    assert firing == sorted(expected(instance)), (firing, expected(instance))
finally:
    [p.terminate() for p in procs] + [p.wait(timeout=30) for p in procs]
