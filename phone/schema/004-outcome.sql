-- By what the watch knows a reply (empty: by nothing), and what it was told last of what came of it.

ALTER TABLE outbox ADD COLUMN uid TEXT NOT NULL DEFAULT '';
ALTER TABLE outbox ADD COLUMN told TEXT NOT NULL DEFAULT '';
