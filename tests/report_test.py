#!/usr/bin/python3
"""kelvo-report on a server built here, under a fixed clock: its figures agree with kelvo's commands,
nothing changes, no writing call is made, the JSON passes its schema, the check's long output agrees with the JSON. Then, on a copy: autoclean and volclean, failed list calls and a lock past the
library's wait, du from absolute PATH entries dying with its parent, --output, the check's ranges, labels and refused
values, failures, a locked database within the timeout."""
import atexit, glob, json, os, re, signal, subprocess, sys, time

import jsonschema

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "support"))
from server import FAKETIME, Server, uuid

# Volumes with a leak, without "share/", unmeasurable (no folder), in no space; an empty slot, a channel
# without a session, failed queries; null ids in and out of the 30 days and in stream 0; profiles that
# spaceinfo shows as blocks A, B, A. Period times in hours from now.
SERVER = """
INSERT INTO settings VALUES ('trace', '1');
INSERT INTO spaces VALUES (uuid(1), 'Main', uuid(10), 100000, 50000, 0, 1),
  (uuid(2), 'Cold', uuid(11), 20000, 17000, 6, 0), (uuid(3), 'Empty', uuid(12), 0, 0, 0, 0);
INSERT INTO volumes VALUES (uuid(20), uuid(10), 'v/share/Rec1', 1, 0, 0, 3000, 60, ''),
  (uuid(21), uuid(10), 'v/share/Rec2', 2, 0, 0, 100, 93, ''),
  (uuid(22), uuid(11), 'v/disk3', 3, 0, 0, 40, 1, ''),
  (uuid(23), uuid(11), 'v/share/Spare1', 4, 1, 8, 50, 10, ''),
  (uuid(24), uuid(99), 'v/share/Lone', 5, 0, 2, 10, 1, '');
INSERT INTO volume_channels VALUES (1, 0, ''), (1, 2, ''), (2, 2, ''), (2, 1, ''), (2, 1, ''),
  (3, 3, ''), (5, 40, '');
INSERT INTO channels VALUES (0, sid(1)), (2, sid(3)), (3, sid(4)), (5, sid(6)),
  (1, '99999999999999999999999999999999');
INSERT INTO faults VALUES ('create_channel_session', '5', -1), ('query_time_periods', '2:4:1', -1),
  ('query_time_periods', '2:4:0', -1);
INSERT INTO periods VALUES (0, 4, 1, -48, -47, sto(1), 'p1', 100), (0, 4, 1, -960, -959, NULL, 'p2', 0),
  (0, 4, 0, -120, -119, NULL, 'p3', 0), (0, 1, 2, -72, -71, NULL, 'p4', 0),
  (0, 1, 1, -96, -95, sto(5), 'p5', 30), (0, 4, 2, -144, -143, sto(2), 'p6', 20),
  (3, 1, 4, -240, -239, sto(4), 'p7', 7), (3, 4, 1, -744, -696, sto(4), 'p8', 5),
  (2, 1, 3, -24, -23, sto(3), 'p9', 11);
UPDATE periods SET start_ms = 1710930600000 + start_ms * 3600000, end_ms = 1710930600000 + end_ms * 3600000;
INSERT INTO profiles VALUES (0, sid(1), uuid(1), uuid(10), uuid(20), sto(1)),
  (2, sid(3), uuid(1), uuid(10), uuid(20), sto(3)), (0, sid(1), uuid(1), uuid(10), uuid(21), sto(2)),
  (3, sid(4), uuid(2), uuid(11), uuid(22), sto(4)), (0, sid(1), uuid(2), uuid(11), uuid(22), sto(5)),
  (7, sid(8), uuid(1), uuid(10), uuid(20), sto(6));
"""
kelvo, report = os.environ["KELVO"], os.environ["KELVO_REPORT"]
server = Server()
atexit.register(server.close)
server.exec(SERVER + "UPDATE volumes SET path = '{root}/' || path")
for volume_uuid, path, no in server.db.execute("SELECT uuid, path, volume_no FROM volumes WHERE volume_no != 4"):
    server.make_dir(server.fsu_folder(path, volume_uuid) + "/preallocate" + ("/sub" if no == 1 else ""))  # du: sub first
    open(server.fsu_folder(path, volume_uuid) + "/preallocate/fill", "w").write("x" * (3 << 20))
