"""A simulated recording server: a temporary folder, a database made from the schema file, the
real binaries run against it. Paths and binaries come from the environment ctest sets:
KELVO, KELVO_REPORT, KELVO_SCHEMA."""
import os, shutil, sqlite3, subprocess, tempfile, time

FAKETIME = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1"


# Identifiers of their field's width (uuid 36 characters, sid and storage id 32).
def uuid(n): return "a0b1c2d3-0000-4000-8000-%012d" % n
def sid(n): return "5d%030d" % n
def storage_id(n): return "7e%030d" % n


def local_ms(text):  # of a local "YYYY-MM-DD HH:MM:SS"
    return int(time.mktime(time.strptime(text, "%Y-%m-%d %H:%M:%S"))) * 1000


def text(value):  # a value as the sqlite3 shell prints it
    return "" if value is None else value.decode(errors="surrogateescape") if isinstance(value, bytes) else str(value)


class Server:
    """Sets TZ for this process too, so that local times agree with kelvo's. In SQL given to
    exec() and query(): {root}, uuid(n), sid(n), sto(n), and ms('YYYY-MM-DD HH:MM:SS')."""

    def __init__(self, tz="UTC"):
        os.environ["TZ"] = self.tz = tz
        time.tzset()
        self.root = tempfile.mkdtemp(prefix="kelvo-sim", dir="/tmp")  # 22 characters: cases measure paths
        self.db_path = os.path.join(self.root, "storage.db")
        self.db = sqlite3.connect(self.db_path, isolation_level=None)
        for name, f in [("uuid", uuid), ("sid", sid), ("sto", storage_id), ("ms", local_ms)]:
            self.db.create_function(name, 1, f, deterministic=True)
        self.exec(open(os.environ["KELVO_SCHEMA"]).read())
        self.exec("INSERT INTO settings VALUES ('timezone', '%s')" % tz)  # the recorder's zone

    def close(self, keep=False):  # |keep|: the folder stays, for a look at a failure
        self.db.close()
        if not keep:
            shutil.rmtree(self.root, ignore_errors=True)

    def __enter__(self): return self
    def __exit__(self, *_): self.close()

    def path(self, relative):  # below the root unless absolute
        return os.path.join(self.root, relative)

    def exec(self, sql):
        self.db.executescript(sql.replace("{root}", self.root))

    def query(self, sql):  # rows as lines, columns joined by '|'
        return "".join("|".join(map(text, row)) + "\n" for row in self.db.execute(sql.replace("{root}", self.root)))

    def fsu_folder(self, volume_path, volume_uuid):
        return self.path(volume_path) + "/FSU_" + volume_uuid[4:36]

    def hour_folder(self, fsu, sid_text, record_type, stream, time_ms):
        return fsu + "/%s/%d/%d/%s" % (sid_text[:32], record_type, stream,
                                       time.strftime("%Y%m%d/%H", time.localtime(time_ms // 1000)))

    def make_dir(self, path):
        os.makedirs(self.path(path), exist_ok=True)

    def dump(self):  # every table but call_log, each value's type and bytes
        out = ""
        for (table,) in self.db.execute("SELECT name FROM sqlite_master WHERE type = 'table' AND name "
                                        "NOT IN ('call_log', 'sqlite_sequence') ORDER BY name"):
            columns = [c for (c,) in self.db.execute("SELECT name FROM pragma_table_info(?)", (table,))]
            select = "".join(", typeof(%s) || ':' || hex(%s)" % (c, c) for c in columns)
            out += "== %s\n%s" % (table, self.query("SELECT rowid%s FROM %s ORDER BY rowid" % (select, table)))
        return out

    def tree(self, folder=""):  # every path below the root but the database's, folders with a '/'
        entries = []
        for e in os.scandir(self.path(folder) if folder else self.root):
            relative = folder + e.name
            if relative.startswith("storage.db"):
                continue
            entries.append(relative + "/" if e.is_dir(follow_symlinks=False) else relative)
            if e.is_dir(follow_symlinks=False):
                entries += self.tree(relative + "/")
        return sorted(entries)

    def run(self, args, env=(), at=None, binary=None, timeout=None):
        """Runs kelvo (or |binary|) in the root folder with ORN_STORAGE_DB, TZ, PATH, HOME and the
        sanitizer options, at a fixed clock (libfaketime) when |at| (seconds) is given; later
        entries of |env| win. Returns (stdout bytes, stderr bytes, exit status or -1)."""
        full = {k: v for k, v in os.environ.items() if k in ("PATH", "HOME", "ASAN_OPTIONS", "UBSAN_OPTIONS")}
        full.update(ORN_STORAGE_DB=self.db_path, TZ=self.tz)
        if at is not None:
            full.update(LD_PRELOAD=FAKETIME, FAKETIME=time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(at)),
                        FAKETIME_DONT_FAKE_MONOTONIC="1", ASAN_OPTIONS="verify_asan_link_order=0")
        full.update(e.split("=", 1) for e in env)
        r = subprocess.run([binary or os.environ["KELVO"], *args], cwd=self.root, env=full,
                           stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout)
        return r.stdout, r.stderr, max(r.returncode, -1)
