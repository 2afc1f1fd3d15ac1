#!/usr/bin/python3
"""kelvo-report --plan on random servers, most with leaking volumes, in zones whose clocks jump by an
hour or half an hour, at fixed times whose 30 days hold those jumps (one has the window
start inside Berlin's repeated hour): the plan changes nothing (database and tree byte for byte),
passes its schema, and its folders inside a window without a listed period are exactly the hour
folders that autoclean and then volclean -1 remove."""
import calendar, hashlib, json, os, random, re, sys, time

import jsonschema

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "support"))
from server import FAKETIME, Server, sid, uuid

if not os.path.exists(FAKETIME):
    sys.exit(77)
REPORT = os.environ["KELVO_REPORT"]
SCHEMA = json.load(open(os.path.join(os.path.dirname(__file__), "../doc/kelvo-report.schema.json")))
ZONES = os.environ.get("KELVO_PLAN_ZONES", "UTC Europe/Berlin America/St_Johns Australia/Lord_Howe Asia/Kolkata").split()
NOWS = ["2024-04-20 11:17:23", "2024-11-15 09:41:07", "2024-10-20 14:23:51", "2024-11-26 01:30:00",
        "2024-10-27 01:30:00"]
HOUR, rng = 3600000, random.Random()


def build(s, now):
    """Spaces 0..2 with groups 10+i; volume v in group 10 + v % 4 (group 13 has no space), half of
    them leaking; channels with periods and hour folders from 33 days back to a day ahead."""
    spaces, volumes = rng.randint(1, 3), rng.randint(1, 4)
    sql = "".join("INSERT INTO spaces VALUES (uuid(%d), 'S%d', uuid(%d), 0, 0, 0, 0);" % (i, i, 10 + i)
                  for i in range(spaces))
    fsus, q = [], 15 * 60000  # instants next to the clock's jumps and the window's start
    jumps = [t for t in range(now - 34 * 24 * HOUR, now, q)
             if time.localtime(t // 1000).tm_gmtoff != time.localtime((t + q) // 1000).tm_gmtoff]
    edges = [t + d * 60000 for t in jumps + [now - 720 * HOUR] for d in (-70, -40, -10, 5, 20, 50, 80)]
    for v in range(volumes):
        path = s.path("share/V%d" % v)
        sql += "INSERT INTO volumes VALUES (uuid(%d), uuid(%d), '%s', %d, 0, 0, 1000, %d, '');" % (
            20 + v, 10 + v % 4, path, v, rng.choice([900, 1000]))
        fsus.append(s.fsu_folder(path, uuid(20 + v)))
        s.make_dir(fsus[-1] + "/preallocate")
    for c in range(rng.randint(1, 4)):
        channel_id = c if rng.randrange(5) else c + 40  # now and then a second entry of one sid
        sql += "INSERT INTO channels VALUES (%d, sid(%d));" % (channel_id, c % 3)
        for kind in (4, 1):
            for stream in range(5):
                # A stream whose bound falls just after a jump of the clock, or random periods.
                jump = rng.choice(jumps) if jumps and rng.randrange(3) == 0 else None
                for i in range(1 if jump else rng.choice([0, 0, 1, 2])):
                    start = jump + rng.choice([20, 35, 50, 70]) * 60000 if jump else \
                        now - rng.randrange(35 * 24) * HOUR - rng.randrange(HOUR)
                    sql += "INSERT INTO periods VALUES (%d, %d, %d, %d, %d, NULL, '%x', 0);" % (
                        channel_id, kind, stream, start, start + rng.randrange(1, 5 * HOUR), rng.getrandbits(64))
                for _ in range(rng.randrange(6)):
                    at = jump + rng.choice([-50, -10, 10, 50]) * 60000 if jump else rng.choice(edges) if rng.randrange(2) else now + 24 * HOUR - rng.randrange(34 * 24 * 60) * 60000
                    folder = s.hour_folder(rng.choice(fsus), sid(c % 3), kind, stream, at)
                    s.make_dir(folder)
                    open(folder + "/r", "w").write("x" * rng.randrange(9000))
    s.exec("BEGIN;" + sql + "COMMIT;")


def state(s):  # the database file and every path below the root with the bytes of each file
    digest = hashlib.sha256(open(s.db_path, "rb").read())
    for path in s.tree():
        digest.update(path.encode() + (b"" if path.endswith("/") else open(s.path(path), "rb").read()))
    return digest.hexdigest()


def hours(s):
    return {s.path(p[:-1]) for p in s.tree() if re.search(r"/\d{8}/\d\d/$", p)}


def plan(s, at, spec):
    before = state(s)
    out, err, status = s.run(["--plan=" + spec, "--format=json"], at=at, binary=REPORT)
    assert (status, err, state(s)) == (0, b"", before), (spec, status, err)
    text, err, status = s.run(["--plan=" + spec], at=at, binary=REPORT)
    assert (status, err, state(s)) == (0, b"", before), (spec, status, err)
    p = json.loads(out)
    jsonschema.validate(p, SCHEMA, cls=jsonschema.Draft7Validator)
    going = {f["path"] for f in p["plan"]["folders"] if f["inside_window"] and f["listed_periods"] == 0}
    # The text's closing lines: the command, then the summary with the same count.
    assert text.decode().splitlines()[-2:][0] == "Run: kelvo " + spec.replace(":", " ") and \
        text.decode().splitlines()[-1].startswith("Plan: %d hour folders" % len(going)), text
    return p["plan"], going


checked = {"leaking": 0, "folders": 0, "partly outside": 0}
for seed in range(int(os.environ.get("KELVO_PLAN_SERVERS", "25"))):
    rng.seed(seed)
    with Server(ZONES[seed % len(ZONES)]) as s:
        at_text = NOWS[seed // len(ZONES) % len(NOWS)]  # every zone at every time
        at = calendar.timegm(time.strptime(at_text, "%Y-%m-%d %H:%M:%S"))
        build(s, at * 1000)
        for spec, command in (("autoclean", ["autoclean"]), ("volclean:-1", ["volclean", "-1"])):
            p, going = plan(s, at, spec)
            before = hours(s)
            out, err, status = s.run(command, at=at)
            assert (status, err) == (0, b""), (command, status, err)
            removed = before - hours(s)
            assert removed == going, "seed %d %s (%s at %s): planned %s, removed %s" % (
                seed, spec, s.tz, at_text, sorted(going - removed), sorted(removed - going))
            checked["leaking"] += sum(v["leak"] for v in p.get("volumes", []))
            checked["folders"] += len(going)
            checked["partly outside"] += sum(not f["inside_window"] for f in p["folders"])
# The servers reach every kind of folder and volume the comparison is about.
assert all(checked.values()), checked
print("plan: %s" % checked)
