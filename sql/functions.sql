-- What an administrator does to koducron's tasks, in SQL: triggers that tell the running daemon of a
-- change, functions for the daily work, a view of what the tasks do. docs/sql.md shows them at work.
--
-- Load it after sql/schema.sql, as the same owner; loading it again changes nothing. Then make your
-- administrators members of the role kodu_admin:
--     CREATE ROLE alice LOGIN IN ROLE kodu_admin;
--
-- A writer of rows that notifies the daemon by itself must leave off doing so, or switch the triggers
-- off (ALTER TABLE kodu_cron_plugin DISABLE TRIGGER kodu_task_added): a task that is added twice is
-- in the daemon's queue twice, and runs twice.
--
-- Arguments that are times have a time zone, what is returned is UTC without one, as in the tables.

BEGIN;
SET LOCAL client_min_messages = warning;  -- nothing about what exists already
SET LOCAL search_path = public;

-- Notifications ----------------------------------------------------------------------------------

-- The daemon forgets no task that it has loaded: what makes one invisible to it, another plugin_type
-- or a deleted row, cannot be told to it.
CREATE OR REPLACE FUNCTION kodu_notify_of_task() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    PERFORM pg_catalog.pg_notify('koducronchannel', pg_catalog.format(
        '{"TYPE":"SERVICE","COMMAND":"%s","ID":%s}', TG_ARGV[0], NEW.cron_id));
    RETURN NULL;
END
$$;

CREATE OR REPLACE TRIGGER kodu_task_added AFTER INSERT ON kodu_cron_plugin
    FOR EACH ROW EXECUTE FUNCTION kodu_notify_of_task('ADD');

-- The daemon writes cron_status, cron_last_exec and cron_next_exec: it must not hear of itself, so
-- none of them stands here. A next time that somebody else writes is told by the functions below.
CREATE OR REPLACE TRIGGER kodu_task_changed
    AFTER UPDATE OF cron_plugin_id, cron_interval, cron_log_file, cron_retries,
                    cron_retries_interval, cron_parameter ON kodu_cron_plugin
    FOR EACH ROW
    WHEN ((OLD.cron_plugin_id, OLD.cron_interval, OLD.cron_log_file, OLD.cron_retries,
           OLD.cron_retries_interval, OLD.cron_parameter) IS DISTINCT FROM
          (NEW.cron_plugin_id, NEW.cron_interval, NEW.cron_log_file, NEW.cron_retries,
           NEW.cron_retries_interval, NEW.cron_parameter))
    EXECUTE FUNCTION kodu_notify_of_task('UPDATE');

-- A plugin's name and path are part of each of its tasks.
CREATE OR REPLACE FUNCTION kodu_notify_of_plugin() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    PERFORM pg_catalog.pg_notify('koducronchannel', pg_catalog.format(
        '{"TYPE":"SERVICE","COMMAND":"UPDATE","ID":%s}', cron_id))
    FROM public.kodu_cron_plugin WHERE cron_plugin_id = NEW.plugin_id;
    RETURN NULL;
END
$$;

CREATE OR REPLACE TRIGGER kodu_plugin_changed
    AFTER UPDATE OF plugin_name, plugin_path ON kodu_plugins
    FOR EACH ROW
    WHEN ((OLD.plugin_name, OLD.plugin_path) IS DISTINCT FROM (NEW.plugin_name, NEW.plugin_path))
    EXECUTE FUNCTION kodu_notify_of_plugin();

-- Pauses -----------------------------------------------------------------------------------------

-- The daemon knows no pause: it loads every task, and runs each when its time has come. A paused
-- task is one whose time comes in 2036, so that a restart of the daemon finds it paused as well.
-- What it was before stands in kodu_cron_pause. A run that ends during the pause moves the time on by
-- its interval: from 2036 on two such moves of a year stay within what cron_next_exec may hold. It
-- also writes 2036 as the time of the last run; the view and kodu_task_resume know better.
CREATE OR REPLACE FUNCTION kodu_pause_time() RETURNS timestamp LANGUAGE sql IMMUTABLE AS
    $$SELECT timestamp '2036-01-01 00:00:00'$$;

CREATE TABLE IF NOT EXISTS kodu_cron_pause (
    -- The daemon may delete the task nevertheless, and with it this row, without a right to it.
    cron_id   integer PRIMARY KEY REFERENCES kodu_cron_plugin (cron_id) ON DELETE CASCADE,
    next_exec timestamp NOT NULL,
    paused_at timestamp NOT NULL DEFAULT date_trunc('second', now() AT TIME ZONE 'UTC'),
    paused_by text NOT NULL DEFAULT session_user,
    reason    text
);
COMMENT ON TABLE kodu_cron_pause IS 'One row a paused task; times are UTC';
COMMENT ON COLUMN kodu_cron_pause.next_exec IS 'When the task was due next as it was paused';

-- Helpers of the functions below -----------------------------------------------------------------

