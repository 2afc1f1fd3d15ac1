#!/usr/bin/python3
"""Every command on random servers of hostile data: numbers at 32- and 64-bit edges, long paths or
with shell metacharacters, periods ending before they start, duplicates, empty tables, injected
failures, hour and preallocate folders, texts with zero bytes, cut, all '9', as blobs; rows the
schema refuses are left out. Seeds from KELVO_FUZZ_SEED on, KELVO_FUZZ_ITERATIONS servers or
for KELVO_FUZZ_SECONDS."""
import os, random, re, sys, time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "support"))
from server import Server, sid, storage_id, uuid

rng = random.Random()
chance = lambda percent: rng.randrange(100) < percent
word = lambda text: rng.choice(text.split())


def num(wide=False):  # at the edges of a 32-bit column, or of 64 bits
    edges = "0 -1 4 32 1024 -1535 2147483647 -2147483648 4294967295"
    edges += " 1099511627776 9223372036854775807 -9223372036854775808" if wide else ""
    return str(rng.randint(-100000, 100000)) if chance(30) else word(edges)


def lit(s):  # bytes as SQL text, sometimes with a zero byte, cut, all '9' or '0', a dot folder,
    s, case = s.encode(), rng.randrange(40)  # a shell character or a high byte, or as a blob
    at = rng.randrange(len(s)) if s else 0
    if s and case == 0: s = s[:at] + b"\0" + s[at + 1:]
    if s and case == 1: s = s[:at]
    if s and case == 2: s = (b"9" if chance(50) else b"0") * len(s)
    if s and case == 3: s = b"." if chance(50) else b".."
    if s and case == 4: s = s[:at] + bytes([b"$`;|&<>'\" \\*?\n\x80\xff"[rng.randrange(16)]]) + s[at + 1:]
    return ("CAST(X'%s' AS TEXT)" if chance(90) else "X'%s'") % s.hex()


def row(table, *values):
    return "INSERT OR IGNORE INTO %s VALUES (%s);" % (table, ", ".join(values))


def rest():  # of a volume path, after the server's folder
    return rng.choice(["share/V0", "share/V1", "noshare", "share/", "m/share/a/share/b",
                       "share/" + "/".join(c * 199 for c in "abcde"), "share/" + "n" * 128, "share/v;touch marker;#",
                       "share/v$(touch marker)`touch marker`|touch marker&& \n*'\""])


