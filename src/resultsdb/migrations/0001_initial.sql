-- One row per unit under test, written with its stage checks in one
-- transaction. uut_key is chosen by the station when the UUT ends and stays
-- with the record through the queue, so a retried write changes nothing.
CREATE TABLE uut (
  uut_key TEXT PRIMARY KEY,
  station TEXT NOT NULL,
  sequence_file TEXT NOT NULL,
  test_definition TEXT NOT NULL,
  test_title TEXT NOT NULL,
  test_version TEXT NOT NULL,
  serial TEXT NOT NULL,
  test_date TEXT NOT NULL,
  operators TEXT NOT NULL,
  description TEXT NOT NULL,
  started_at TEXT NOT NULL,
  ended_at TEXT NOT NULL,
  verdict TEXT NOT NULL CHECK (verdict IN ('PASS', 'FAIL')),
  check_count INTEGER NOT NULL,
  failed_count INTEGER NOT NULL
);
CREATE INDEX uut_by_end ON uut (ended_at);
CREATE INDEX uut_by_serial ON uut (serial, ended_at);
CREATE INDEX uut_by_station ON uut (station, ended_at);
CREATE INDEX uut_by_title ON uut (test_title, ended_at);
CREATE INDEX uut_by_verdict ON uut (verdict, ended_at);

CREATE TABLE stage_check (
  uut_key TEXT NOT NULL REFERENCES uut (uut_key) ON DELETE CASCADE,
  position INTEGER NOT NULL,
  step INTEGER NOT NULL,
  row_number INTEGER NOT NULL,
  kind TEXT NOT NULL,
  parameter TEXT NOT NULL,
  channel TEXT NOT NULL,
  value TEXT NOT NULL,
  reading DOUBLE PRECISION,
  units TEXT NOT NULL,
  lower_limit TEXT NOT NULL,
  upper_limit TEXT NOT NULL,
  result TEXT NOT NULL,
  message TEXT NOT NULL,
  PRIMARY KEY (uut_key, position)
);
CREATE INDEX stage_check_by_parameter ON stage_check (parameter);