-- A moment that the daemon, which looks for notifications once a second, hears of before it comes. A
-- time that is past when it does would be moved on by a whole interval.
CREATE OR REPLACE FUNCTION kodu_soon() RETURNS timestamp
LANGUAGE sql SET search_path = pg_catalog, public, pg_temp AS
    $$SELECT date_trunc('second', clock_timestamp() AT TIME ZONE 'UTC') + interval '3 seconds'$$;

-- `slot`, or as many whole intervals later as make it no earlier than `earliest`.
CREATE OR REPLACE FUNCTION kodu_next_slot(slot timestamp, every interval, earliest timestamp)
RETURNS timestamp
LANGUAGE sql IMMUTABLE SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT slot + every * greatest(0, ceil(EXTRACT(EPOCH FROM earliest - slot)
                                           / EXTRACT(EPOCH FROM every)))::double precision
$$;

CREATE OR REPLACE FUNCTION kodu_tell_update(task integer) RETURNS void
LANGUAGE sql SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT pg_notify('koducronchannel',
                     format('{"TYPE":"SERVICE","COMMAND":"UPDATE","ID":%s}', task))
$$;

-- The task's row, which the daemon cannot write from here to the end of the transaction.
CREATE OR REPLACE FUNCTION kodu_task_lock(task integer) RETURNS kodu_cron_plugin
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    locked kodu_cron_plugin;
BEGIN
    SELECT * INTO locked FROM kodu_cron_plugin WHERE cron_id = task FOR NO KEY UPDATE;
    IF NOT FOUND THEN
        RAISE EXCEPTION 'there is no task %', COALESCE(task::text, 'NULL') USING
            ERRCODE = 'undefined_object',
            HINT = 'SELECT id, name FROM kodu_task_status lists the tasks.';
    END IF;
    RETURN locked;
END
$$;

-- The same for a task that somebody wants to do something with.
CREATE OR REPLACE FUNCTION kodu_task_take(task integer) RETURNS kodu_cron_plugin
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    taken kodu_cron_plugin := kodu_task_lock(task);
BEGIN
    IF taken.cron_delete THEN
        RAISE EXCEPTION 'task % is being deleted', task USING
            ERRCODE = 'object_not_in_prerequisite_state',
            HINT = 'Add it anew with kodu_task_add.';
    END IF;
    RETURN taken;
END
$$;

-- Whether a run of the task, or the wait for its retry, goes on: until then its due time stays. A run
-- that a life of the daemon left behind does not count once the task is loaded, since that moves the
-- due time into the future.
CREATE OR REPLACE FUNCTION kodu_in_run(task kodu_cron_plugin) RETURNS boolean
LANGUAGE sql SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT task.cron_status IS NOT DISTINCT FROM 'PROCESS'
           AND task.cron_next_exec < clock_timestamp() AT TIME ZONE 'UTC'
$$;

-- Sets the time of the run after the one that may go on. At its end the daemon adds an interval to the
-- time in the row, and takes the sum. To load the task it would have to wait for that end, and would
-- load and purge nothing meanwhile; so it is told of a task without a run only.
CREATE OR REPLACE FUNCTION kodu_move(task kodu_cron_plugin, due timestamp) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF kodu_in_run(task) THEN
        UPDATE kodu_cron_plugin SET cron_next_exec = due - cron_interval
        WHERE cron_id = task.cron_id;
    ELSE
        UPDATE kodu_cron_plugin SET cron_next_exec = due WHERE cron_id = task.cron_id;
        PERFORM kodu_tell_update(task.cron_id);
    END IF;
END
$$;

CREATE OR REPLACE FUNCTION kodu_refuse_paused(task kodu_cron_plugin) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF task.cron_next_exec >= kodu_pause_time() THEN
        RAISE EXCEPTION 'task % is paused', task.cron_id USING
            ERRCODE = 'object_not_in_prerequisite_state',
            HINT = format('Call kodu_task_resume(%s) first.', task.cron_id);
    END IF;
END
$$;

-- Says what a CHECK of the tables has refused, in an administrator's words.
CREATE OR REPLACE FUNCTION kodu_refuse(broken text) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    said text[] := CASE broken
        WHEN 'cron_interval_from_second_to_year' THEN
            ARRAY['the interval must lie between 1 second and 366 days',
                  'Say every => ''5 minutes'', for instance.']
        WHEN 'cron_interval_whole_seconds' THEN
            ARRAY['the interval must be whole seconds',
                  'The daemon counts no fractions of a second.']
        WHEN 'cron_log_file_below_directory' THEN
            ARRAY['the file name must stay below the daemon''s output directory',
                  'Write no / at its beginning and no .. into it; the default is'
                  ' $SERVICEID_$DATE.txt.']
        WHEN 'cron_log_file_names_a_file' THEN
            ARRAY['the file name must name a file, in 240 bytes at most',
                  'It cannot be empty, . or archive, nor end in a /; the default is'
                  ' $SERVICEID_$DATE.txt.']
        WHEN 'cron_log_file_without_controls' THEN
            ARRAY['the file name must not hold control characters',
                  'Line feeds and tabs are such; the default is $SERVICEID_$DATE.txt.']
        WHEN 'cron_retries_not_negative' THEN
            ARRAY['the number of retries must not be negative', 'Say retries => 0 for none.']
        WHEN 'cron_retries_interval_up_to_year' THEN
            ARRAY['the time to a retry must lie between 0 and 366 days',
                  'Say retry_after => ''2 minutes'', for instance.']
        ELSE
            ARRAY['the tables'' check ' || broken || ' refuses the task',
                  'See its definition in sql/schema.sql.']
        END;
