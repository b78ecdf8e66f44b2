-- What the functions ask of a task during its run waits in these two columns for the run's end.
ALTER TABLE kodu_cron_plugin
    ADD COLUMN cron_wanted timestamp
        CONSTRAINT cron_wanted_in_integer_seconds
            CHECK (cron_wanted BETWEEN '1970-01-01 00:00:00' AND '2038-01-19 03:14:07'
                   OR cron_wanted = 'infinity'),
    ADD COLUMN cron_changed boolean NOT NULL DEFAULT FALSE;

-- Of functions.sql in the first release, which was not always loaded. The view of states reads it.
CREATE TABLE IF NOT EXISTS kodu_cron_pause (
    cron_id   integer PRIMARY KEY REFERENCES kodu_cron_plugin (cron_id) ON DELETE CASCADE,
    next_exec timestamp NOT NULL,
    paused_at timestamp NOT NULL DEFAULT date_trunc('second', now() AT TIME ZONE 'UTC'),
    paused_by text NOT NULL DEFAULT session_user,
    reason    text
);

CREATE INDEX kodu_cron_error_of_time ON kodu_cron_error (cron_date);
CREATE INDEX kodu_plugins_of_path ON kodu_plugins USING hash (plugin_path);
CREATE INDEX kodu_plugins_of_name ON kodu_plugins USING hash (plugin_name);
CREATE INDEX kodu_plugins_of_path_and_name
    ON kodu_plugins USING hash ((plugin_path || ' ' || plugin_name));
CREATE INDEX kodu_plugins_guards ON kodu_plugins (plugin_id) WHERE plugin_path LIKE '%/koduguard';