def build(s):
    """Space i has the group uuid(100 + i), volume i the group of space i % 3; the profiles of a
    channel name volume k, its group and its space."""
    now, day, volumes, fsus = int(time.time()) * 1000, 86400000, rng.randrange(6), []
    sql = "INSERT INTO settings VALUES ('trace', '1');" if chance(30) else ""
    for i in range(rng.randrange(4)):
        sql += row("spaces", lit(uuid(i)), lit("S" * rng.choice([1, 512])), lit(uuid(100 + i)), num(True), num(True), num(), num())
    for i in range(volumes):
        path = (s.root + "/" + rest())[:1024]
        sql += row("volumes", lit(uuid(200 + i)), lit(uuid(100 + i % 3)), lit(path), str(i) if chance(50) else num(),
                   num(), num(), num(True), num(True), lit("L" * rng.randrange(513)))
        if chance(25):
            continue  # a volume without folders
        fsus.append(s.fsu_folder(path, uuid(200 + i)))
        s.make_dir(fsus[-1] + "/preallocate" + ("/sub" if chance(20) else ""))
        if chance(30):
            open(fsus[-1] + "/preallocate/r", "w").write("x" * (1 << 17))
    for c in range(rng.randrange(7)):
        id, sid_text = str(c) if chance(70) else num(), sid(c)
        sql += row("channels", id, lit(sid_text))
        for k in range(rng.randrange(2), volumes + 1, 1 + rng.randrange(2)):
            sql += row("profiles", id, lit(sid_text), lit(uuid(k % 3)), lit(uuid(100 + k % 3)), lit(uuid(200 + k)),
                       lit(storage_id(rng.randrange(3))))
        if chance(50):
            sql += row("volume_channels", str(rng.randrange(6)) if chance(80) else num(), id, lit(sid_text))
        for i in range(rng.randrange(12)):  # with hour folders in the last 40 days
            kind, stream, start = int(word("4 4 4 1 1 2 4294967295")), rng.randrange(6), now - rng.randrange(40 * day)
            end = start + rng.randrange(day // 8) - day // 24
            if fsus and chance(70):
                hour = s.hour_folder(rng.choice(fsus), sid_text, kind, stream, start)
                s.make_dir(hour)
                if chance(50):
                    open(hour + "/data", "w").write("x")
            if chance(10):
                start = int(word("-1 -9223372036854775808 9223372036854775807"))
            key = "k%d-%d%s%s" % (c, i, "$(touch marker)" if chance(20) else "", "K" * rng.choice([0, 55]))
            sto = word("NULL NULL X''") if chance(60) else lit(storage_id(1))
            sql += row("periods", id if chance(90) else num(), str(kind), str(stream), str(start), str(end), sto, lit(key), num(True))
    for _ in range(0 if chance(70) else 1 + rng.randrange(3)):
        target = uuid(200 * rng.randrange(2) + rng.randrange(3)) if chance(30) else word("* * 0 1 2 0:4:1 1:1:2 k0-1 k1-0")
        op = word("create_plug_play_service create_channel_session tier_init query_time_periods update_time_period "
                  "retrieve_storage_id_profile_list get_volume_setting unit_init create_channel_configuration "
                  "create_storage_setting get_space_list get_volume_list get_channel_setting_list")
        sql += row("faults", "'%s'" % op, lit(target), word("-1 0 1 7 -2147483648 4294967301"))
    s.exec("BEGIN;" + sql + "COMMIT;")


def check(s, args):
    """Runs one command: exit 0 (kelvo-report: its codes) and quiet; volset may change volumes'
    type and state, recoverid periods' storage ids (both put back from a copy to compare),
    volclean and autoclean remove day folders; nothing else changes."""
    report, sets = args[0].startswith("-"), args[0] == "volset"
    cleans = "clean" in args[0] and not report  # a plan removes nothing
    table, columns = ("volumes", "volume_type, state") if sets else ("periods", "storage_id")
    before, tree = s.dump(), s.tree()
    s.exec("DROP TABLE IF EXISTS old; CREATE TEMP TABLE old AS SELECT rowid AS r, * FROM " + table)
    out, err, status = s.run(args, binary=os.environ["KELVO_REPORT"] if report else None)
    problems = [] if status in ((0, 1, 2, 3) if report else (0,)) else ["status %d" % status]
    problems += [] if re.fullmatch(b"(kelvo-report: .*\n)?" if report else b"", err) else [err]
    series = [line.rsplit(b" ", 1)[0] for line in out.splitlines() if args == ["--format=prometheus"] and line[:1] != b"#"]
    problems += ["series repeat"] if len(set(series)) != len(series) else []
    now = s.tree()
    problems += ["new " + p for p in now if p not in tree]
    problems += ["gone " + p for p in tree if p not in now and not (cleans and re.match(r"(.*/)?\d+/\d+/\d{8}/", p, re.S))]
    if sets or args[0] == "recoverid":
        s.exec("UPDATE %s SET (%s) = (SELECT %s FROM old WHERE r = %s.rowid)" % (table, columns, columns, table))
    return problems + ([] if s.dump() == before else ["the database changed"])


first = int(os.environ.get("KELVO_FUZZ_SEED", "20240611"))
seconds, servers = int(os.environ.get("KELVO_FUZZ_SECONDS", "0")), int(os.environ.get("KELVO_FUZZ_ITERATIONS", "16"))
seed, end = first, time.time() + seconds
while time.time() < end if seconds else seed - first < servers:
    rng.seed(seed)
    with Server(word("UTC America/New_York Asia/Kolkata Australia/Lord_Howe")) as s:
        build(s)
        arg = {"V": re.sub(r"^(m/)?share/", "", rest()), "T": str(rng.randrange(2)), "S": "S" * rng.choice([1, 512, 600]),
               "C": word("-1 -1 -1 0 1 5 32 -2 3x 4294967295 99999999999999999999")}
        for line in ["spacelist", "vollist S", "voluse C", "volchn V", "nullid C", "spaceinfo S", "--format=json",
                     "--format=prometheus", "--format=check", "--plan=volclean:-1", "--plan=autoclean --format=json",
                     "volclean C", "autoclean", "volset V T T", "recoverid C"]:
            problems = check(s, [arg.get(a, a) for a in line.split()])
            if problems:
                sys.exit("FAILED: %s\n%s\nreplay: KELVO_FUZZ_SEED=%d KELVO_FUZZ_ITERATIONS=1" % (line, problems, seed))
    seed += 1
print("hostile servers checked: seeds %d to %d" % (first, seed - 1))
