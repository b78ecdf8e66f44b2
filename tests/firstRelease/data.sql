-- What a database of the first release holds: tasks of every kind, a pause, history, repairs. Loaded
-- after schema.sql and functions.sql of that release, which are kept beside this file as they were.
-- The paths @OK@ and @FAIL@ are the test's own plugins.
INSERT INTO kodu_plugins (plugin_id, plugin_name, plugin_path) OVERRIDING SYSTEM VALUE VALUES
    (1, 'fine', '@OK@'), (2, 'failing', '@FAIL@'), (3, 'Üñîçødé ☃', '/usr/bin/true'),
    (4, 'never run', '/nowhere/at all');
SELECT setval(pg_get_serial_sequence('kodu_plugins', 'plugin_id'), 10);
INSERT INTO kodu_plugins (plugin_name, plugin_path, plugin_type) VALUES
    ('of another kind', '/usr/bin/true', 'device');

INSERT INTO kodu_cron_plugin (cron_id, cron_plugin_id, cron_interval, cron_log_file, cron_retries,
                              cron_retries_interval, cron_parameter, cron_next_exec) VALUES
    (1, 1, '1 second', '$SERVICEID_$DATE.txt', 0, NULL, 'a "b c"', now() + interval '1 second'),
    (2, 2, '1 second', '$SERVICEID_$DATE.txt', 0, NULL, NULL, now() + interval '1 second'),
    (3, 2, '2 seconds', 'retried_$DATE.log', 5, '3 seconds', NULL, now() + interval '1 second'),
    (4, 3, '1 day', '$SERVICEID_$DATE.txt', NULL, NULL, '', now() + interval '1 hour'),
    -- What later releases refuse.
    (10, 4, '1 hour', './archive', 0, NULL, NULL, now() + interval '1 day'),
    (11, 4, '1 hour', 'archive/61', 0, NULL, NULL, now() + interval '1 day'),
    (12, 4, '1 hour', 'x', 0, NULL, NULL, now() + interval '1 day'),
    (13, 4, '1 hour', 'x/y', 0, NULL, NULL, now() + interval '1 day'),
    (14, 4, '1 hour', 'sub/o_$DATE.txt', 0, NULL, NULL, now() + interval '1 day'),
    (15, 4, '1 hour', 'same_$DATE.txt', 1, '0', NULL, now() + interval '1 day'),
    (16, 4, '1 month', 'same_$DATE.txt', 0, NULL, NULL, now() + interval '1 day'),
    (17, 4, '1 hour', 'same_$DATE.txt', 0, NULL, NULL, '2037-12-31');

SELECT setval(pg_get_serial_sequence('kodu_cron_plugin', 'cron_id'), 20);
SELECT kodu_task_add('fine', '5 minutes', name => 'paused', timeout => '30 seconds');  -- 21
SELECT kodu_task_pause(21, 'the host moves');
UPDATE kodu_cron_plugin SET cron_status = 'FAILED', cron_last_exec = '2026-11-01 00:00:00'
WHERE cron_id = 4;
INSERT INTO kodu_cron_error (cron_id, cron_date, cron_logfile)
SELECT 4, now() - n * interval '1 day', '4_' || n || '.txt' FROM generate_series(1, 50) AS n;
INSERT INTO kodu_cron_repair (cron_id, was_due) VALUES (4, '2026-10-31 00:00:00');