BEGIN
    RAISE EXCEPTION USING ERRCODE = 'check_violation', MESSAGE = said[1], HINT = said[2];
END
$$;

CREATE OR REPLACE FUNCTION kodu_check_file_name(file_name text) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF strpos(file_name, '$DATE') = 0 THEN
        RAISE EXCEPTION 'the file name % lacks $DATE', quote_literal(file_name) USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Without it the copies of two failed runs have one name, and the second ends the'
                   ' daemon; the default is $SERVICEID_$DATE.txt.';
    END IF;
END
$$;

-- The time as a column's value: one in the past moved on by whole intervals, as the daemon would.
CREATE OR REPLACE FUNCTION kodu_check_time(run_at timestamptz, every interval) RETURNS timestamp
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    utc timestamp := date_trunc('second', run_at AT TIME ZONE 'UTC');
BEGIN
    IF NOT isfinite(utc) OR utc >= kodu_pause_time() OR utc < timestamp '1970-01-01' THEN
        RAISE EXCEPTION 'the time of a run must lie between 1970 and 2035' USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Say now() + interval ''10 minutes'', for instance. One in the past is moved on'
                   ' by whole intervals.';
    END IF;
    -- The table refuses other intervals, with a better message than a division would.
    IF every >= interval '1 second' AND utc < clock_timestamp() AT TIME ZONE 'UTC' THEN
        RETURN kodu_next_slot(utc, every, kodu_soon());
    END IF;
    RETURN utc;
END
$$;

-- The id of the plugin that `plugin` names, or whose path it is.
CREATE OR REPLACE FUNCTION kodu_plugin_find(plugin text) RETURNS integer
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    is_path boolean := starts_with(plugin, '/');
    ids integer[];
    kinds text[];
BEGIN
    SELECT array_agg(plugin_id ORDER BY plugin_id), array_agg(DISTINCT plugin_type)
    INTO ids, kinds
    FROM kodu_plugins
    WHERE CASE WHEN is_path THEN plugin_path ELSE plugin_name END = plugin;

    IF ids IS NULL AND is_path THEN
        RETURN NULL;
    ELSIF ids IS NULL THEN
        RAISE EXCEPTION 'there is no plugin %', COALESCE(quote_literal(plugin), 'NULL') USING
            ERRCODE = 'undefined_object',
            HINT = 'Name one of SELECT plugin_name FROM kodu_plugins, or give the whole path of an'
                   ' executable, which begins with /.';
    ELSIF NOT 'cron' = ANY (kinds) THEN
        RAISE EXCEPTION 'the plugin % is not of the type cron but %', quote_literal(plugin),
                        kinds[1] USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'The daemon runs no other plugin.';
    END IF;
    -- Of tasks with a timeout the catalogue has two: the plugin, and the guard of the same name.
    SELECT array_agg(id) INTO ids
    FROM (SELECT min(plugin_id) AS id,
                 rank() OVER (ORDER BY plugin_path LIKE '%/koduguard') AS preference
          FROM kodu_plugins WHERE plugin_id = ANY (ids) AND plugin_type = 'cron'
          GROUP BY plugin_path) AS path
    WHERE preference = 1;
    IF cardinality(ids) > 1 THEN
        RAISE EXCEPTION 'there are % plugins named %', cardinality(ids), quote_literal(plugin) USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Give the plugin''s path.';
    END IF;
    RETURN ids[1];
END
$$;

-- The id of the plugin with this path, which is made when the catalogue has none; with a name, of one
-- of just that name, which is what the task is called.
CREATE OR REPLACE FUNCTION kodu_plugin_at(path text, called text) RETURNS integer
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    id integer;
BEGIN
    SELECT min(plugin_id) INTO id FROM kodu_plugins
    WHERE plugin_path = path AND plugin_type = 'cron' AND plugin_name = COALESCE(called, plugin_name);
    IF id IS NULL THEN
        INSERT INTO kodu_plugins (plugin_name, plugin_path)
        VALUES (COALESCE(called, regexp_replace(path, '^.*/', '')), path)
        RETURNING plugin_id INTO id;
    END IF;
    RETURN id;
END
$$;

CREATE OR REPLACE FUNCTION kodu_plugin_of(plugin text, called text) RETURNS integer
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    id integer := kodu_plugin_find(plugin);
BEGIN
    IF id IS NOT NULL AND called IS NULL THEN
        RETURN id;
    END IF;
    RETURN kodu_plugin_at(
        COALESCE((SELECT plugin_path FROM kodu_plugins WHERE plugin_id = id), plugin), called);
