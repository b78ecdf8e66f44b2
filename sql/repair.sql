-- Ends the runs that a life of the daemon left in "PROCESS": such a row becomes "FAILED", and
-- kodu_cron_repair gets one row that says which task, when it was found and when it was due. The
-- task's next time stays, so the daemon runs it as the schedule says; what the functions were asked for
-- during such a run, a time or a deletion, takes effect now.
--
-- Run it before each start of the daemon, never during its life; while a session of the daemon is
-- connected it changes nothing. As the daemon's role, as the database's owner or as a superuser:
--     PGAPPNAME=kodu_repair psql -f repair.sql
-- The view kodu_daemon_state says what a session of the daemon is. Where the daemon's role is another
-- one than kodu, SET kodu.daemon_role = '...' comes first.

WITH abandoned AS (
    UPDATE public.kodu_cron_plugin AS task SET cron_status = 'FAILED'
    FROM public.kodu_cron_plugin AS was,  -- a trigger may move the time
         COALESCE(NULLIF(current_setting('kodu.daemon_role', TRUE), ''), 'kodu') AS daemon
    WHERE task.cron_id = was.cron_id AND task.cron_status = 'PROCESS'
      AND NOT (SELECT connected FROM public.kodu_daemon_state)
      -- With sql/hosts.sql, another daemon may have runs in progress; without it, there is no such column.
      AND COALESCE(to_jsonb(was) ->> 'cron_host', daemon) = daemon
    RETURNING was.cron_id, was.cron_next_exec
)
INSERT INTO public.kodu_cron_repair (cron_id, was_due)
SELECT cron_id, cron_next_exec FROM abandoned ORDER BY cron_id;
