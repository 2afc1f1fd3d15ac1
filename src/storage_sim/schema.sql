CREATE TABLE spaces (
  uuid          TEXT    NOT NULL UNIQUE CHECK (length(CAST(uuid AS BLOB)) = 36),
  name          TEXT    NOT NULL CHECK (length(CAST(name AS BLOB)) <= 512),
  group_uuid    TEXT    NOT NULL CHECK (length(CAST(group_uuid AS BLOB)) = 36),
  total_size_mb INTEGER NOT NULL DEFAULT 0,
  used_size_mb  INTEGER NOT NULL DEFAULT 0,
  status        INTEGER NOT NULL DEFAULT 0 CHECK (status BETWEEN -2147483648 AND 4294967295),
  spare_status  INTEGER NOT NULL DEFAULT 0 CHECK (spare_status BETWEEN -2147483648 AND 4294967295)
);
CREATE TABLE volumes (
  uuid          TEXT    NOT NULL UNIQUE CHECK (length(CAST(uuid AS BLOB)) = 36),
  group_uuid    TEXT    NOT NULL CHECK (length(CAST(group_uuid AS BLOB)) = 36),
  path          TEXT    NOT NULL CHECK (length(CAST(path AS BLOB)) <= 1024),
  volume_no     INTEGER NOT NULL DEFAULT -1 CHECK (volume_no BETWEEN -2147483648 AND 4294967295),
  volume_type   INTEGER NOT NULL DEFAULT 0 CHECK (volume_type BETWEEN -2147483648 AND 4294967295),
  state         INTEGER NOT NULL DEFAULT 0 CHECK (state BETWEEN -2147483648 AND 4294967295),
  total_size_mb INTEGER NOT NULL DEFAULT 0,
  used_size_mb  INTEGER NOT NULL DEFAULT 0,
  label         TEXT    NOT NULL DEFAULT '' CHECK (length(CAST(label AS BLOB)) <= 512)
                                             -- the first text field of the volume setting
);
CREATE TABLE channels (                      -- channel storage settings, one per slot
  channel_id    INTEGER NOT NULL CHECK (channel_id BETWEEN -2147483648 AND 4294967295),
  sid           TEXT    NOT NULL CHECK (length(CAST(sid AS BLOB)) <= 32)
                                             -- 32 characters; 32 x '9' = empty slot
);
CREATE TABLE periods (
  channel_id    INTEGER NOT NULL CHECK (channel_id BETWEEN -2147483648 AND 4294967295),
  record_type   INTEGER NOT NULL CHECK (record_type BETWEEN -2147483648 AND 4294967295),
                                             -- 4 normal, 1 alarm
  stream        INTEGER NOT NULL CHECK (stream BETWEEN -2147483648 AND 4294967295),
  start_ms      INTEGER NOT NULL,
  end_ms        INTEGER NOT NULL,
  storage_id    BLOB    CHECK (length(CAST(storage_id AS BLOB)) <= 32),
                                             -- up to 32 bytes; NULL = all zero bytes
  period_key    TEXT    NOT NULL UNIQUE CHECK (length(CAST(period_key AS BLOB)) <= 63),
  size_mb       INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX periods_by_stream ON periods (channel_id, record_type, stream, start_ms);
CREATE TABLE profiles (                      -- storage-id profiles
  channel_id    INTEGER NOT NULL CHECK (channel_id BETWEEN -2147483648 AND 4294967295),
  sid           TEXT    NOT NULL CHECK (length(CAST(sid AS BLOB)) <= 32),
  space_uuid    TEXT    NOT NULL CHECK (length(CAST(space_uuid AS BLOB)) = 36),
  group_uuid    TEXT    NOT NULL CHECK (length(CAST(group_uuid AS BLOB)) = 36),
  volume_uuid   TEXT    NOT NULL CHECK (length(CAST(volume_uuid AS BLOB)) = 36),
  storage_id    TEXT    NOT NULL CHECK (length(CAST(storage_id AS BLOB)) <= 32)
);
CREATE TABLE volume_channels (               -- what the plug-and-play service reports
  volume_no     INTEGER NOT NULL CHECK (volume_no BETWEEN -2147483648 AND 4294967295),
  channel_id    INTEGER NOT NULL CHECK (channel_id BETWEEN -2147483648 AND 4294967295),
  sid           TEXT    NOT NULL DEFAULT '' CHECK (length(CAST(sid AS BLOB)) <= 32)
);
CREATE TABLE faults (                        -- injected failures, see below
  op            TEXT    NOT NULL,
  target        TEXT    NOT NULL DEFAULT '*',
  result        INTEGER NOT NULL DEFAULT -1
);
CREATE TABLE settings (
  key           TEXT    PRIMARY KEY,
  value         TEXT    NOT NULL
);
CREATE TABLE call_log (
  seq           INTEGER PRIMARY KEY AUTOINCREMENT,
  op            TEXT    NOT NULL,
  args          TEXT    NOT NULL,            -- a JSON object
  result        INTEGER
);