END
$$;

-- `word` as one argument in a task's parameters.
CREATE OR REPLACE FUNCTION kodu_quote_argument(word text) RETURNS text
LANGUAGE plpgsql IMMUTABLE SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF word !~ '[ "'']' THEN
        RETURN word;
    ELSIF word ~ '["'']' THEN
        RAISE EXCEPTION 'the path % cannot be an argument', quote_literal(word) USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'A task''s parameters cannot hold a quote.';
    END IF;
    RETURN '"' || word || '"';
END
$$;

-- Tasks ------------------------------------------------------------------------------------------

-- Adds a task and returns its id. plugin: a name of the catalogue or a path. name: what the task is
-- called; the plugin's own by default. retries and retry_after: one after 120 seconds by default.
-- first_run: a moment ahead by default. timeout: runs the plugin through koduguard with that limit.
CREATE OR REPLACE FUNCTION kodu_task_add(
    plugin text, every interval, parameters text DEFAULT NULL, retries integer DEFAULT NULL,
    retry_after interval DEFAULT NULL, file_name text DEFAULT '$SERVICEID_$DATE.txt',
    first_run timestamptz DEFAULT NULL, name text DEFAULT NULL, timeout interval DEFAULT NULL)
RETURNS integer
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    plugin_of integer := kodu_plugin_of(plugin, name);
    arguments text := parameters;
    id integer;
    broken text;
BEGIN
    IF every IS NULL THEN
        PERFORM kodu_refuse('cron_interval_from_second_to_year');
    END IF;
    file_name := COALESCE(file_name, '$SERVICEID_$DATE.txt');
    IF timeout IS NOT NULL THEN
        SELECT called.id, called.arguments INTO plugin_of, arguments
        FROM kodu_guarded(plugin_of, parameters, timeout) AS called;
    END IF;
    BEGIN
        INSERT INTO kodu_cron_plugin (cron_plugin_id, cron_interval, cron_next_exec, cron_log_file,
                                      cron_retries, cron_retries_interval, cron_parameter)
        VALUES (plugin_of, every, COALESCE(kodu_check_time(first_run, every), kodu_soon()),
                file_name, retries, retry_after, arguments)
        RETURNING cron_id INTO id;
    EXCEPTION WHEN check_violation THEN
        GET STACKED DIAGNOSTICS broken = CONSTRAINT_NAME;
        PERFORM kodu_refuse(broken);
    END;
    PERFORM kodu_check_file_name(file_name);
    RETURN id;
END
$$;

-- The plugin and the parameters that run the plugin `guarded` within a time limit. The guard is where
-- the catalogue has it, else where the package puts it.
CREATE OR REPLACE FUNCTION kodu_guarded(guarded integer, parameters text, timeout interval,
                                        OUT id integer, OUT arguments text)
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    seconds numeric := EXTRACT(EPOCH FROM timeout);
    plugin kodu_plugins;
    guard text;
BEGIN
    IF seconds NOT BETWEEN 1 AND 86400 OR seconds % 1 <> 0 THEN
        RAISE EXCEPTION 'the timeout must be whole seconds, from 1 second to 1 day' USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Say timeout => ''30 seconds'', for instance.';
    END IF;
    SELECT * INTO plugin FROM kodu_plugins WHERE plugin_id = guarded;
    SELECT plugin_path INTO guard FROM kodu_plugins WHERE plugin_path LIKE '%/koduguard'
    ORDER BY plugin_id LIMIT 1;
    id := kodu_plugin_at(COALESCE(guard, '/usr/bin/koduguard'), plugin.plugin_name);
    arguments := concat_ws(' ', '-t', seconds::integer, '--', kodu_quote_argument(plugin.plugin_path),
                           parameters);
END
$$;

-- Changes what is not NULL. next_run moves the task's next run, and with it all that follow.
CREATE OR REPLACE FUNCTION kodu_task_set(
    task integer, plugin text DEFAULT NULL, every interval DEFAULT NULL,
    parameters text DEFAULT NULL, retries integer DEFAULT NULL, retry_after interval DEFAULT NULL,
    file_name text DEFAULT NULL, next_run timestamptz DEFAULT NULL, name text DEFAULT NULL)
RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    old kodu_cron_plugin := kodu_task_take(task);
    plugin_of integer;
    broken text;
