-- Deleted on the watch, to be deleted in its mailbox too.

ALTER TABLE relay_mail ADD COLUMN want_gone INTEGER NOT NULL DEFAULT 0;
