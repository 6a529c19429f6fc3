-- The results files written for each unit, as the station named them, so
-- that a unit's page can link to them.
CREATE TABLE uut_file (
  uut_key TEXT NOT NULL REFERENCES uut (uut_key) ON DELETE CASCADE,
  position INTEGER NOT NULL,
  path TEXT NOT NULL,
  PRIMARY KEY (uut_key, position)
);
