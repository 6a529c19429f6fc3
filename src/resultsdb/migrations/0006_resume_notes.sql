-- A test that went on after the program ended abruptly says so: one line
-- per resume (when it went on, the gap, the checkpoint's time). Empty for a
-- test that ran without a break.
ALTER TABLE uut ADD COLUMN resumed TEXT NOT NULL DEFAULT '';
