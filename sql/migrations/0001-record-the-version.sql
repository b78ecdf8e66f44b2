-- Until here no version was recorded: a database without this table is one of the first release.
CREATE TABLE kodu_schema_version (
    version    integer PRIMARY KEY,
    title      text NOT NULL,
    applied_at timestamp NOT NULL DEFAULT (now() AT TIME ZONE 'UTC'),
    applied_by text NOT NULL DEFAULT session_user
);
