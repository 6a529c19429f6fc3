-- What each station of a plant is running, published by the station every
-- few seconds: its runs as JSON and when it last published (seconds since
-- 1970, by the station's clock). A station silent for long is offline.
CREATE TABLE station_status (
  station TEXT PRIMARY KEY,
  runs TEXT NOT NULL,
  heartbeat BIGINT NOT NULL
);
