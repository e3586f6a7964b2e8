-- Requests of the application: those that wait for a phone, and which were done already.

CREATE TABLE outbox (
  id INTEGER PRIMARY KEY AUTOINCREMENT, -- the request's id for the phone, never used twice
  json TEXT NOT NULL
);

CREATE TABLE done (
  number INTEGER PRIMARY KEY AUTOINCREMENT,
  uid TEXT NOT NULL UNIQUE
);
