-- The state of the latest run, for sql/ledger.sql.
ALTER TABLE kodu_cron_plugin
    ADD COLUMN run_due           timestamp,
    ADD COLUMN run_started       timestamp,
    ADD COLUMN run_ended         timestamp,
    ADD COLUMN run_failing_since timestamp,
    ADD COLUMN pause_due         timestamp,
    ADD COLUMN ledger_to         timestamp,
    ADD COLUMN ledger_lost       integer,
    ADD COLUMN run_attempt       smallint;