os.chdir(server.root)
os.environ.update(ORN_STORAGE_DB=server.db_path, LD_PRELOAD=FAKETIME, FAKETIME="2024-03-20 10:30:00",
                  FAKETIME_DONT_FAKE_MONOTONIC="1", ASAN_OPTIONS="verify_asan_link_order=0")

schema = os.path.join(HERE, "../doc/kelvo-report.schema.json")
find = lambda pattern, text: re.findall(pattern, text, re.M)


def sql(query):  # rows of the query's statements
    return [r for q in query.split(";") for r in server.db.execute(q)]


def out(*args, binary=kelvo, env={}, ok=True):  # standard output, of a run that must succeed quietly
    r = subprocess.run([binary, *args], capture_output=True, text=True, env={**os.environ, **env})
    assert not ok or (r.returncode, r.stderr) == (0, ""), (args, r)
    return r.stdout if ok else r


state = lambda: (server.dump(), server.tree())
before, rep = state(), json.loads(out(binary=report))
spaces, volumes, channels = rep["spaces"], rep["volumes"], rep["channels"]
jsonschema.validate(rep, json.loads(open(schema).read()), cls=jsonschema.Draft7Validator)
recycle = [(c, r) for c in channels for r in c["recycle"]]
assert sql("SELECT count(*) FROM call_log WHERE op = 'query_time_periods'") == [(len(recycle),)]
seen = json.dumps(rep, separators=(",", ":"))  # the fixture reaches every kind of figure
assert all(s in seen for s in '"leak":true "leak":false "lost_mb":null "space":null "critical" "warning" '
           '"query_failed":true "whole_window":false "null_storage_ids":2'.split()), seen
assert [(v["preallocate_remain_mb"], v["preallocate_total_mb"]) for v in volumes] == [(0, 3), (3, 3), (3, 3), (None, None), (3, 3)]
# A du missing, printing no number, or hanging (killed after --du-timeout) measures nothing; no message reaches stderr.
stubs = server.db_path + ".bin"  # beside the database, out of the server's tree
os.mkdir(stubs)
for stub, why, autoclean in [(None, "not found in the absolute entries of PATH", "Volume [%s/v/share/Spare1] path does not exist\nVolume space leak detected count: 0\n"
                              "recycle check process done.\n" % server.root), ("echo du: oops >&2; echo total", "printed no number", None),
                             ("echo $$ >%s/pid; exec /bin/sleep 30" % stubs, "was killed after the time limit", None)]:
    if stub:
        open(stubs + "/du", "w").write("#!/bin/sh\n%s\n" % stub)
        os.chmod(stubs + "/du", 0o755)
    env = {"PATH": stubs}
    got = json.loads(out("--du-timeout=0.3", binary=report, env=env))
    assert [(v["preallocate_remain_mb"], v["preallocate_total_mb"], v["lost_mb"], v["leak"]) for v in got["volumes"]] == [(None,) * 3 + (False,)] * 5
    assert [p["subject"] for p in got["problems"] if p["text"] == "not measured: du " + why] == \
        ["volume " + v["name"] for v in volumes if v["preallocate_remain_mb"] is not None], got["problems"]
    assert autoclean is None or out("autoclean", env=env) == autoclean
gone = lambda pid: not os.path.exists("/proc/%s" % pid) or open("/proc/%s/stat" % pid).read().split(") ")[1][0] == "Z"
assert gone(open(stubs + "/pid").read().strip())
r = out("--format=check", "-t", "0.5", binary=report, env=env, ok=False)  # giving up, the report kills its du
assert r.returncode == 3 and any(gone(open(stubs + "/pid").read().strip()) or time.sleep(0.1) for _ in range(20)), r
open(stubs + "/du", "w").write("#!/bin/sh\necho 1048576 sub; echo 2097152 .\n")  # MB as KiB / 1024, whatever the size
assert {(v["preallocate_remain_mb"], v["preallocate_total_mb"]) for v in json.loads(out(binary=report, env=env))["volumes"]} == {(1024, 2048), (None, None)}
for v in json.loads(out("--no-du", binary=report))["volumes"]:
    assert (v["preallocate_remain_mb"], v["lost_mb"], v["leak"]) == (None, None, False), v
