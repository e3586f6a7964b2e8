-- Why a message is set aside; which of the calls in flight a message went with (0: none); how long a reply's pause is,
-- so that a clock that was set does not make it longer.

ALTER TABLE relay_mail ADD COLUMN trouble TEXT NOT NULL DEFAULT '';
ALTER TABLE relay_mail ADD COLUMN batch INTEGER NOT NULL DEFAULT 0;
ALTER TABLE outbox ADD COLUMN pause INTEGER NOT NULL DEFAULT 0;
