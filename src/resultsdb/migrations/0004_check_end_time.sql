-- The time its unit ended, beside each check: the readings of a check come
-- in the order their units ended straight from an index, without a join to
-- the units and a sort of a hundred thousand rows. Checks already stored
-- take the time from their unit.
ALTER TABLE stage_check ADD COLUMN ended_at TEXT NOT NULL DEFAULT '';
UPDATE stage_check SET ended_at = (SELECT u.ended_at FROM uut u WHERE u.uut_key = stage_check.uut_key);
DROP INDEX stage_check_readings;
CREATE INDEX stage_check_readings ON stage_check (parameter, step, ended_at, uut_key, position, reading, result, lower_limit, upper_limit) WHERE reading IS NOT NULL;
