-- The server read and tested each CHECK of this table at both of the daemon's updates of a run. The triggers
-- of schema.sql refuse the same rows when these columns are written.
ALTER TABLE kodu_cron_plugin
    DROP CONSTRAINT IF EXISTS cron_id_not_negative,
    DROP CONSTRAINT IF EXISTS cron_interval_from_second_to_year,
    DROP CONSTRAINT IF EXISTS cron_interval_whole_seconds,
    DROP CONSTRAINT IF EXISTS cron_next_exec_in_integer_seconds,
    DROP CONSTRAINT IF EXISTS cron_log_file_below_directory,
    DROP CONSTRAINT IF EXISTS cron_log_file_names_a_file,
    DROP CONSTRAINT IF EXISTS cron_log_file_without_controls,
    DROP CONSTRAINT IF EXISTS cron_retries_not_negative,
    DROP CONSTRAINT IF EXISTS cron_retries_interval_up_to_year,
    DROP CONSTRAINT IF EXISTS cron_wanted_in_integer_seconds;
