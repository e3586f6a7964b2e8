-- Only rows that are looked for so stand in these: each that a change touches is another page to write.

DROP INDEX relay_mail_id;
CREATE INDEX relay_mail_id ON relay_mail (mail_id) WHERE mail_id > 0;
DROP INDEX relay_identity;
CREATE INDEX relay_sending ON relay_mail (identity) WHERE state = 1;