BEGIN
    IF num_nonnulls(plugin, every, parameters, retries, retry_after, file_name, next_run, name) = 0
    THEN
        RAISE EXCEPTION 'there is nothing to set for task %', task USING
            ERRCODE = 'invalid_parameter_value',
            HINT = format('Say kodu_task_set(%s, every => ''5 minutes''), for instance.', task);
    END IF;
    IF next_run IS NOT NULL THEN
        PERFORM kodu_refuse_paused(old);
    END IF;
    IF plugin IS NOT NULL THEN
        plugin_of := kodu_plugin_of(plugin, name);
    ELSIF name IS NOT NULL THEN
        SELECT kodu_plugin_at(plugin_path, name) INTO plugin_of
        FROM kodu_plugins WHERE plugin_id = old.cron_plugin_id;
    END IF;
    BEGIN
        -- The trigger tells the daemon.
        UPDATE kodu_cron_plugin SET
            cron_plugin_id = COALESCE(plugin_of, cron_plugin_id),
            cron_interval = COALESCE(every, cron_interval),
            cron_parameter = COALESCE(parameters, cron_parameter),
            cron_retries = COALESCE(retries, cron_retries),
            cron_retries_interval = COALESCE(retry_after, cron_retries_interval),
            cron_log_file = COALESCE(file_name, cron_log_file)
        WHERE cron_id = task;
    EXCEPTION WHEN check_violation THEN
        GET STACKED DIAGNOSTICS broken = CONSTRAINT_NAME;
        PERFORM kodu_refuse(broken);
    END;
    PERFORM kodu_check_file_name(file_name);
    IF next_run IS NOT NULL THEN
        UPDATE kodu_cron_plugin SET cron_next_exec = kodu_check_time(next_run, cron_interval)
        WHERE cron_id = task;
        PERFORM kodu_tell_update(task);
    END IF;
END
$$;

-- Keeps the task from running until kodu_task_resume, over restarts of the daemon too. A run that
-- goes on, its retries included, ends first.
CREATE OR REPLACE FUNCTION kodu_task_pause(task integer, reason text DEFAULT NULL) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    old kodu_cron_plugin := kodu_task_take(task);
BEGIN
    IF old.cron_next_exec >= kodu_pause_time() THEN
        RAISE NOTICE 'task % is paused already', task;
        RETURN;
    END IF;
    INSERT INTO kodu_cron_pause AS pause (cron_id, next_exec, reason)
    VALUES (task, old.cron_next_exec, kodu_task_pause.reason)
    ON CONFLICT (cron_id) DO UPDATE SET next_exec = EXCLUDED.next_exec,
        paused_at = EXCLUDED.paused_at, paused_by = EXCLUDED.paused_by, reason = EXCLUDED.reason;
    UPDATE kodu_cron_plugin SET cron_next_exec = kodu_pause_time() WHERE cron_id = task;
    -- As in kodu_move: a plugin that hangs is a good reason for a pause.
    IF NOT kodu_in_run(old) THEN
        PERFORM kodu_tell_update(task);
    END IF;
END
$$;

-- Lets a paused task run again, at the next of the times at which it would have run.
CREATE OR REPLACE FUNCTION kodu_task_resume(task integer) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    old kodu_cron_plugin := kodu_task_take(task);
    was_due timestamp;
BEGIN
    DELETE FROM kodu_cron_pause WHERE cron_id = task RETURNING next_exec INTO was_due;
    IF old.cron_next_exec < kodu_pause_time() THEN
        RAISE NOTICE 'task % is not paused', task;
        RETURN;
    END IF;
    UPDATE kodu_cron_plugin SET
        cron_next_exec = kodu_next_slot(COALESCE(was_due, kodu_soon()), cron_interval, kodu_soon()),
        cron_last_exec = CASE WHEN cron_last_exec >= kodu_pause_time() THEN was_due
                              ELSE cron_last_exec END
    WHERE cron_id = task;
    PERFORM kodu_tell_update(task);
END
$$;

-- Runs the task in a few seconds; the runs after it follow an interval apart from then on. Returns
-- when it is due.
CREATE OR REPLACE FUNCTION kodu_task_run_now(task integer) RETURNS timestamp
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    old kodu_cron_plugin := kodu_task_take(task);
    due timestamp := kodu_soon();
BEGIN
    PERFORM kodu_refuse_paused(old);
    IF kodu_in_run(old) THEN
        RAISE NOTICE 'a run of task % goes on or waits for its retry: the new one follows', task;
    END IF;
    UPDATE kodu_cron_plugin SET cron_next_exec = due WHERE cron_id = task;
    PERFORM kodu_tell_update(task);
    RETURN due;
END
$$;

-- Has the daemon remove the task, its files and its history, within two minutes. Until then it does
-- not run any more, but for a run that goes on, its retries included: a purge in the middle of a run
-- ends the daemon.
CREATE OR REPLACE FUNCTION kodu_task_delete(task integer) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    old kodu_cron_plugin := kodu_task_lock(task);
    -- Not the time of a pause: the daemon keeps a purged task's record until it would have been due.
    later timestamp := kodu_next_slot(old.cron_next_exec, old.cron_interval,
                                      kodu_soon() + interval '5 minutes');
BEGIN
    IF old.cron_delete THEN
        RETURN;
    END IF;
    UPDATE kodu_cron_plugin SET cron_delete = TRUE WHERE cron_id = task;
    IF later > old.cron_next_exec THEN
        PERFORM kodu_move(old, later);
    END IF;
END
$$;

-- What the tasks do ------------------------------------------------------------------------------

