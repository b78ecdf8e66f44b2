-- The demo's tasks: run by scripts/demo after sql/functions.sql, before each start of the daemon.
--
-- psql variables: plugins, the folder of the monitoring plugins; port, the demo server's own.
-- Running it again makes these tasks as good as new, each under the id that it had, and leaves all
-- others alone.

BEGIN;
SET LOCAL client_min_messages = warning;

-- The status that a task has after each completed run; scripts/demo --for judges by it. The name is
-- what the demo knows its task by, whatever it is called by now.
CREATE TABLE IF NOT EXISTS demo_expected (
    cron_id integer PRIMARY KEY REFERENCES kodu_cron_plugin ON DELETE CASCADE,
    status  character varying NOT NULL,
    name    text
);
ALTER TABLE demo_expected ADD COLUMN IF NOT EXISTS name text;  -- a demo of before had none
UPDATE demo_expected SET name = plugin_name
FROM kodu_cron_plugin AS task JOIN kodu_plugins ON plugin_id = cron_plugin_id
WHERE task.cron_id = demo_expected.cron_id AND demo_expected.name IS NULL;

-- Due in three to five seconds, when the daemon has started.
CREATE TEMPORARY TABLE demo_task ON COMMIT DROP AS
SELECT *, date_trunc('second', now()) + make_interval(secs => 3 + id % 3) AS first_run
FROM (VALUES
    (1, 'load', :'plugins' || '/check_load', '-w 500,500,500 -c 900,900,900', interval '5 s', 0,
     NULL::interval, 'OK'),
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
    (10, 'silent', '/bin/true', '', '15 s', 0, NULL, 'FAILED')
) AS demo (id, name, path, parameter, period, tries, retry_period, expected);

-- Whatever became of the tasks that are there: changed, paused, about to be deleted.
DELETE FROM kodu_cron_pause WHERE cron_id IN (SELECT cron_id FROM demo_expected);
UPDATE kodu_cron_plugin
SET cron_status = NULL, cron_last_exec = NULL, cron_next_exec = now() AT TIME ZONE 'UTC',
    cron_retries_interval = NULL, cron_delete = FALSE
WHERE cron_id IN (SELECT cron_id FROM demo_expected);
SELECT kodu_task_set(cron_id, plugin => path, name => name, every => period,
                     parameters => parameter, retries => tries, retry_after => retry_period,
                     file_name => '$SERVICEID_$DATE.txt', next_run => first_run)
FROM demo_task JOIN demo_expected USING (name);
UPDATE demo_expected SET status = expected FROM demo_task
WHERE demo_task.name = demo_expected.name;

INSERT INTO demo_expected
SELECT kodu_task_add(plugin => path, name => name, every => period, parameters => parameter,
                     retries => tries, retry_after => retry_period, first_run => first_run),
       expected, name
FROM demo_task WHERE name NOT IN (SELECT name FROM demo_expected)
ORDER BY id;

COMMIT;
