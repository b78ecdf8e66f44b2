-- The demo's tasks: run by scripts/demo after sql/schema.sql, before each start of the daemon.
--
-- psql variables: plugins, the folder of the monitoring plugins; port, the demo server's own.
-- Running it again takes the tasks 1 to 10 back to their beginning and leaves all others alone.

BEGIN;
SET LOCAL client_min_messages = warning;

-- The status that a task has after each completed run; scripts/demo --for judges by it.
CREATE TABLE IF NOT EXISTS demo_expected (
    cron_id integer PRIMARY KEY REFERENCES kodu_cron_plugin ON DELETE CASCADE,
    status  character varying NOT NULL
);

CREATE TEMPORARY TABLE demo (
    id integer, name text, path text, parameter text, period interval,
    retries integer, retry_period interval, expected text
) ON COMMIT DROP;

INSERT INTO demo VALUES
    (1, 'load', :'plugins' || '/check_load', '-w 500,500,500 -c 900,900,900', '5 s', 0, NULL, 'OK'),
    (2, 'disk', :'plugins' || '/check_disk', '-w 0% -c 0% -p /', '10 s', 0, NULL, 'OK'),
    (3, 'processes', :'plugins' || '/check_procs', '-w 1:1000000', '7 s', 0, NULL, 'OK'),
    (4, 'users', :'plugins' || '/check_users', '-w 1000 -c 2000', '10 s', 0, NULL, 'OK'),
    (5, 'database port', :'plugins' || '/check_tcp', '-H 127.0.0.1 -p ' || :'port', '5 s', 1, '2 s',
     'OK'),
    (6, 'server runs', :'plugins' || '/check_procs', '-c 1: -C postgres', '6 s', 0, NULL, 'OK'),
    -- What stands between quotes is one argument, blanks and all.
    (7, 'quoted', :'plugins' || '/check_dummy', '0 "kept together by its quotes"', '8 s', 0, NULL,
     'OK'),
    -- Critical at once and in both retries: FAILED after three runs, nine seconds or so.
    (8, 'critical', :'plugins' || '/check_dummy', '2 "down, and down again"', '15 s', 2, '3 s',
     'FAILED'),
    (9, 'unknown', :'plugins' || '/check_dummy', '3 "cannot tell"', '10 s', 0, NULL, 'FAILED'),
    -- Tried three times with a second in between, since it prints nothing.
    (10, 'silent', '/bin/true', '', '15 s', 0, NULL, 'FAILED');

INSERT INTO kodu_plugins (plugin_id, plugin_name, plugin_path, plugin_type)
SELECT id, name, path, 'cron' FROM demo
ON CONFLICT (plugin_id) DO UPDATE
    SET plugin_name = EXCLUDED.plugin_name,
        plugin_path = EXCLUDED.plugin_path,
        plugin_type = EXCLUDED.plugin_type;

DELETE FROM kodu_cron_plugin WHERE cron_id IN (SELECT id FROM demo);

-- Due in three to five seconds, when the daemon has started.
INSERT INTO kodu_cron_plugin (cron_id, cron_plugin_id, cron_interval, cron_next_exec, cron_log_file,
                              cron_retries, cron_retries_interval, cron_parameter)
SELECT id, id, period,
       date_trunc('second', now() AT TIME ZONE 'UTC') + make_interval(secs => 3 + id % 3),
       '$SERVICEID_$DATE.txt', retries, retry_period, parameter
FROM demo;

INSERT INTO demo_expected SELECT id, expected FROM demo;

-- The next ones are numbered from 101 on.
SELECT setval(pg_get_serial_sequence('kodu_plugins', 'plugin_id'), greatest(100, max(plugin_id)))
FROM kodu_plugins \g /dev/null
SELECT setval(pg_get_serial_sequence('kodu_cron_plugin', 'cron_id'), greatest(100, max(cron_id)))
FROM kodu_cron_plugin \g /dev/null

COMMIT;