-- One row a task that the daemon runs; times are UTC. due: its time has come, and its run has not
-- ended; lateness: for how many seconds. failing_since: the first of its failures between which no
-- run can have succeeded, as far as the history goes: a gap of more than one and a half intervals (of
-- runs or of retries, whichever is longer) is taken for a success.
CREATE OR REPLACE VIEW kodu_task_status AS
SELECT cron_id AS id,
       plugin_name AS name,
       cron_status AS status,
       NOT is_paused AND cron_next_exec < utc AS due,
       CASE WHEN is_paused THEN 0
            ELSE greatest(0, floor(EXTRACT(EPOCH FROM utc - cron_next_exec)))::bigint
       END AS lateness,
       CASE WHEN cron_last_exec >= kodu_pause_time() THEN pause.next_exec ELSE cron_last_exec
       END AS last_run,
       CASE WHEN NOT is_paused THEN cron_next_exec END AS next_run,
       cron_interval AS "interval",
       COALESCE(cron_retries, 1) AS retries,
       recent.failures_hour,
       recent.failures_day,
       failing.since AS failing_since,
       is_paused AS paused,
       cron_delete AS deleting
FROM kodu_cron_plugin
JOIN kodu_plugins ON plugin_id = cron_plugin_id AND plugin_type = 'cron'
CROSS JOIN LATERAL (SELECT now() AT TIME ZONE 'UTC' AS utc,
                           cron_next_exec >= kodu_pause_time() AS is_paused) AS present
LEFT JOIN kodu_cron_pause AS pause USING (cron_id)
CROSS JOIN LATERAL (
    SELECT count(*) FILTER (WHERE cron_date > utc - interval '1 hour') AS failures_hour,
           count(*) AS failures_day
    FROM kodu_cron_error AS error
    WHERE error.cron_id = kodu_cron_plugin.cron_id AND cron_date > utc - interval '1 day'
) AS recent
-- From the latest failure back to the first gap, no further.
LEFT JOIN LATERAL (
    SELECT cron_date AS since
    FROM (SELECT cron_date, lead(cron_date) OVER latest_first AS earlier
          FROM kodu_cron_error AS error
          WHERE error.cron_id = kodu_cron_plugin.cron_id AND isfinite(cron_date)
          WINDOW latest_first AS (ORDER BY cron_date DESC)) AS failure
    CROSS JOIN LATERAL (
        SELECT 1.5 * greatest(cron_interval,
                              COALESCE(cron_retries_interval, interval '120 seconds')) AS longest
    ) AS gap
    WHERE earlier IS NULL OR cron_date - earlier > longest
    ORDER BY cron_date DESC
    LIMIT 1
) AS failing ON cron_status = 'FAILED'
             OR cron_status = 'PROCESS'
                AND EXISTS (SELECT FROM kodu_cron_error AS error
                            WHERE error.cron_id = kodu_cron_plugin.cron_id
                              AND cron_date > cron_next_exec);

COMMENT ON VIEW kodu_task_status IS 'One row a task that the daemon runs; times are UTC';
COMMENT ON COLUMN kodu_task_status.due IS 'Its time has come, and its run has not ended';
COMMENT ON COLUMN kodu_task_status.lateness IS 'Seconds since it was due; 0 before and while paused';
COMMENT ON COLUMN kodu_task_status.last_run IS 'When the last run that has ended was due';

-- Deletes the history rows older than that, of all tasks, and returns their number. The copies of the
-- outputs stay in the archive folders.
CREATE OR REPLACE FUNCTION kodu_history_prune(older_than interval) RETURNS bigint
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    deleted bigint;
BEGIN
    IF older_than IS NULL OR older_than <= interval '0' THEN
        RAISE EXCEPTION 'the age must be longer than 0' USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Say kodu_history_prune(''30 days''), for instance.';
    END IF;
    DELETE FROM kodu_cron_error WHERE cron_date < now() AT TIME ZONE 'UTC' - older_than;
    GET DIAGNOSTICS deleted = ROW_COUNT;
    RETURN deleted;
END
$$;

-- Planning ---------------------------------------------------------------------------------------

-- The tasks that run, in seconds since the epoch: the first time that is not past, and the interval.
CREATE OR REPLACE FUNCTION kodu_schedule(OUT id integer, OUT first bigint, OUT every bigint)
RETURNS SETOF record
LANGUAGE sql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT cron_id,
           floor(EXTRACT(EPOCH FROM kodu_next_slot(
               cron_next_exec, cron_interval,
               date_trunc('second', now() AT TIME ZONE 'UTC'))))::bigint,
           EXTRACT(EPOCH FROM cron_interval)::bigint
    FROM kodu_cron_plugin JOIN kodu_plugins ON plugin_id = cron_plugin_id
    WHERE plugin_type = 'cron' AND NOT cron_delete AND cron_next_exec < kodu_pause_time()
$$;

