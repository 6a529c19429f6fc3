-- The readings of one check (a parameter at a stage) straight from an index
-- that holds all the figures need, for the capability figures and charts of
-- a check over a hundred thousand units.
CREATE INDEX stage_check_readings ON stage_check (parameter, step, uut_key, position, reading, result, lower_limit, upper_limit) WHERE reading IS NOT NULL;
