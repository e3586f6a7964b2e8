-- What became of the user's replies, deletions and marks. A row outlives its request: it says what came of it.

CREATE TABLE journal (
  id INTEGER PRIMARY KEY,             -- the request's, as in outbox
  uid TEXT NOT NULL,                  -- the phone tells by it what came of the request; empty: it cannot
  kind INTEGER NOT NULL,              -- brisel_request_kind
  state INTEGER NOT NULL DEFAULT 0,   -- brisel_request_state
  offered INTEGER NOT NULL DEFAULT 0, -- 1: it went out to a phone, which may have it
  mail_id INTEGER NOT NULL,           -- of several mails the first
  mails INTEGER NOT NULL DEFAULT 1,
  person TEXT NOT NULL DEFAULT '',    -- whom a reply goes to; who sent the (first) mail
  subject TEXT NOT NULL DEFAULT '',
  text TEXT NOT NULL DEFAULT '',      -- of a reply
  reason TEXT NOT NULL DEFAULT '',    -- why it is refused, or still waits at the phone
  json TEXT NOT NULL DEFAULT '',      -- of a reply that may have to be sent again
  created INTEGER NOT NULL,           -- seconds since the epoch
  changed INTEGER NOT NULL
);
CREATE INDEX journal_uid ON journal (uid);
CREATE INDEX journal_over ON journal (changed) WHERE state <> 0;

-- Replies that wait already. A phone may have been asked for them; which, nobody wrote down.
INSERT INTO journal (id, uid, kind, offered, mail_id, person, subject, text, json, created, changed)
  SELECT id, '', 1, 1, ifnull(json_extract(json, '$.mail_id'), 0),
    CASE instr(to_whom, char(2)) WHEN 0 THEN to_whom ELSE substr(to_whom, instr(to_whom, char(2)) + 1) END,
    ifnull(json_extract(json, '$.subject'), ''), ifnull(json_extract(json, '$.text'), ''), json,
    CAST(strftime('%s', 'now') AS INTEGER), CAST(strftime('%s', 'now') AS INTEGER)
  FROM (SELECT id, json, ifnull(json_extract(json, '$.recipient'), '') AS to_whom FROM outbox WHERE json_valid(json))
  WHERE json_extract(json, '$.request') = 'reply';
