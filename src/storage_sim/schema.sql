CREATE TABLE spaces (
  uuid          TEXT    NOT NULL,            -- 36 characters
  name          TEXT    NOT NULL,
  group_uuid    TEXT    NOT NULL,            -- 36 characters
  total_size_mb INTEGER NOT NULL DEFAULT 0,
  used_size_mb  INTEGER NOT NULL DEFAULT 0,
  status        INTEGER NOT NULL DEFAULT 0,
  spare_status  INTEGER NOT NULL DEFAULT 0
);
CREATE TABLE volumes (
  uuid          TEXT    NOT NULL,            -- 36 characters
  group_uuid    TEXT    NOT NULL,            -- 36 characters
  path          TEXT    NOT NULL,
  volume_no     INTEGER NOT NULL DEFAULT -1,
  volume_type   INTEGER NOT NULL DEFAULT 0,
  state         INTEGER NOT NULL DEFAULT 0,
  total_size_mb INTEGER NOT NULL DEFAULT 0,
  used_size_mb  INTEGER NOT NULL DEFAULT 0,
  label         TEXT    NOT NULL DEFAULT ''  -- the first text field of the volume setting
);
CREATE TABLE channels (                      -- channel storage settings, one per slot
  channel_id    INTEGER NOT NULL,
  sid           TEXT    NOT NULL             -- 32 characters; 32 x '9' = empty slot
);
CREATE TABLE periods (
  channel_id    INTEGER NOT NULL,
  record_type   INTEGER NOT NULL,            -- 4 normal, 1 alarm
  stream        INTEGER NOT NULL,
  start_ms      INTEGER NOT NULL,
  end_ms        INTEGER NOT NULL,
  storage_id    BLOB,                        -- up to 32 bytes; NULL = all zero bytes
  period_key    TEXT    NOT NULL UNIQUE,     -- at most 63 characters
  size_mb       INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX periods_by_stream ON periods (channel_id, record_type, stream, start_ms);
CREATE TABLE profiles (                      -- storage-id profiles
  channel_id    INTEGER NOT NULL,            -- owner channel
  sid           TEXT    NOT NULL,            -- owner channel, 32 characters
  space_uuid    TEXT    NOT NULL,
  group_uuid    TEXT    NOT NULL,
  volume_uuid   TEXT    NOT NULL,
  storage_id    TEXT    NOT NULL             -- 32 characters
);
CREATE TABLE volume_channels (               -- what the plug-and-play service reports
  volume_no     INTEGER NOT NULL,
  channel_id    INTEGER NOT NULL,
  sid           TEXT    NOT NULL DEFAULT ''
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