ch = lambda c: "ch%02d" % (c["channel_id"] + 1)
uuid_of = {("space", s["name"]): s["uuid"] for s in spaces} | {("volume", v["name"]): v["uuid"] for v in volumes}
assert (rep["host"], rep["timezone"], out("-V", binary=report)) == (
    os.uname().nodename, "UTC", "kelvo-report %s\n" % rep["kelvo_version"])
refs = [(x, k) for k, xs in [("space", volumes), ("space", [r for c in channels for r in c["recordings"]]),
                              ("volume", channels)] for x in xs]  # every name reference with its uuid
assert all(uuid_of.get((k, x[k])) == x[k + "_uuid"] for x, k in refs), refs
assert all(uuid_of[tuple(p["subject"].split(" ", 1))] == p.get("uuid") for p in rep["problems"]
           if p["subject"].split()[0] in ("space", "volume")), rep["problems"]

got = find(r"^\[\d+\] \[(.*)\], total size: (-?\d+) GB, used: (-?\d+) MB, use .*% \[(.*?) *\]$", out("spacelist"))
assert got == [(s["name"], str(s["total_mb"] // 1024), str(s["used_mb"]), s["status"]) for s in spaces], got
for s in spaces:
    got = find(r"^\[\d+\] \[(.*)\], \[(.*)\] \[(.*?) *\], total size (-?\d+) GB, used (-?\d+) MB",
               out("vollist", s["name"]))
    assert got == [(v["name"], v["type"].upper().ljust(6), v["state"], str(v["total_mb"] // 1024), str(v["used_mb"]))
                   for v in volumes if v["space"] == s["name"]], got
volume_of = dict(find(r"^(ch\d+) volume=\[(.*)\]$", out("voluse", "-1")))
assert list(volume_of) == ["ch%02d" % (i + 1) for i in range(32)], volume_of  # every slot, in order
assert all(c["volume"] == (volume_of[ch(c)] or None) for c in channels)
for v in volumes:
    if not v["name"].startswith("VolName_"):
        assert v["channel_ids"] == [int(i) - 1 for i in find(r"uses channel\[(\d+)\]", out("volchn", v["name"]))], v
nullid = out("nullid", "-1")
for c in channels:
    assert c["null_storage_ids"] == sum(b.count("\n") for b in find(ch(c) + r" list:\n((?:\t.*\n)*)", nullid)), c
    assert c["query_failures"] == len(find(ch(c) + r" \[.*\] retrieve time period fail", nullid)), c
for s in spaces:
    blocks = find(r"^channel: (.*)\n(?:    s.*\n)*    N.*\n((?:        .*\n)*)    A.*\n((?:        .*\n)*)"
                  r"(?:    [NA].*\n)*    All recording size: (-?\d+)", out("spaceinfo", s["name"]))
    want = {(sid, tuple(find("= (.*)", nr)), tuple(find("= (.*)", ar)), int(size)) for sid, nr, ar, size in blocks
            if sid in [c["sid"] for c in channels]}
    got = [(c["sid"], tuple(r["days"]["NR"]), tuple(r["days"]["AR"]), r["size_mb"])
           for c in channels for r in c["recordings"] if r["space"] == s["name"]]
    assert sorted(got) == sorted(want), (got, want)

def alerts(r, value):  # a threshold range as the monitoring-plugin guidelines define it
    lo, _, hi = r.lstrip("@").rpartition(":")
    inside = float("-inf" if lo == "~" else lo or 0) <= value <= float(hi or "inf")
    return r != "" and inside == r.startswith("@")


# The check: every problem of the JSON, worst first, and performance data whose ranges give its status.
args = ["--warning=@50:94"]  # the leak alone is critical
r, problems = out("--format=check", *args, binary=report, ok=False), json.loads(out(*args, binary=report))["problems"]
head, *lines = r.stdout.splitlines()
problems.sort(key=lambda p: p["severity"] != "critical")
assert lines == ["%(severity)s: %(subject)s: %(text)s" % p for p in problems] and len({p["kind"] for p in problems}) > 3
assert "'space Main'=50.00%;@50:94;;0;100 " in head, head
perf = find(r"('[^']*'|\w+)=([\d.]+)%?;([^;]*);([^;]*)", head.split(" | ")[1])
worst = max(2 if alerts(c, float(v)) else alerts(w, float(v)) for _, v, w, c in perf)
assert [v for n, v, _, _ in perf if n.startswith("states_")] == [str(sum(p["kind"] == "state" and p["severity"] == s for p in problems)) for s in ("warning", "critical")]
critical = sum(p["severity"] == "critical" for p in problems)
assert (r.returncode, head.split(" | ")[0]) == (worst, "KELVO CRITICAL - %d critical, %d warning; %s: %s" % (
    critical, len(problems) - critical, problems[0]["subject"], problems[0]["text"])), r

assert sql("SELECT count(*) FROM call_log WHERE op IN ('set_volume_setting', 'refresh_space', "
           "'update_time_period', 'recycle_channel_data', 'CFSTier', 'CFSUnit')") == [(0,)]
assert state() == before

# The server is a copy from here on: recycling, --output and the states of the check.
got = find(r"^Volume \[(.*)\] total size -?\d+ GB\((-?\d+) MB\), used (-?\d+) MB\(preallocate_remain (-?\d+) MB\)"
           r"\.\nSize lost (-?\d+) MB", out("autoclean"))
assert got == [(v["name"], *(str(v[k]) for k in ("total_mb", "used_mb", "preallocate_remain_mb", "lost_mb")))
               for v in volumes if v["leak"]], got
volclean = dict(find(r"^Recycle --(ch\d+)-- data \.\.\.\n((?:\t.*\n)*)", out("volclean", "-1")))
calls = {row[:3]: row[3:] for row in sql("SELECT " + ", ".join("json_extract(args, '$.%s')" % k for k in (
    "channel_id", "record_type", "stream", "from_ms", "to_ms")) + " FROM call_log WHERE op = 'recycle_channel_data'")}
for c in channels:
    assert find(r"\[(..) S(\d+)\] (Success|Can not find)", volclean[ch(c)]) == [
        (r["record_type"], "%02d" % r["stream"], ("Success", "Can not find")[r["whole_window"]]) for r in c["recycle"]]
for c, r in recycle:
    assert calls[c["channel_id"], 4 if r["record_type"] == "NR" else 1, r["stream"]] == (r["from_ms"], r["bound_ms"])

os.mkdir("out")
os.umask(0o002)  # the report's file takes its mode from it
open("out/r.json", "w").write("old")
os.link("out/r.json", "out/keep")  # a file written in place would change its other name too
assert out("--output=out/r.json", binary=report) == "" and sorted(os.listdir("out")) == ["keep", "r.json"]
assert os.stat("out/r.json").st_mode & 0o777 == 0o664
assert (open("out/r.json").read(), open("out/keep").read()) == (out(binary=report), "old")

sql("UPDATE settings SET value = 'Europe/berlin' WHERE key = 'timezone'")  # no zone: no local time, no day
r = out("--format=check", binary=report, ok=False)
assert r.returncode == 2 and "\ncritical: server: the storage library has no local time" in r.stdout and \
    len(find(r"^warning: channel ch0\d [NA]R: recording days query failed in space (Main|Cold)$", r.stdout)) == 8, r
sql("UPDATE settings SET value = 'UTC' WHERE key = 'timezone'")
# A failed list call fails the whole report, named in each format; a fault of result 0 is an empty answer.
for op in ("get_space_list", "get_volume_list", "get_channel_setting_list"):
    sql("DELETE FROM faults WHERE op LIKE 'get_%%'; INSERT INTO faults VALUES ('%s', '*', -7)" % op)
    j, c, p = [out("--format=" + f, binary=report, ok=False) for f in ("json", "check", "prometheus")]
    why = "%s failed (result -7)" % op
    assert (j.returncode, j.stdout, j.stderr, c.returncode, c.stdout, c.stderr, p.returncode) == (
        1, '{"error":"%s","call":"%s"}\n' % (why, op), "kelvo-report: %s\n" % why, 3, "KELVO UNKNOWN - %s\n" % why, "", 1)
    assert [x for x in find(r"^(kelvo_\w+)(\S*) (\S+)$", p.stdout) if x[0] != "kelvo_report_duration_seconds"] == [
        ("kelvo_build_info", '{version="%s"}' % rep["kelvo_version"], "1"), ("kelvo_report_success", "", "0"),
        ("kelvo_report_failed_call_info", '{call="%s"}' % op, "1")] and sql("SELECT result FROM call_log WHERE op = '%s'" % op)[-1] == (-7,)
    sql("UPDATE faults SET result = 0")
    assert [len(json.loads(out(binary=report))[k]) for k in ("spaces", "volumes", "channels")].count(0) == 1
# A real lock, taken while du measures the last volume, fails the channel settings list after the library's 10 s.
sql("DELETE FROM faults WHERE op LIKE 'get_%'; UPDATE settings SET value = '0' WHERE key = 'trace'")  # one wait, not one per call
open(stubs + "/du", "w").write("#!/bin/sh\ncase $1 in *Lone*) /bin/touch %s/measuring; while [ ! -e %s/locked ]; do /bin/sleep 0.05; done;; esac\n"
                               "echo 1 .\n" % (stubs, stubs))
p = subprocess.Popen([report, "--format=prometheus"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env={**os.environ, "PATH": stubs})
any(os.path.exists(stubs + "/measuring") or time.sleep(0.05) for _ in range(400))
server.db.execute("BEGIN EXCLUSIVE"), open(stubs + "/locked", "w").close()
o, e = p.communicate(timeout=40)
assert ('kelvo_report_failed_call_info{call="get_channel_setting_list"} 1\n' in o, e, p.returncode) == (
    True, "kelvo-report: get_channel_setting_list failed (result -1)\n", 1), (o, e)
server.db.execute("ROLLBACK")
# du: only from absolute PATH entries (one planted in each preallocate folder never runs), and it dies with its parent.
for folder in glob.glob(server.root + "/v/**/preallocate", recursive=True):
    open(folder + "/du", "w").write("#!/bin/sh\ntouch %s/planted\n" % stubs) or os.chmod(folder + "/du", 0o755)
assert json.loads(out(binary=report, env={"PATH": ":.:/usr/bin:/bin"}))["volumes"] == volumes and out(
    "autoclean", env={"PATH": "/usr/local/bin::/usr/bin:/bin"}) and not os.path.exists(stubs + "/planted")
open(stubs + "/du", "w").write("#!/bin/sh\necho $$ >%s/pid; exec /bin/sleep 30\n" % stubs)
for args, sig in [([report], signal.SIGTERM), ([report, "--format=check", "-t", "20"], signal.SIGINT), ([kelvo, "autoclean"], signal.SIGHUP)]:
    os.unlink(stubs + "/pid")
    p = subprocess.Popen(args, stdout=subprocess.DEVNULL, env={**os.environ, "PATH": stubs})
    any(os.path.exists(stubs + "/pid") or time.sleep(0.05) for _ in range(100))
    time.sleep(0.1) or p.send_signal(sig) or p.wait()
    assert any(gone(open(stubs + "/pid").read().strip()) or time.sleep(0.1) for _ in range(20)), args
sql("DELETE FROM volumes; DELETE FROM periods; DELETE FROM faults; UPDATE spaces SET status = 0")
missing = {"ORN_STORAGE_DB": "missing.db"}
for used, args, want in [  # per 10000 of every space; the status, or the option an UNKNOWN line names
        (9999, [], 0), (1000, ["-w", "10"], 0), (1001, ["-w", "10"], 1), (999, ["--warning=10:"], 1),
        (1000, ["--warn", "10:"], 0), (1001, ["-w", "~:10"], 1), (0, ["-w", "~:10"], 0), (999, ["-w", "10:20"], 1),
        (2000, ["-w", "10:20"], 0), (2001, ["-w", "10:20"], 1), (1000, ["-w", "@10:20"], 1),
        (2000, ["-w", "@10:20"], 1), (999, ["-w", "@10:20"], 0), (2001, ["-w", "@10:20"], 0), (5000, ["--warn=50"], 0),
        (8500, ["-w", "80", "--crit", "90"], 1), (9001, ["-w80", "-c90"], 2), (9001, ["-c", "90.5"], 0),
        (9001, ["-w", "99", "--min-days", "1:"], 0), (0, ["-w", "nan"], "--warning"),
        (0, ["--warn=abc"], "--warning"), (0, ["--warn=" + "9" * 300], "--warning"),
        (0, ["--warning=-5"], "--warning"), (0, ["-w", "1.5.0"], "--warning"),
        (0, ["-c", "20:10"], "--critical"), (0, ["-c", ":5"], "--critical"), (0, ["--min-days=inf"], "--min-days"),
        (0, ["-t", "0"], "--timeout"), (0, ["--timeout=-1"], "--timeout")]:
    status, head = (3, "KELVO UNKNOWN - %s: not a " % want) if isinstance(want, str) else (
        want, "KELVO %s - " % ("OK", "WARNING", "CRITICAL")[want])
    sql("UPDATE spaces SET used_size_mb = total_size_mb * %d / 10000" % used)
    r = out("--format=check", *args, binary=report, ok=False)
    assert (r.returncode, r.stdout[:len(head)], r.stdout.count("\n"), len(r.stdout) < 500, r.stderr) == (
        status, head, 3 if status in (1, 2) else 1, True, ""), (used, args, r)  # a line per space that alerts
os.mkfifo("out/fifo") or os.symlink("r.json", "out/link") or os.mkdir("out/dir")
for args, env, status, head, err_lines in [
        ([], missing, 1, '{"error":', 1), (["--format=prometheus"], missing, 1, "# HELP", 1),
        (["--format=xml"], {}, 2, "", 1), (["-w", "x"], {}, 2, "", 1), (["--bogus"], {}, 2, "", 1),
        (["--du-timeout="], {}, 2, "", 1), (["--output=", "--format=prometheus"], {}, 2, "", 1),
        (["--output", ""], {}, 2, "", 1), (["--output=out/"], {}, 2, "", 1), (["--output=out/fifo"], {}, 2, "", 1),
        (["--output=out/link"], {}, 2, "", 1), (["--output=out/dir"], {}, 2, "", 1), (["--output=no/x"], {}, 2, "", 1),
        (["--format=check", "--output=out/fifo"], {}, 3, "KELVO UNKNOWN - --output: out/fifo exists", 0),
        (["--format", "check", "--bogus"], {}, 3, "KELVO UNKNOWN - ", 0),
        (["--format=check"], missing, 3, "KELVO UNKNOWN - ", 0)]:
    r = out(*args, binary=report, env=env, ok=False)
    assert (r.returncode, r.stdout[:len(head)], r.stderr.count("\n"), "\nkelvo_report_success 0\n" in r.stdout) == (
        status, head, err_lines, head == "# HELP"), r

assert sorted(os.listdir("out")) == ["dir", "fifo", "keep", "link", "r.json"] and os.path.islink("out/link") and not os.listdir("out/dir")
os.mkdir("gone")  # a relative --output from a starting folder since removed lands nowhere
r = subprocess.run(["sh", "-c", 'cd gone && rmdir ../gone && exec "$0" --output=x.json', report], capture_output=True, text=True)
assert (r.returncode, r.stderr.count("\n"), glob.glob(server.root + "/**/x.json", recursive=True)) == (2, 1, []), r
sql("INSERT INTO spaces VALUES (uuid(4), 'a=b', uuid(12), 9, 1, 0, 0), (uuid(5), 'a''b', uuid(12), 9, 1, 0, 0), (uuid(6), 'a_b', uuid(12), 9, 1, 0, 0);"
    "UPDATE settings SET value = 'Bad' || char(10) || 'Zone' WHERE key = 'timezone'")  # labels apart, the log in lines
assert find(r"'space a.b[^']*'", out("--format=check", binary=report, env={"ORN_LOG_FILE": "log"}, ok=False).stdout) == [
    "'space a_b %s'" % uuid(n) for n in (4, 5, 6)] and open("log").read().count("\n") == 1 and "Bad\\x0AZone" in open("log").read()
server.db.execute("BEGIN EXCLUSIVE")  # the library waits 10 s for a lock; the check gives up first
for args, status, head in [(["--format=check", "-t", "1"], 3, "KELVO UNKNOWN - "), (["-t", "1.5"], 1, '{"error":')]:
    start, r = time.monotonic(), out(*args, binary=report, ok=False)
    assert (r.returncode, r.stdout[:len(head)], r.stdout.count("\n")) == (status, head, 1), r
    assert time.monotonic() - start < float(args[-1]) + 1, args
server.db.execute("ROLLBACK")
