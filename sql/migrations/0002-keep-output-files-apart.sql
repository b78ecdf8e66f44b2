-- Two tasks with one output file end the daemon when it purges one of them while a run of the other
-- fails. Of the tasks that share a file today all but the first are left out of the index.
ALTER TABLE kodu_cron_plugin ADD COLUMN cron_shares_output boolean NOT NULL DEFAULT FALSE;

UPDATE kodu_cron_plugin SET cron_shares_output = TRUE
FROM (SELECT cron_id AS id,
             row_number() OVER (
                 PARTITION BY regexp_replace(regexp_replace(cron_log_file, '\$DATE', 'last'),
                                             '\$SERVICEID', cron_id::text)
                 ORDER BY cron_id) AS place
      FROM kodu_cron_plugin) AS task
WHERE cron_id = id AND place > 1;

CREATE UNIQUE INDEX cron_log_file_of_one_task ON kodu_cron_plugin (
    (regexp_replace(regexp_replace(cron_log_file, '\$DATE', 'last'), '\$SERVICEID', cron_id::text)))
    WHERE NOT cron_shares_output;
