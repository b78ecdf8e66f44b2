-- Ends the runs that a life of the daemon left in "PROCESS": such a row becomes "FAILED", and
-- kodu_cron_repair gets one row that says which task, when it was found and when it was due. The
-- task's next time stays, so the daemon runs it as the schedule says.
--
-- Run it before each start of the daemon, never during its life; while a session of the daemon is
-- connected it changes nothing. As the role kodu, as the database's owner or as a superuser:
--     PGAPPNAME=kodu_repair psql -f repair.sql
-- Sessions whose application_name begins with "kodu_" are tools, not the daemon.

WITH abandoned AS (
    UPDATE public.kodu_cron_plugin SET cron_status = 'FAILED'
    WHERE cron_status = 'PROCESS'
      AND NOT EXISTS (
        SELECT FROM pg_stat_activity
        WHERE usename = 'kodu' AND datname = current_database()
          AND pid <> pg_backend_pid() AND application_name NOT LIKE 'kodu\_%')
    RETURNING cron_id, cron_next_exec
)
INSERT INTO public.kodu_cron_repair (cron_id, was_due)
SELECT cron_id, cron_next_exec FROM abandoned ORDER BY cron_id;