-- The most runs that one second of the next 24 hours sees. Tasks of one interval and one phase are
-- counted once and multiplied, or a hundred thousand tasks would be as many million runs.
CREATE OR REPLACE FUNCTION kodu_busiest_second(firsts bigint[], everies bigint[]) RETURNS bigint
LANGUAGE sql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT COALESCE(max(runs), 0)::bigint
    FROM (SELECT sum(tasks) AS runs
          FROM (SELECT first, every, count(*) AS tasks
                FROM unnest(firsts, everies) AS task (first, every)
                GROUP BY first, every) AS alike,
               generate_series(first, EXTRACT(EPOCH FROM now())::bigint + 86400, every) AS second
          GROUP BY second) AS load
$$;

-- A time for each task up to the longest interval. The tasks of one interval stand evenly in it, and
-- those of another begin within the shortest of the distances. The places hang on ids and intervals
-- alone, so that a second call moves nothing. A task that is due later than in one interval is one
-- whose owner has it begin then: its place stays free for it.
CREATE OR REPLACE FUNCTION kodu_stagger_plan(longest interval, OUT id integer, OUT first bigint,
                                             OUT every bigint, OUT place bigint)
RETURNS SETOF record
LANGUAGE sql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
    WITH ranked AS (
        SELECT id, first, every,
               row_number() OVER (PARTITION BY every ORDER BY id) - 1 AS rank,
               count(*) OVER (PARTITION BY every) AS tasks,
               dense_rank() OVER (ORDER BY every) - 1 AS kind
        FROM kodu_schedule()
    ), placed AS (
        SELECT *,
               floor(rank * every / tasks::numeric
                     + kind / (max(kind) OVER () + 1.0) * min(every / tasks::numeric) OVER ()
               )::bigint % every AS phase
        FROM ranked
    )
    SELECT id, first, every,
           CASE WHEN every > EXTRACT(EPOCH FROM longest) OR first > soon + every
                     OR first % every = phase THEN first
                ELSE soon + ((phase - soon % every) + every) % every
           END
    FROM placed, (SELECT EXTRACT(EPOCH FROM kodu_soon())::bigint AS soon) AS moment
$$;

-- Proposes times that spread the tasks of equal interval evenly, and with dry_run => FALSE sets them.
-- Tasks of more than `longest` stay where they are: a nightly job is not to run at noon; so do those
-- that are to begin later than in one interval. The busiest second is that of the next 24 hours; when
-- the plan would make it busier, nothing is moved.
CREATE OR REPLACE FUNCTION kodu_stagger(dry_run boolean DEFAULT TRUE,
                                        longest interval DEFAULT '1 hour')
RETURNS TABLE (id integer, name text, "interval" interval, next_run timestamp, proposed timestamp,
               busiest_before bigint, busiest_after bigint)
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
#variable_conflict use_column
DECLARE
    plan record;
    task kodu_cron_plugin;
    is_better boolean;
BEGIN
    IF dry_run IS NULL OR longest IS NULL OR longest < interval '1 second' THEN
        RAISE EXCEPTION 'dry_run must be TRUE or FALSE, longest one second or more' USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Say kodu_stagger(dry_run => TRUE, longest => ''1 hour''), for instance.';
    END IF;
    IF NOT dry_run THEN
        -- The daemon waits for the whole plan rather than change rows under it.
        PERFORM FROM kodu_cron_plugin ORDER BY cron_id FOR NO KEY UPDATE;
    END IF;
    SELECT kodu_busiest_second(array_agg(first), array_agg(every)),
           kodu_busiest_second(array_agg(place), array_agg(every))
    INTO busiest_before, busiest_after
    FROM kodu_stagger_plan(longest);
    is_better := busiest_after <= busiest_before;
    busiest_after := least(busiest_after, busiest_before);
    RAISE NOTICE 'busiest second of the next 24 hours: % runs before, % after', busiest_before,
        busiest_after;

    FOR plan IN
        SELECT p.*, plugin_name FROM kodu_stagger_plan(longest) AS p
        JOIN kodu_cron_plugin ON cron_id = p.id JOIN kodu_plugins ON plugin_id = cron_plugin_id
        WHERE p.every <= EXTRACT(EPOCH FROM longest) ORDER BY p.every, p.place, p.id
    LOOP
        SELECT * INTO task FROM kodu_cron_plugin WHERE cron_id = plan.id;
        id := plan.id;
        name := plan.plugin_name;
        "interval" := task.cron_interval;
        next_run := task.cron_next_exec;
        proposed := next_run;
        IF is_better AND plan.place <> plan.first THEN
            proposed := timestamp '1970-01-01' + make_interval(secs => plan.place);
            IF NOT dry_run THEN
                PERFORM kodu_move(task, proposed);
            END IF;
        END IF;
        RETURN NEXT;
    END LOOP;
END
$$;

-- The runs due in each minute of the next hours, the busiest second of the minute, and how many
-- workers are at work at once when each run takes run_seconds, or what `durations` says of a task:
-- '{"7": 12.5}'. Retries are not foreseen; a run that takes longer than its interval counts as one
-- that takes all of it, since a task never runs beside itself.
CREATE OR REPLACE FUNCTION kodu_forecast(hours numeric DEFAULT 1, run_seconds numeric DEFAULT 1,
                                         durations jsonb DEFAULT '{}')
