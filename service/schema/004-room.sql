-- Who asked, and how much of the room it takes: each program has its share of what may wait for a phone.
ALTER TABLE outbox ADD COLUMN client TEXT NOT NULL DEFAULT '';
ALTER TABLE outbox ADD COLUMN bytes INTEGER NOT NULL DEFAULT 0;
UPDATE outbox SET bytes = length(CAST(json AS BLOB));
CREATE INDEX outbox_room ON outbox (client, bytes);

-- Tells this store from any other, wherever its file goes.
INSERT OR REPLACE INTO state (key, value) VALUES ('store_id', random() & 0x7FFFFFFF);