RETURNS TABLE (minute timestamp, runs bigint, busiest_second timestamp, busiest_runs bigint,
               workers bigint)
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
#variable_conflict use_column
DECLARE
    begins bigint := floor(EXTRACT(EPOCH FROM now()));
    ends bigint;
BEGIN
    IF hours IS NULL OR hours <= 0 OR hours > 168 OR run_seconds IS NULL OR run_seconds < 0 THEN
        RAISE EXCEPTION 'hours must lie between 0 and 168, and run_seconds not below 0' USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Say kodu_forecast(hours => 24, run_seconds => 2.5), for instance.';
    END IF;
    IF durations IS NULL OR jsonb_typeof(durations) <> 'object'
       OR EXISTS (SELECT FROM jsonb_each(durations) WHERE jsonb_typeof(value) <> 'number'
                                                       OR value < '0') THEN
        RAISE EXCEPTION 'durations must be an object of task ids and seconds' USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Say durations => ''{"7": 12.5, "8": 3}'', for instance.';
    END IF;
    ends := begins + ceil(hours * 3600);
    RETURN QUERY
    WITH alike AS (
        SELECT first, every, took, count(*) AS tasks
        FROM (SELECT first, every,
                     least(every, greatest(1, ceil(COALESCE((durations ->> id::text)::numeric,
                                                            run_seconds))))::bigint AS took
              FROM kodu_schedule()) AS task
        GROUP BY first, every, took
    ), started AS (
        SELECT second, took, sum(tasks) AS runs
        FROM alike, generate_series(first, ends - 1, every) AS second
        GROUP BY second, took
    ), moved AS (
        SELECT second, sum(runs) AS due, sum(runs) AS change FROM started GROUP BY second
        UNION ALL
        SELECT second + took, 0, -sum(runs) FROM started WHERE second + took < ends
        GROUP BY second + took
    ), seconds AS (
        SELECT second, COALESCE(sum(due), 0)::bigint AS due,
               sum(COALESCE(sum(change), 0)) OVER (ORDER BY second)::bigint AS at_work
        FROM generate_series(begins, ends - 1) AS second LEFT JOIN moved USING (second)
        GROUP BY second
    ), minutes AS (
        SELECT second / 60 * 60 AS first_second, sum(due)::bigint AS due, max(due) AS most,
               (array_agg(second ORDER BY due DESC, second))[1] AS busiest,
               max(at_work) AS at_work
        FROM seconds GROUP BY second / 60
    )
    SELECT timestamp '1970-01-01' + make_interval(secs => first_second), due,
           CASE WHEN most > 0 THEN timestamp '1970-01-01' + make_interval(secs => busiest) END,
           most, at_work
    FROM minutes ORDER BY first_second;
END
$$;

-- The role and its rights ------------------------------------------------------------------------

DO $$
BEGIN
    CREATE ROLE kodu_admin NOLOGIN;
EXCEPTION
    -- Roles belong to the whole cluster: another database may have made it, this very moment too.
    WHEN duplicate_object OR unique_violation THEN NULL;
END
$$;

-- The functions run with the rights of their caller, so these are all the rights there are. Not among
-- them: a task's status, deleting a task's row (the daemon ends at the next run of one that it has
-- loaded), changing a plugin that exists.
GRANT USAGE ON SCHEMA public TO kodu_admin;
GRANT SELECT ON kodu_plugins, kodu_cron_plugin, kodu_cron_error, kodu_cron_repair, kodu_cron_pause,
                kodu_task_status TO kodu_admin;
GRANT INSERT (plugin_name, plugin_path, plugin_type) ON kodu_plugins TO kodu_admin;
GRANT INSERT (cron_plugin_id, cron_interval, cron_next_exec, cron_log_file, cron_retries,
              cron_retries_interval, cron_parameter),
      UPDATE (cron_plugin_id, cron_interval, cron_next_exec, cron_log_file, cron_retries,
              cron_retries_interval, cron_parameter, cron_delete,
              cron_last_exec)  -- after a run that ended during a pause
    ON kodu_cron_plugin TO kodu_admin;
GRANT DELETE ON kodu_cron_error TO kodu_admin;
GRANT INSERT, UPDATE, DELETE ON kodu_cron_pause TO kodu_admin;

DO $$
DECLARE
    function regprocedure;
BEGIN
    EXECUTE format('GRANT CONNECT ON DATABASE %I TO kodu_admin', current_database());
    FOR function IN
        SELECT oid FROM pg_proc
        WHERE pronamespace = 'public'::regnamespace AND proname LIKE 'kodu\_%'
          AND prorettype <> 'trigger'::regtype
          AND proname <> 'kodu_pause_time'  -- whoever may read the view calls it
          AND proname NOT LIKE 'kodu\_ledger\_%'  -- sql/ledger.sql says who calls these
    LOOP
        EXECUTE format('REVOKE EXECUTE ON FUNCTION %s FROM PUBLIC', function);
        EXECUTE format('GRANT EXECUTE ON FUNCTION %s TO kodu_admin', function);
    END LOOP;
END
$$;

COMMIT;
