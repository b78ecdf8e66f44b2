-- Administration of koducron's tasks in SQL: triggers that notify the running daemon of changes,
-- functions for the daily work and a view of the tasks' state. docs/sql.md shows examples.
--
-- Load it after sql/schema.sql, as the same owner; loading it again changes nothing. Then make your
-- administrators members of the role kodu_admin:
--     CREATE ROLE alice LOGIN IN ROLE kodu_admin;
--
-- A program that writes rows and notifies the daemon must stop sending notifications, or disable the
-- triggers (ALTER TABLE kodu_cron_plugin DISABLE TRIGGER kodu_task_added). A task that is added twice is
-- twice in the daemon's queue and runs twice.
--
-- Time arguments have a time zone; returned times are UTC without a zone, as in the tables.

BEGIN;
SET LOCAL client_min_messages = warning;  -- nothing about what exists already
SET LOCAL search_path = public;

-- Notifications ----------------------------------------------------------------------------------

-- The daemon cannot be told to forget a loaded task, for example after a change of plugin_type or a
-- deleted row.
CREATE OR REPLACE FUNCTION kodu_notify_of_task() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    PERFORM pg_catalog.pg_notify('koducronchannel', pg_catalog.format(
        '{"TYPE":"SERVICE","COMMAND":"%s","ID":%s}', TG_ARGV[0], NEW.cron_id));
    RETURN NULL;
END
$$;

CREATE OR REPLACE TRIGGER kodu_task_added AFTER INSERT ON kodu_cron_plugin
    FOR EACH ROW EXECUTE FUNCTION kodu_notify_of_task('ADD');

-- The daemon writes cron_status, cron_last_exec and cron_next_exec: it must not be notified of its own
-- changes, so these columns are not listed here. The functions below notify it when they change a next
-- time.
CREATE OR REPLACE TRIGGER kodu_task_changed
    AFTER UPDATE OF cron_plugin_id, cron_interval, cron_log_file, cron_retries,
                    cron_retries_interval, cron_parameter ON kodu_cron_plugin
    FOR EACH ROW
    WHEN (NOT NEW.cron_changed  -- else the end of the run tells it
          AND (OLD.cron_plugin_id, OLD.cron_interval, OLD.cron_log_file, OLD.cron_retries,
               OLD.cron_retries_interval, OLD.cron_parameter) IS DISTINCT FROM
              (NEW.cron_plugin_id, NEW.cron_interval, NEW.cron_log_file, NEW.cron_retries,
               NEW.cron_retries_interval, NEW.cron_parameter))
    EXECUTE FUNCTION kodu_notify_of_task('UPDATE');

-- During a run the daemon must not be notified. To load the task it would wait for the end of the run
-- and load and purge nothing meanwhile. It would also move the due time during the run, which loses a
-- slot.
CREATE OR REPLACE FUNCTION kodu_remember_change() RETURNS trigger
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    NEW.cron_changed := kodu_is_running(OLD.cron_status, OLD.cron_next_exec, OLD.cron_wanted,
                                        clock_timestamp() AT TIME ZONE 'UTC');
    RETURN NEW;
END
$$;

CREATE OR REPLACE TRIGGER kodu_task_changing
    BEFORE UPDATE OF cron_plugin_id, cron_interval, cron_log_file, cron_retries,
                     cron_retries_interval, cron_parameter ON kodu_cron_plugin
    FOR EACH ROW
    WHEN ((OLD.cron_plugin_id, OLD.cron_interval, OLD.cron_log_file, OLD.cron_retries,
           OLD.cron_retries_interval, OLD.cron_parameter) IS DISTINCT FROM
          (NEW.cron_plugin_id, NEW.cron_interval, NEW.cron_log_file, NEW.cron_retries,
           NEW.cron_retries_interval, NEW.cron_parameter))
    EXECUTE FUNCTION kodu_remember_change();

-- A plugin's name and path are part of each of its tasks. The daemon is told of a task in a run at the
-- run's end, if the role that changes the plugin has a right to cron_changed.
CREATE OR REPLACE FUNCTION kodu_notify_of_plugin() RETURNS trigger
LANGUAGE plpgsql SET search_path = pg_catalog, pg_temp AS $$
BEGIN
    IF has_column_privilege('public.kodu_cron_plugin', 'cron_changed', 'UPDATE') THEN
        UPDATE public.kodu_cron_plugin SET cron_changed = TRUE
        WHERE cron_plugin_id = NEW.plugin_id
          AND public.kodu_is_running(cron_status, cron_next_exec, cron_wanted,
                                     clock_timestamp() AT TIME ZONE 'UTC');
    END IF;
    PERFORM pg_notify('koducronchannel', format(
        '{"TYPE":"SERVICE","COMMAND":"UPDATE","ID":%s}', cron_id))
    FROM public.kodu_cron_plugin WHERE cron_plugin_id = NEW.plugin_id AND NOT cron_changed;
    RETURN NULL;
END
$$;

CREATE OR REPLACE TRIGGER kodu_plugin_changed
    AFTER UPDATE OF plugin_name, plugin_path ON kodu_plugins
    FOR EACH ROW
    WHEN ((OLD.plugin_name, OLD.plugin_path) IS DISTINCT FROM (NEW.plugin_name, NEW.plugin_path))
    EXECUTE FUNCTION kodu_notify_of_plugin();

-- Runs in progress --------------------------------------------------------------------------------

-- While a run is in progress nothing outside may move its due time: at its end the daemon adds an
-- interval to whatever stands there. Nor may its row be deleted: the end of a run that finds no row
-- ends the daemon. So the functions below write what is to come into cron_wanted, and these triggers
-- carry it out within the daemon's own statements, whose answers tell the daemon the new time.
--
-- cron_wanted holds a time until the run of that time begins. `infinity` stands for a deletion: the end
-- of the run flags the row. The request survives the end of the daemon. sql/repair.sql ends an abandoned
-- run; without it, the request is carried out at the end of the next run.
--
-- They run as the daemon's role, which has no other rights, and must not fail: that would end the
-- daemon. So they call only the server's own functions.
--
-- The daemon moves a time that is past when it loads the task on by whole intervals: a time that
-- somebody has set would be lost where the call's transaction, or the loading of many tasks, took longer
-- than foreseen. Such a run begins now. After 15 minutes it is a missed run like any other. Loading
-- 60,000 tasks takes minutes, but after an outage not all of them may run at once.

-- The first time after `moment` of the task's calendar; NULL: none before the time of a pause.
CREATE OR REPLACE FUNCTION kodu_slot_after(task kodu_cron_plugin, moment timestamp) RETURNS timestamp
LANGUAGE plpgsql STABLE AS $$
DECLARE
    slot timestamp := pg_catalog.timezone('UTC', public.kodu_calendar_next_parsed(
        task.cron_slots, task.cron_zone, pg_catalog.timezone('UTC', moment)));
BEGIN
    RETURN CASE WHEN slot < timestamp '2036-01-01' THEN slot END;  -- kodu_pause_time()
END
$$;

-- When the run that is regularly due at `due` begins: after the maintenance windows that hold it.
CREATE OR REPLACE FUNCTION kodu_held(task kodu_cron_plugin, due timestamp) RETURNS timestamp
LANGUAGE plpgsql STABLE AS $$
BEGIN
    IF task.cron_windows IS NULL THEN
        RETURN due;  -- there need not be a sql/windows.sql
    END IF;
    RETURN public.kodu_window_hold(task, due);
END
$$;

-- `new` with the next time of the task's calendar and behind its maintenance windows, where the daemon's
-- statements move that time by intervals. With a calendar, it is the first one after the old time that is
-- not past; a task whose calendar has none is due at the time of a pause. After a run that a window has
-- moved, the intervals are counted from where it was due before. An error would end the daemon; the
-- interval applies then.
--
-- With the owner's rights, since the daemon's role may have another name than the files of sql/ know.
CREATE OR REPLACE FUNCTION kodu_follow_calendar(old kodu_cron_plugin, new kodu_cron_plugin)
RETURNS kodu_cron_plugin
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    -- The daemon compares whole seconds, and a time equal to the present is not past.
    utc timestamp := date_trunc('second', clock_timestamp() AT TIME ZONE 'UTC');
    reason text := COALESCE(current_setting('kodu.reason', TRUE), '');
    ends_run boolean := COALESCE(new.cron_last_exec = old.cron_next_exec
                                 AND new.cron_status <> 'PROCESS'
                                 AND new.cron_next_exec = old.cron_next_exec + old.cron_interval, FALSE);
    due timestamp;
BEGIN
    IF NOT ends_run
       -- It catches up, by a clock that may be ahead. People and tools change cron_wanted too, or say why
       -- they move the time.
       AND NOT COALESCE(
           old.cron_next_exec < utc + interval '1 minute' AND new.cron_next_exec > old.cron_next_exec
           AND new.cron_next_exec <= utc + old.cron_interval + interval '1 minute'
           AND EXTRACT(EPOCH FROM new.cron_next_exec - old.cron_next_exec)
               % EXTRACT(EPOCH FROM old.cron_interval) = 0
           AND (new.cron_status, new.cron_last_exec, new.cron_wanted, new.cron_delete)
               IS NOT DISTINCT FROM
               (old.cron_status, old.cron_last_exec, old.cron_wanted, old.cron_delete)
           AND reason = '', FALSE) THEN
        IF new.cron_held IS NOT DISTINCT FROM old.cron_held AND reason NOT IN ('moved', 'maintenance') THEN
            new.cron_held := NULL;  -- the time is another one
        END IF;
        RETURN new;
    ELSIF ends_run AND old.cron_wanted = old.cron_next_exec THEN
        RETURN new;  -- the run began as its time was moved: kodu_follow_request returns to that time
    END IF;
    new.cron_held := NULL;
    IF old.cron_slots IS NOT NULL THEN
        new.cron_next_exec := COALESCE(
            kodu_slot_after(old, greatest(old.cron_next_exec, utc - interval '1 microsecond')),
            kodu_pause_time());
    ELSIF old.cron_held IS NOT NULL THEN
        new.cron_next_exec := kodu_next_slot(
            old.cron_held, old.cron_interval,
            CASE WHEN ends_run THEN old.cron_next_exec + interval '1 microsecond'
                 ELSE greatest(utc, old.cron_next_exec + interval '1 microsecond') END);
    END IF;
    IF old.cron_windows IS NOT NULL THEN
        due := kodu_window_hold(old, new.cron_next_exec);
        IF due > new.cron_next_exec AND due > utc THEN
            new.cron_held := new.cron_next_exec;
            new.cron_next_exec := due;
        ELSIF ends_run THEN
            new.cron_windows := kodu_window_live(old.cron_windows);
        END IF;
    END IF;
    RETURN new;
EXCEPTION WHEN OTHERS THEN
    RETURN new;
END
$$;

-- `new` as the request in the task's row changes it.
CREATE OR REPLACE FUNCTION kodu_follow_request(old kodu_cron_plugin, new kodu_cron_plugin)
RETURNS kodu_cron_plugin
LANGUAGE plpgsql SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    utc timestamp := date_trunc('second', clock_timestamp() AT TIME ZONE 'UTC');
    -- The daemon looks at the clock again when it has the answer.
    soon timestamp := utc + interval '2 seconds';
BEGIN
    IF new.cron_status = 'PROCESS' AND new.cron_next_exec = old.cron_next_exec THEN
        IF new.cron_delete THEN
            -- It was in the daemon's queue when it was flagged. No purge may happen during this run.
            new.cron_delete := FALSE;
            new.cron_wanted := 'infinity';
        ELSIF old.cron_wanted = old.cron_next_exec AND old.cron_wanted > soon + interval '1 minute' THEN
            -- A worker had the task before the daemon heard of that time, which comes after this run.
            -- A minute, since the daemon's clock may be ahead.
            NULL;
        ELSIF old.cron_wanted <> 'infinity' AND (old.cron_status IS DISTINCT FROM 'PROCESS'
                                                 OR old.cron_wanted = old.cron_next_exec) THEN
            new.cron_wanted := NULL;  -- this is the run; a retry leaves what is wanted after it
        END IF;
    ELSIF old.cron_status = 'PROCESS' AND new.cron_status IS DISTINCT FROM 'PROCESS' THEN
        IF old.cron_wanted = 'infinity' THEN
            new.cron_delete := TRUE;
            new.cron_wanted := NULL;
            new.cron_next_exec := greatest(new.cron_next_exec, soon + interval '5 minutes');
        ELSIF old.cron_wanted IS NOT NULL THEN
            -- Beyond 2036 the table would refuse it, to the daemon.
            new.cron_next_exec := greatest(least(old.cron_wanted, timestamp '2036-01-01'), soon);
            -- The run began as its time was moved.
            new.cron_last_exec := least(new.cron_last_exec, soon - interval '2 seconds');
            -- Kept while it could be past when the daemon loads the task.
            new.cron_wanted := CASE WHEN new.cron_next_exec < soon + interval '1 hour'
                                    THEN new.cron_next_exec END;
        END IF;
        -- A full queue of the server would fail the daemon's statement as it commits, where no handler
        -- catches it. Then the end of the next run tells it, or the next start.
        IF old.cron_changed AND pg_notification_queue_usage() < 0.9 THEN
            new.cron_changed := FALSE;
            PERFORM pg_notify('koducronchannel', format(
                '{"TYPE":"SERVICE","COMMAND":"UPDATE","ID":%s}', new.cron_id));
        END IF;
    ELSIF new.cron_next_exec > old.cron_next_exec AND old.cron_wanted = old.cron_next_exec
          AND new.cron_wanted IS NOT DISTINCT FROM old.cron_wanted
          AND new.cron_status IS NOT DISTINCT FROM old.cron_status
          AND old.cron_wanted BETWEEN utc - interval '15 minutes' AND utc THEN
        new.cron_next_exec := soon;
        new.cron_wanted := soon;
    END IF;
    RETURN new;
END
$$;

-- In place of the function in sql/schema.sql. Reading six columns is all that a task without a request, a
-- calendar and a maintenance window costs.
CREATE OR REPLACE FUNCTION kodu_follow_daemon() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    IF OLD.cron_wanted IS NULL AND NOT OLD.cron_changed AND NOT OLD.cron_delete
       AND OLD.cron_slots IS NULL AND OLD.cron_windows IS NULL
       AND NEW.cron_next_exec BETWEEN timestamp '1970-01-01' AND timestamp '2036-01-01' THEN
        RETURN NEW;
    END IF;
    PERFORM public.kodu_check_next_run(OLD, NEW);
    IF (OLD.cron_slots IS NOT NULL OR OLD.cron_windows IS NOT NULL)
       AND NEW.cron_next_exec <> OLD.cron_next_exec THEN
        NEW := public.kodu_follow_calendar(OLD, NEW);
    END IF;
    RETURN public.kodu_follow_request(OLD, NEW);
END
$$;

-- It may call the function of sql/ledger.sql already.
DO $$
BEGIN
    IF EXISTS (SELECT FROM pg_trigger WHERE tgrelid = 'kodu_cron_plugin'::regclass
                                        AND tgname = 'kodu_task_updated'
                                        AND tgfoid = 'kodu_refuse_next_run()'::regprocedure) THEN
        CREATE OR REPLACE TRIGGER kodu_task_updated
            BEFORE UPDATE OF cron_status, cron_next_exec ON kodu_cron_plugin
            FOR EACH ROW EXECUTE FUNCTION kodu_follow_daemon();
    END IF;
END
$$;

-- For a purge that read the flag of a task whose run begins at the same time: such a run ends with an
-- update of the row. The purge has taken the task from the daemon's memory by then, and the next purge
-- deletes the row. The flag is off during the run, and the end of the run sets it again; the file that
-- this run writes stays. Before the run, cron_wanted says how long the row is kept. A due time proves
-- nothing: the functions may have moved it. The same holds for a purge that read the flag just before the
-- deletion was taken back: it has dropped the task from the daemon's memory, which loads it again.
--
-- With the rights of the tables' owner, since the daemon's role may not write cron_wanted.
CREATE OR REPLACE FUNCTION kodu_spare_run() RETURNS trigger
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
DECLARE
    utc timestamp := clock_timestamp() AT TIME ZONE 'UTC';
BEGIN
    IF NOT OLD.cron_delete AND OLD.cron_wanted = timestamp '1970-01-01' THEN
        IF pg_notification_queue_usage() < 0.9 THEN
            PERFORM pg_notify('koducronchannel', format(
                '{"TYPE":"SERVICE","COMMAND":"ADD","ID":%s}', OLD.cron_id));
        END IF;
        RETURN NULL;
    END IF;
    IF NOT OLD.cron_delete AND OLD.cron_status = 'PROCESS' AND OLD.cron_wanted = 'infinity' THEN
        RETURN NULL;
    END IF;
    -- A later time was wanted before somebody else set the flag.
    IF OLD.cron_delete AND OLD.cron_wanted > utc AND OLD.cron_wanted < utc + interval '15 seconds' THEN
        -- Too late to take the deletion back: the daemon has forgotten the task.
        UPDATE public.kodu_cron_plugin SET cron_wanted = timestamp '1970-01-01'
        WHERE cron_id = OLD.cron_id;
        RETURN NULL;
    END IF;
    RETURN OLD;
END
$$;

CREATE OR REPLACE TRIGGER kodu_run_deleted BEFORE DELETE ON kodu_cron_plugin
    FOR EACH ROW WHEN (OLD.cron_wanted IS NOT NULL)
    EXECUTE FUNCTION kodu_spare_run();

-- Helpers of the functions below -----------------------------------------------------------------

-- The earliest time of which the daemon, which reads notifications once a second, is notified in
-- advance.
CREATE OR REPLACE FUNCTION kodu_soon() RETURNS timestamp
LANGUAGE sql SET search_path = pg_catalog, public, pg_temp AS
    $$SELECT date_trunc('second', clock_timestamp() AT TIME ZONE 'UTC') + interval '3 seconds'$$;

-- `slot`, moved forward by whole intervals until it is not before `earliest`.
CREATE OR REPLACE FUNCTION kodu_next_slot(slot timestamp, every interval, earliest timestamp)
RETURNS timestamp
LANGUAGE sql IMMUTABLE SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT slot + every * greatest(0, ceil(EXTRACT(EPOCH FROM earliest - slot)
                                           / EXTRACT(EPOCH FROM every)))::double precision
$$;

-- The first regular time of the task that is not before `earliest`: of its calendar, or of the rhythm in
-- which `slot` stands. Refuses a calendar without a coming time.
CREATE OR REPLACE FUNCTION kodu_regular_time(task kodu_cron_plugin, slot timestamp, earliest timestamp)
RETURNS timestamp
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    due timestamp;
BEGIN
    IF task.cron_slots IS NULL THEN
        RETURN kodu_next_slot(slot, task.cron_interval, earliest);
    END IF;
    due := kodu_slot_after(task, earliest - interval '1 microsecond');
    IF due IS NULL THEN
        RAISE EXCEPTION 'the calendar % has no time from now to 2035', quote_literal(task.cron_calendar)
        USING ERRCODE = 'invalid_parameter_value',
              HINT = 'SELECT kodu_calendar_next(''0 3 * * *'', ''UTC'', now()) shows when one is due.';
    END IF;
    RETURN due;
END
$$;

-- The interval of a task with this calendar, where no other is given: the shortest distance between eight
-- of its times, from a second to a year. From a fixed date on, so that it is always the same.
CREATE OR REPLACE FUNCTION kodu_calendar_interval(calendar text, zone text) RETURNS interval
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    slots bigint[] := kodu_calendar_parse(calendar);
    place timestamptz := kodu_calendar_next_parsed(
        slots, kodu_calendar_zone(COALESCE(zone, 'UTC')), '2026-01-01 00:00:00+00');
    following timestamptz;
    shortest interval := '366 days';
BEGIN
    FOR n IN 1..7 LOOP
        following := kodu_calendar_next_parsed(slots, COALESCE(zone, 'UTC'), place);
        EXIT WHEN following IS NULL;
        shortest := least(shortest, make_interval(secs => EXTRACT(EPOCH FROM following - place)::integer));
        place := following;
    END LOOP;
    RETURN shortest;
END
$$;

-- Not in SQL: PERFORM would parse and plan such a function again at each of ten thousand calls.
CREATE OR REPLACE FUNCTION kodu_tell_update(task integer) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    PERFORM pg_notify('koducronchannel',
                      format('{"TYPE":"SERVICE","COMMAND":"UPDATE","ID":%s}', task));
END
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

-- The same, but refuses a task that is being deleted.
CREATE OR REPLACE FUNCTION kodu_task_take(task integer) RETURNS kodu_cron_plugin
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    taken kodu_cron_plugin := kodu_task_lock(task);
BEGIN
    IF taken.cron_delete OR taken.cron_wanted = 'infinity' THEN
        RAISE EXCEPTION 'task % is being deleted', task USING
            ERRCODE = 'object_not_in_prerequisite_state',
            HINT = 'Add it again with kodu_task_add.';
    END IF;
    RETURN taken;
END
$$;

-- By the clock: in a long transaction, now() is too old.
CREATE OR REPLACE FUNCTION kodu_runs_now(task kodu_cron_plugin) RETURNS boolean
LANGUAGE sql SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT kodu_is_running(task.cron_status, task.cron_next_exec, task.cron_wanted,
                           clock_timestamp() AT TIME ZONE 'UTC')
$$;

CREATE OR REPLACE FUNCTION kodu_paused_now(task kodu_cron_plugin) RETURNS boolean
LANGUAGE sql SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT kodu_is_paused(task.cron_status, task.cron_next_exec, task.cron_wanted,
                          clock_timestamp() AT TIME ZONE 'UTC')
           OR EXISTS (SELECT FROM kodu_cron_pause
                      WHERE cron_id = task.cron_id
                        AND resumes_at > clock_timestamp() AT TIME ZONE 'UTC')
$$;

-- Sets the time of the next run; during a run, of the one after it. NULL: an interval after it. All
-- functions that move a time do it here. is_rhythm: a time that is past when the daemon is notified may
-- be moved by an interval, like a missed run. held: from when a maintenance window has moved it.
CREATE OR REPLACE FUNCTION kodu_move(task kodu_cron_plugin, due timestamp,
                                     is_rhythm boolean DEFAULT FALSE, held timestamp DEFAULT NULL)
RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF kodu_runs_now(task) THEN
        UPDATE kodu_cron_plugin SET cron_wanted = due WHERE cron_id = task.cron_id;
        IF task.cron_wanted = task.cron_next_exec THEN
            -- The run that began as its time was moved is known by the two being equal. To the trigger,
            -- a time that is set but not changed would be the retry of a run.
            UPDATE kodu_cron_plugin SET cron_next_exec = due
            WHERE cron_id = task.cron_id AND due <= kodu_pause_time() AND cron_next_exec <> due;
            PERFORM kodu_tell_update(task.cron_id);  -- it has been told of the other time
        END IF;
    ELSE
        UPDATE kodu_cron_plugin SET cron_next_exec = due,
            cron_wanted = CASE WHEN NOT is_rhythm THEN due END, cron_held = held
        WHERE cron_id = task.cron_id;
        PERFORM kodu_tell_update(task.cron_id);
    END IF;
END
$$;

-- The same with one of the task's regular times, which its maintenance windows hold.
CREATE OR REPLACE FUNCTION kodu_move_to_regular(task kodu_cron_plugin, due timestamp) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    begins timestamp := kodu_held(task, due);
BEGIN
    PERFORM kodu_move(task, begins, is_rhythm => task.cron_slots IS NOT NULL AND begins = due,
                      held => CASE WHEN begins <> due THEN due END);
END
$$;

-- Says that a time which somebody sets lies in a maintenance window, which does not hold it.
CREATE OR REPLACE FUNCTION kodu_note_window(task kodu_cron_plugin, due timestamp) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF kodu_held(task, due) <> due THEN
        RAISE NOTICE 'a maintenance window concerns task %; this run is not held', task.cron_id;
    END IF;
END
$$;

CREATE OR REPLACE FUNCTION kodu_refuse_paused(task kodu_cron_plugin) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF kodu_paused_now(task) THEN
        RAISE EXCEPTION 'task % is paused', task.cron_id USING
            ERRCODE = 'object_not_in_prerequisite_state',
            HINT = format('Call kodu_task_resume(%s) first.', task.cron_id);
    END IF;
END
$$;

-- Raises an error with a message and a hint for a CHECK or a unique index of the tables. What the triggers
-- of sql/schema.sql refuse has its own.
CREATE OR REPLACE FUNCTION kodu_refuse(broken text) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    said text[] := CASE broken
        WHEN 'cron_interval_from_second_to_year' THEN
            ARRAY['the interval must be between 1 second and 366 days',
                  'Use every => ''5 minutes'', for example.']
        WHEN 'cron_log_file_of_one_task' THEN
            ARRAY['another task has this output file',
                  'Write $SERVICEID into the name; the default is $SERVICEID_$DATE.txt.']
        WHEN 'kodu_cron_key_task_key_key' THEN
            ARRAY['another task has this key', 'SELECT kodu_task_with_key(''web/load'') names it.']
        WHEN 'task_key_is_one_word' THEN
            ARRAY['a key must be one word of at most 200 letters, digits and . _ : / @ -',
                  'Use key => ''web/load'', for example.']
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
            HINT = 'Without it the copies of two failed runs have the same name, and the second ends the'
                   ' daemon; the default is $SERVICEID_$DATE.txt.';
    END IF;
END
$$;

-- The time as a column's value: one in the past moved on by whole intervals, as the daemon would, or to
-- the calendar's next time.
CREATE OR REPLACE FUNCTION kodu_check_time(run_at timestamptz, task kodu_cron_plugin) RETURNS timestamp
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    utc timestamp := date_trunc('second', run_at AT TIME ZONE 'UTC');
BEGIN
    IF NOT isfinite(utc) OR utc >= kodu_pause_time() OR utc < timestamp '1970-01-01' THEN
        RAISE EXCEPTION 'the time of a run must be between 1970 and 2035' USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Use now() + interval ''10 minutes'', for example. A time in the past is moved'
                   ' forward by whole intervals.';
    END IF;
    -- The table refuses other intervals, with a better message than a division would.
    IF task.cron_interval >= interval '1 second' AND utc < clock_timestamp() AT TIME ZONE 'UTC' THEN
        RETURN kodu_regular_time(task, utc, kodu_soon());
    END IF;
    RETURN utc;
END
$$;

-- When a new task is due: at the time that is asked for, else at its calendar's next one, else at once.
CREATE OR REPLACE FUNCTION kodu_first_time(task kodu_cron_plugin, run_at timestamptz) RETURNS timestamp
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    RETURN CASE WHEN run_at IS NOT NULL THEN kodu_check_time(run_at, task)
                WHEN task.cron_slots IS NOT NULL THEN kodu_regular_time(task, NULL, kodu_soon())
                ELSE kodu_soon() END;
END
$$;

-- Refuses a plugin of a type that the daemon does not run.
CREATE OR REPLACE FUNCTION kodu_plugin_check(type text, plugin text) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF type <> 'cron' THEN
        RAISE EXCEPTION 'the plugin % is of type %, not cron', quote_literal(plugin), type USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'The daemon runs only plugins of type cron.';
    END IF;
END
$$;

-- The plugin of the catalogue that `plugin` names.
CREATE OR REPLACE FUNCTION kodu_plugin_named(plugin text) RETURNS kodu_plugins
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    found_one kodu_plugins;
    ids integer[];
BEGIN
    -- For tasks with a timeout the catalogue has two rows: the plugin and the guard with the same name.
    SELECT array_agg(id ORDER BY id) INTO ids
    FROM (SELECT min(plugin_id) AS id,
                 rank() OVER (ORDER BY plugin_type <> 'cron',
                                       plugin_path LIKE '%/koduguard') AS preference
          FROM kodu_plugins WHERE plugin_name = plugin
          GROUP BY plugin_path, plugin_type) AS path
    WHERE preference = 1;
    IF ids IS NULL THEN
        RAISE EXCEPTION 'there is no plugin %', COALESCE(quote_literal(plugin), 'NULL') USING
            ERRCODE = 'undefined_object',
            HINT = 'Name one of SELECT plugin_name FROM kodu_plugins, or give the absolute path of'
                   ' an executable.';
    END IF;
    SELECT * INTO found_one FROM kodu_plugins WHERE plugin_id = ids[1];
    PERFORM kodu_plugin_check(found_one.plugin_type, plugin);
    IF cardinality(ids) > 1 THEN
        RAISE EXCEPTION 'there are % plugins named %', cardinality(ids), quote_literal(plugin) USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Give the plugin''s path.';
    END IF;
    RETURN found_one;
END
$$;

-- The id of the plugin with this path and exactly this name, which is also the name of its tasks.
-- Creates it if the catalogue has none; the default name is that of the file.
CREATE OR REPLACE FUNCTION kodu_plugin_at(path text, called text) RETURNS integer
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    title text := COALESCE(called, regexp_replace(path, '^.*/', ''));
    id integer;
BEGIN
    SELECT min(plugin_id) INTO id
    -- Uses only the index of both: thousands of rows may have the same path or name.
    FROM (SELECT * FROM kodu_plugins WHERE plugin_path || ' ' || plugin_name = path || ' ' || title
          OFFSET 0) AS alike
    WHERE plugin_path = path AND plugin_name = title AND plugin_type = 'cron';
    IF id IS NULL THEN
        INSERT INTO kodu_plugins (plugin_name, plugin_path) VALUES (title, path)
        RETURNING plugin_id INTO id;
    END IF;
    RETURN id;
END
$$;

-- The path and the name of the plugin to run: of a plugin of the catalogue given by name, or of a path,
-- whose name is that of the file. Names of other tasks with that path do not matter.
CREATE OR REPLACE FUNCTION kodu_plugin_find(plugin text, OUT path text, OUT title text)
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF NOT starts_with(plugin, '/') OR plugin IS NULL THEN
        SELECT plugin_path, plugin_name INTO path, title FROM kodu_plugin_named(plugin);
        RETURN;
    END IF;
    path := plugin;
    title := regexp_replace(plugin, '^.*/', '');
    IF NOT EXISTS (SELECT FROM kodu_plugins WHERE plugin_path = plugin AND plugin_type = 'cron') THEN
        PERFORM kodu_plugin_check(plugin_type, plugin)
        FROM kodu_plugins WHERE plugin_path = plugin LIMIT 1;
    END IF;
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
            HINT = 'The parameters of a task cannot contain a quote.';
    END IF;
    RETURN '"' || word || '"';
END
$$;

-- What a task's row holds for a plugin, a name, parameters and a time limit: the id of a plugin of the
-- catalogue, and the parameters.
CREATE OR REPLACE FUNCTION kodu_defined(plugin text, name text, parameters text, timeout interval,
                                        OUT id integer, OUT arguments text)
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    called record;
BEGIN
    SELECT * INTO called FROM kodu_plugin_find(plugin);
    id := kodu_plugin_at(called.path, COALESCE(name, called.title));
    arguments := parameters;
    IF timeout IS NOT NULL THEN
        SELECT guarded.id, guarded.arguments INTO id, arguments
        FROM kodu_guarded(called.path, COALESCE(name, called.title), parameters, timeout) AS guarded;
    END IF;
END
$$;

-- Writes the definition in `wanted` into the task's row. The triggers notify the daemon if it differs.
CREATE OR REPLACE FUNCTION kodu_rewrite(wanted kodu_cron_plugin) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    broken text;
BEGIN
    UPDATE kodu_cron_plugin SET
        cron_plugin_id = wanted.cron_plugin_id,
        cron_interval = wanted.cron_interval,
        cron_parameter = wanted.cron_parameter,
        cron_retries = wanted.cron_retries,
        cron_retries_interval = wanted.cron_retries_interval,
        cron_log_file = wanted.cron_log_file
    WHERE cron_id = wanted.cron_id;
    UPDATE kodu_cron_plugin SET cron_calendar = wanted.cron_calendar, cron_zone = wanted.cron_zone
    WHERE cron_id = wanted.cron_id
      AND (cron_calendar, cron_zone) IS DISTINCT FROM (wanted.cron_calendar, wanted.cron_zone);
EXCEPTION WHEN unique_violation THEN
    GET STACKED DIAGNOSTICS broken = CONSTRAINT_NAME;
    PERFORM kodu_refuse(broken);
END
$$;

-- What a calendar and a zone come to in a task's row. A calendar of '' is none.
CREATE OR REPLACE FUNCTION kodu_give_calendar(wanted kodu_cron_plugin, at text, zone text, every interval)
RETURNS kodu_cron_plugin
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    wanted.cron_calendar := NULLIF(COALESCE(at, wanted.cron_calendar), '');
    IF wanted.cron_calendar IS NULL THEN
        IF zone IS NOT NULL THEN
            RAISE EXCEPTION 'a time zone without a calendar' USING
                ERRCODE = 'invalid_parameter_value',
                HINT = 'Use at => ''0 3 * * mon-fri'', zone => ''Europe/Paris'', for example.';
        END IF;
        wanted.cron_zone := NULL;
        wanted.cron_slots := NULL;
    ELSE
        wanted.cron_zone := kodu_calendar_zone(COALESCE(zone, wanted.cron_zone, 'UTC'));
        wanted.cron_slots := kodu_calendar_parse(wanted.cron_calendar);
        IF at IS NOT NULL OR every IS NOT NULL THEN
            wanted.cron_interval := COALESCE(every, kodu_calendar_interval(at, wanted.cron_zone));
        END IF;
    END IF;
    RETURN wanted;
END
$$;

-- Moves the next time of a task that has got another calendar to the calendar's next one. During a run its
-- end does it, in a pause without an end kodu_task_resume. A task that is parked is due again at once when
-- its calendar is removed.
CREATE OR REPLACE FUNCTION kodu_enter_calendar(old kodu_cron_plugin, wanted kodu_cron_plugin)
RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    is_paused boolean := kodu_paused_now(old);
    pause kodu_cron_pause;
    due timestamp;
BEGIN
    IF (old.cron_slots, old.cron_zone) IS NOT DISTINCT FROM (wanted.cron_slots, wanted.cron_zone) THEN
        RETURN;
    END IF;
    SELECT * INTO pause FROM kodu_cron_pause WHERE cron_id = old.cron_id AND is_paused;
    IF wanted.cron_slots IS NOT NULL THEN
        due := kodu_regular_time(wanted, NULL, greatest(kodu_soon(), pause.resumes_at));
    ELSIF is_paused THEN
        due := kodu_soon();
    END IF;
    IF due IS NOT NULL AND (pause.resumes_at IS NOT NULL
                            OR pause.cron_id IS NULL AND NOT kodu_runs_now(old)) THEN
        PERFORM kodu_move_to_regular(wanted, due);
    END IF;
END
$$;

-- Keys -------------------------------------------------------------------------------------------

-- kodu_implied_key in sql/schema.sql is the key of a task that has not been given one.

CREATE OR REPLACE FUNCTION kodu_key_of(task integer) RETURNS text
LANGUAGE sql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT COALESCE((SELECT task_key FROM kodu_cron_key WHERE cron_id = task), kodu_implied_key(task))
$$;

-- The id of the task that has the key, NULL when there is none. A task that is being deleted does not
-- count.
CREATE OR REPLACE FUNCTION kodu_task_with_key(key text) RETURNS integer
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    id integer;
BEGIN
    SELECT cron_id INTO id FROM kodu_cron_key WHERE task_key = key;
    IF NOT FOUND AND key ~ '^task-[0-9]{1,9}x*$' THEN
        SELECT cron_id INTO id FROM kodu_cron_plugin
        WHERE cron_id = substring(key, '[0-9]+')::integer AND kodu_key_of(cron_id) = key;
    END IF;
    IF id IS NOT NULL THEN
        SELECT cron_id INTO id FROM kodu_cron_plugin
        WHERE cron_id = id AND NOT cron_delete AND cron_wanted IS DISTINCT FROM 'infinity';
    END IF;
    RETURN id;
END
$$;

-- Gives a task that key, instead of its present one. A task that is being deleted loses it.
CREATE OR REPLACE FUNCTION kodu_give_key(task integer, key text) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    broken text;
BEGIN
    IF EXISTS (SELECT FROM kodu_cron_key WHERE task_key = key) THEN
        DELETE FROM kodu_cron_key USING kodu_cron_plugin AS holder
        WHERE task_key = key AND holder.cron_id = kodu_cron_key.cron_id
          AND (cron_delete OR cron_wanted = 'infinity');
    END IF;
    INSERT INTO kodu_cron_key (cron_id, task_key) VALUES (task, key)
    ON CONFLICT (cron_id) DO UPDATE SET task_key = EXCLUDED.task_key;
EXCEPTION WHEN check_violation OR unique_violation THEN
    GET STACKED DIAGNOSTICS broken = CONSTRAINT_NAME;
    PERFORM kodu_refuse(broken);
END
$$;

-- Tasks ------------------------------------------------------------------------------------------

-- Adds a task and returns its id. plugin: a name of the catalogue or a path. name: what the task is
-- called; the plugin's own by default. retries and retry_after: one after 120 seconds by default.
-- first_run: a moment ahead by default. timeout: runs the plugin through koduguard with that limit.
-- key: refuses a second task with this key; with if_missing returns the id of the present one instead.
-- at, zone: the task runs at the times of this calendar (UTC by default). `every` may be left out then.
CREATE OR REPLACE FUNCTION kodu_task_add(
    plugin text, every interval DEFAULT NULL, parameters text DEFAULT NULL, retries integer DEFAULT NULL,
    retry_after interval DEFAULT NULL, file_name text DEFAULT '$SERVICEID_$DATE.txt',
    first_run timestamptz DEFAULT NULL, name text DEFAULT NULL, timeout interval DEFAULT NULL,
    key text DEFAULT NULL, if_missing boolean DEFAULT FALSE, at text DEFAULT NULL,
    zone text DEFAULT NULL)
RETURNS integer
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    defined record;
    wanted kodu_cron_plugin;
    due timestamp;
    id integer := CASE WHEN key IS NOT NULL THEN kodu_task_with_key(key) END;
    broken text;
BEGIN
    IF id IS NOT NULL THEN
        IF if_missing THEN
            RETURN id;
        END IF;
        RAISE EXCEPTION 'task % has the key %', id, quote_literal(key) USING
            ERRCODE = 'unique_violation',
            HINT = 'Two tasks cannot have the same key. Leave the present one as it is with'
                   ' if_missing => TRUE, or change it with kodu_task_set.';
    END IF;
    SELECT * INTO defined FROM kodu_defined(plugin, name, parameters, timeout);
    wanted.cron_interval := every;
    wanted := kodu_give_calendar(wanted, at, zone, every);
    IF wanted.cron_interval IS NULL THEN
        PERFORM kodu_refuse('cron_interval_from_second_to_year');
    END IF;
    due := kodu_first_time(wanted, first_run);
    file_name := COALESCE(file_name, '$SERVICEID_$DATE.txt');
    BEGIN
        INSERT INTO kodu_cron_plugin (cron_plugin_id, cron_interval, cron_next_exec, cron_wanted,
                                      cron_log_file, cron_retries, cron_retries_interval,
                                      cron_parameter, cron_calendar, cron_zone)
        VALUES (defined.id, wanted.cron_interval, due,
                CASE WHEN at IS NULL OR first_run IS NOT NULL THEN due END, file_name, retries,
                retry_after, defined.arguments, wanted.cron_calendar, wanted.cron_zone)
        RETURNING cron_id INTO id;
        IF key IS NOT NULL THEN
            PERFORM kodu_give_key(id, key);
        END IF;
    EXCEPTION
        WHEN unique_violation THEN
            GET STACKED DIAGNOSTICS broken = CONSTRAINT_NAME;
            PERFORM kodu_refuse(broken);
        WHEN check_violation THEN  -- of a row, or of the key, which another session has given meanwhile
            id := CASE WHEN if_missing THEN kodu_task_with_key(key) END;
            IF id IS NOT NULL THEN
                RETURN id;
            END IF;
            RAISE;
    END;
    PERFORM kodu_check_file_name(file_name);
    RETURN id;
END
$$;

CREATE OR REPLACE FUNCTION kodu_timeout_seconds(timeout interval) RETURNS integer
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    seconds numeric := EXTRACT(EPOCH FROM timeout);
BEGIN
    IF seconds NOT BETWEEN 1 AND 86400 OR seconds % 1 <> 0 THEN
        RAISE EXCEPTION 'the timeout must be whole seconds, from 1 second to 1 day' USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Use timeout => ''30 seconds'', for example.';
    END IF;
    RETURN seconds;
END
$$;

-- The plugin and the parameters that run a path within a time limit. The guard's path is that of the
-- catalogue, otherwise that of the package.
CREATE OR REPLACE FUNCTION kodu_guarded(path text, called text, parameters text, timeout interval,
                                        OUT id integer, OUT arguments text)
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    seconds integer := kodu_timeout_seconds(timeout);
    guard text;
BEGIN
    SELECT plugin_path INTO guard FROM kodu_plugins WHERE plugin_path LIKE '%/koduguard'
    ORDER BY plugin_id LIMIT 1;
    id := kodu_plugin_at(COALESCE(guard, '/usr/bin/koduguard'), called);
    arguments := concat_ws(' ', '-t', seconds, '--', kodu_quote_argument(path),
                           NULLIF(parameters, ''));
END
$$;

-- A guarded task's parameters in their three parts: the guard's own up to "-- ", the plugin, the
-- plugin's arguments.
CREATE OR REPLACE FUNCTION kodu_guard_parts(task kodu_cron_plugin, OUT guard text, OUT plugin text,
                                            OUT arguments text)
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    parts text[] := regexp_match(
        task.cron_parameter,
        '^((?:[^ "'']+ +)*?-- +)("[^"]*"|''[^'']*''|[^ "'']+)(?: +(.*))?$');
BEGIN
    IF parts IS NULL THEN
        RAISE EXCEPTION 'the parameters of task % name no plugin after --', task.cron_id USING
            ERRCODE = 'object_not_in_prerequisite_state',
            HINT = 'koduguard runs it. Use plugin => the path of koduguard, and parameters =>'
                   ' ''-t 30 -- /path/of/the/plugin'', for example.';
    END IF;
    guard := parts[1];
    plugin := parts[2];
    arguments := parts[3];
END
$$;

-- The guard's own parameters with another time limit; the others stay.
CREATE OR REPLACE FUNCTION kodu_guard_limited(guard text, timeout interval) RETURNS text
LANGUAGE sql SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT CASE WHEN timeout IS NULL THEN guard
                ELSE format('-t %s %s', kodu_timeout_seconds(timeout),
                            regexp_replace(guard, '(^| )-t +[^ ]+ +', '\1')) END
$$;

-- What kodu_task_set's plugin, parameters, name and timeout come to: the id of a plugin of the
-- catalogue, and the task's parameters; NULL for what stays. Where koduguard runs the task's plugin, the
-- first three are about that plugin, and the guard stays unless the timeout is 0.
CREATE OR REPLACE FUNCTION kodu_redefined(task kodu_cron_plugin, plugin text, parameters text,
                                          name text, timeout interval,
                                          OUT id integer, OUT arguments text)
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    present kodu_plugins;
    wanted record;
    parts record;
BEGIN
    SELECT * INTO present FROM kodu_plugins WHERE plugin_id = task.cron_plugin_id;
    SELECT NULL::text AS path, NULL::text AS title INTO wanted;
    IF plugin IS NOT NULL THEN
        SELECT * INTO wanted FROM kodu_plugin_find(plugin);
    END IF;
    arguments := parameters;
    IF present.plugin_path LIKE '%/koduguard' AND num_nonnulls(plugin, parameters, timeout) > 0
       AND wanted.path NOT LIKE '%/koduguard' IS NOT FALSE THEN
        SELECT * INTO parts FROM kodu_guard_parts(task);
        arguments := COALESCE(parameters, parts.arguments, '');
        IF timeout = interval '0' THEN
            wanted.path := COALESCE(wanted.path, btrim(parts.plugin, '"'''));
        ELSE
            arguments := kodu_guard_limited(parts.guard, timeout) || concat_ws(
                ' ', COALESCE(kodu_quote_argument(wanted.path), parts.plugin),
                NULLIF(arguments, ''));
            wanted.path := present.plugin_path;
        END IF;
    ELSIF timeout <> interval '0' THEN
        SELECT guarded.id, guarded.arguments INTO id, arguments
        FROM kodu_guarded(COALESCE(wanted.path, present.plugin_path),
                          COALESCE(name, wanted.title, present.plugin_name),
                          COALESCE(parameters, task.cron_parameter), timeout) AS guarded;
        RETURN;
    END IF;
    IF num_nonnulls(plugin, name) > 0 OR wanted.path <> present.plugin_path THEN
        id := kodu_plugin_at(COALESCE(wanted.path, present.plugin_path),
                             COALESCE(name, wanted.title, present.plugin_name));
    END IF;
END
$$;

-- Changes what is not NULL. next_run moves the task's next run, and with it all that follow; with a
-- calendar, only the next one. timeout: has koduguard run the plugin with that limit; 0 removes the limit.
-- at => '' removes the calendar.
CREATE OR REPLACE FUNCTION kodu_task_set(
    task integer, plugin text DEFAULT NULL, every interval DEFAULT NULL,
    parameters text DEFAULT NULL, retries integer DEFAULT NULL, retry_after interval DEFAULT NULL,
    file_name text DEFAULT NULL, next_run timestamptz DEFAULT NULL, name text DEFAULT NULL,
    timeout interval DEFAULT NULL, key text DEFAULT NULL, at text DEFAULT NULL,
    zone text DEFAULT NULL)
RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    old kodu_cron_plugin := kodu_task_take(task);
    wanted kodu_cron_plugin := old;
    defined record;
BEGIN
    IF num_nonnulls(plugin, every, parameters, retries, retry_after, file_name, next_run, name,
                    timeout, key, at, zone) = 0 THEN
        RAISE EXCEPTION 'there is nothing to set for task %', task USING
            ERRCODE = 'invalid_parameter_value',
            HINT = format('Use kodu_task_set(%s, every => ''5 minutes''), for example.', task);
    END IF;
    IF next_run IS NOT NULL THEN
        PERFORM kodu_refuse_paused(old);
    END IF;
    SELECT * INTO defined FROM kodu_redefined(old, plugin, parameters, name, timeout);
    wanted.cron_plugin_id := COALESCE(defined.id, old.cron_plugin_id);
    wanted.cron_interval := COALESCE(every, old.cron_interval);
    wanted.cron_parameter := COALESCE(defined.arguments, old.cron_parameter);
    wanted.cron_retries := COALESCE(retries, old.cron_retries);
    wanted.cron_retries_interval := COALESCE(retry_after, old.cron_retries_interval);
    wanted.cron_log_file := COALESCE(file_name, old.cron_log_file);
    IF num_nonnulls(at, zone) > 0 THEN
        wanted := kodu_give_calendar(wanted, at, zone, every);
    END IF;
    PERFORM kodu_rewrite(wanted);
    PERFORM kodu_check_file_name(file_name);
    IF key IS NOT NULL THEN
        PERFORM kodu_give_key(task, key);
    END IF;
    IF next_run IS NOT NULL THEN
        PERFORM kodu_move(old, kodu_check_time(next_run, wanted));
        PERFORM kodu_note_window(old, date_trunc('second', next_run AT TIME ZONE 'UTC'));
    ELSE
        PERFORM kodu_enter_calendar(old, wanted);
    END IF;
END
$$;

-- Makes a task what kodu_task_add would make of the same arguments: what is NULL gets its default. The
-- next run stays where it is unless next_run moves it; so do status, history and key.
CREATE OR REPLACE FUNCTION kodu_task_define(
    task integer, plugin text, every interval, parameters text DEFAULT NULL,
    retries integer DEFAULT NULL, retry_after interval DEFAULT NULL,
    file_name text DEFAULT NULL, next_run timestamptz DEFAULT NULL, name text DEFAULT NULL,
    timeout interval DEFAULT NULL, at text DEFAULT NULL, zone text DEFAULT NULL)
RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    old kodu_cron_plugin := kodu_task_take(task);
    wanted kodu_cron_plugin := old;
    defined record;
BEGIN
    IF next_run IS NOT NULL THEN
        PERFORM kodu_refuse_paused(old);
    END IF;
    SELECT * INTO defined FROM kodu_defined(plugin, name, parameters, timeout);
    wanted.cron_plugin_id := defined.id;
    wanted.cron_interval := every;
    wanted.cron_zone := NULL;
    wanted := kodu_give_calendar(wanted, COALESCE(at, ''), zone, every);
    IF wanted.cron_interval IS NULL THEN
        PERFORM kodu_refuse('cron_interval_from_second_to_year');
    END IF;
    wanted.cron_parameter := defined.arguments;
    wanted.cron_retries := retries;
    wanted.cron_retries_interval := retry_after;
    wanted.cron_log_file := COALESCE(file_name, '$SERVICEID_$DATE.txt');
    PERFORM kodu_rewrite(wanted);
    PERFORM kodu_check_file_name(wanted.cron_log_file);
    IF next_run IS NOT NULL THEN
        PERFORM kodu_move(old, kodu_check_time(next_run, wanted));
    ELSE
        PERFORM kodu_enter_calendar(old, wanted);
    END IF;
END
$$;

-- Who changes something: the role of the session, and in a session of the console the role that it has taken
-- for a person. Also within functions that have their owner's rights.
CREATE OR REPLACE FUNCTION kodu_person() RETURNS text
LANGUAGE sql STABLE SET search_path = pg_catalog, pg_temp AS $$
    SELECT CASE WHEN session_user = 'kodu_web'
                THEN COALESCE(NULLIF(current_setting('role'), 'none'), session_user)
                ELSE session_user END
$$;

-- Prevents the task from running until kodu_task_resume, also after a restart of the daemon, or until a
-- time: then its next run is its first regular one from that time on. A run in progress, including its
-- retries, is completed first. A pause can get another end during it.
CREATE OR REPLACE FUNCTION kodu_task_pause(task integer, reason text DEFAULT NULL,
                                           until timestamptz DEFAULT NULL) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    old kodu_cron_plugin := kodu_task_take(task);
    ends timestamp := date_trunc('second', until AT TIME ZONE 'UTC');
    was_due timestamp := COALESCE(old.cron_held, greatest(old.cron_next_exec, old.cron_wanted));
    present kodu_cron_pause;
BEGIN
    IF ends <= clock_timestamp() AT TIME ZONE 'UTC' OR ends >= timestamp '2035-01-01' THEN
        RAISE EXCEPTION 'the end of a pause must lie ahead, and before 2035' USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Use until => now() + interval ''2 hours'', for example.';
    END IF;
    IF kodu_paused_now(old) THEN
        IF ends IS NULL THEN
            RAISE NOTICE 'task % is paused already', task;
            RETURN;
        END IF;
        SELECT * INTO present FROM kodu_cron_pause WHERE cron_id = task;
        was_due := COALESCE(present.next_exec, kodu_soon());
    END IF;
    INSERT INTO kodu_cron_pause AS pause (cron_id, next_exec, paused_by, reason, resumes_at)
    VALUES (task, was_due, kodu_person(), COALESCE(kodu_task_pause.reason, present.reason), ends)
    ON CONFLICT (cron_id) DO UPDATE SET next_exec = EXCLUDED.next_exec,
        paused_at = EXCLUDED.paused_at, paused_by = EXCLUDED.paused_by, reason = EXCLUDED.reason,
        resumes_at = EXCLUDED.resumes_at;
    -- The ledger records why the times in between have no run.
    PERFORM set_config('kodu.reason', 'paused', TRUE);
    IF ends IS NULL THEN
        PERFORM kodu_move(old, kodu_pause_time(), is_rhythm => old.cron_slots IS NOT NULL);
    ELSE
        PERFORM kodu_move_to_regular(old, kodu_regular_time(old, was_due, ends));
    END IF;
    PERFORM set_config('kodu.reason', '', TRUE);
END
$$;

-- Lets a paused task run again, at its next regular time.
CREATE OR REPLACE FUNCTION kodu_task_resume(task integer) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    old kodu_cron_plugin := kodu_task_take(task);
    was_paused boolean := kodu_paused_now(old);
    was_due timestamp;
    next_slot timestamp;
BEGIN
    DELETE FROM kodu_cron_pause WHERE cron_id = task RETURNING next_exec INTO was_due;
    IF NOT was_paused THEN
        RAISE NOTICE 'task % is not paused', task;
        RETURN;
    END IF;
    IF kodu_runs_now(old) AND was_due <= old.cron_next_exec
       AND old.cron_next_exec < kodu_pause_time() THEN
        PERFORM kodu_move(old, NULL);
        RETURN;
    END IF;
    IF old.cron_last_exec >= kodu_pause_time() THEN
        -- A run that an older version of these functions paused was due in 2036 when it ended.
        UPDATE kodu_cron_plugin SET cron_last_exec = was_due WHERE cron_id = task;
    END IF;
    -- Assigned, because PERFORM would plan these functions again at each call.
    next_slot := kodu_regular_time(old, COALESCE(was_due, kodu_soon()), kodu_soon());
    PERFORM kodu_move_to_regular(old, next_slot);
END
$$;

-- Runs the task in a few seconds; the runs after it follow an interval apart from then on, or at the times
-- of its calendar. Returns when it is due.
CREATE OR REPLACE FUNCTION kodu_task_run_now(task integer) RETURNS timestamp
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    old kodu_cron_plugin := kodu_task_take(task);
    due timestamp := kodu_soon();
BEGIN
    PERFORM kodu_refuse_paused(old);
    IF kodu_runs_now(old) THEN
        RAISE NOTICE 'a run of task % is in progress or waits for its retry: the new one follows', task;
    END IF;
    PERFORM kodu_note_window(old, due);
    PERFORM kodu_move(old, due);
    RETURN due;
END
$$;

-- Has the daemon remove the task, its files and its history, within four minutes; where a run is in
-- progress, within four minutes of the end of its last retry. A purge in the middle of a run ends the
-- daemon, so the flag stays off until then, and the row is kept until the daemon has surely heard that
-- the task is no longer due.
CREATE OR REPLACE FUNCTION kodu_task_delete(task integer) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    old kodu_cron_plugin := kodu_task_lock(task);
    -- Not the time of a pause: the daemon keeps the record of a purged task until its due time.
    later timestamp := kodu_next_slot(COALESCE(old.cron_held, old.cron_next_exec), old.cron_interval,
                                      greatest(kodu_soon() + interval '5 minutes', old.cron_next_exec));
BEGIN
    IF old.cron_delete THEN
        RETURN;
    END IF;
    -- Whatever its due time: a time that was moved seconds before the run began lies ahead of it. A run
    -- that a life of the daemon left behind then takes one more run, or the repair, to its deletion.
    IF old.cron_status = 'PROCESS' THEN
        UPDATE kodu_cron_plugin SET cron_wanted = 'infinity' WHERE cron_id = task;
        RETURN;
    END IF;
    UPDATE kodu_cron_plugin SET cron_delete = TRUE, cron_next_exec = later,
        cron_wanted = kodu_soon() + interval '10 seconds'
    WHERE cron_id = task;
    IF later > old.cron_next_exec THEN
        PERFORM kodu_tell_update(task);
    END IF;
END
$$;

-- Takes a deletion back. The task is due at its next regular time; a pause from before goes on.
--
-- The daemon may have read the flag already: then it forgets the task, removes its files and its history
-- and deletes the row at any moment. The mark in cron_wanted, which stays until the next run begins, has
-- kodu_spare_run keep the row and tell the daemon of the task again.
CREATE OR REPLACE FUNCTION kodu_task_undelete(task integer) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    old kodu_cron_plugin := kodu_task_lock(task);
    was_paused boolean := EXISTS (SELECT FROM kodu_cron_pause WHERE cron_id = task);
    soon timestamp := kodu_soon();
    due timestamp;
BEGIN
    IF old.cron_delete AND old.cron_wanted = timestamp '1970-01-01' THEN
        RAISE EXCEPTION 'the purge of task % has begun', task USING
            ERRCODE = 'object_not_in_prerequisite_state',
            HINT = 'Its files and its history are gone already. Add the task again.';
    ELSIF old.cron_wanted = 'infinity' THEN  -- the end of a run in progress would have set the flag
        UPDATE kodu_cron_plugin SET cron_wanted = CASE WHEN was_paused THEN kodu_pause_time() END
        WHERE cron_id = task;
    ELSIF old.cron_delete THEN
        due := CASE WHEN was_paused THEN kodu_pause_time()
                    WHEN old.cron_slots IS NOT NULL
                        THEN COALESCE(kodu_slot_after(old, soon), kodu_pause_time())
                    ELSE kodu_next_slot(
                        old.cron_next_exec - old.cron_interval * greatest(0, ceil(
                            EXTRACT(EPOCH FROM old.cron_next_exec - soon)
                            / EXTRACT(EPOCH FROM old.cron_interval)))::double precision,
                        old.cron_interval, soon) END;
        UPDATE kodu_cron_plugin SET cron_delete = FALSE, cron_next_exec = kodu_held(old, due),
                                    cron_held = NULLIF(due, kodu_held(old, due)),
                                    cron_wanted = timestamp '1970-01-01'
        WHERE cron_id = task;
        PERFORM kodu_tell_update(task);
    ELSE
        RAISE NOTICE 'task % is not being deleted', task;
    END IF;
END
$$;

-- What the tasks do ------------------------------------------------------------------------------

-- One row a task that the daemon runs, from the one definition in sql/schema.sql; times are UTC. due:
-- its time has come, and its run has not ended; lateness: for how many seconds.
CREATE OR REPLACE VIEW kodu_task_status AS
SELECT id,
       name,
       status,
       COALESCE(due < now() AT TIME ZONE 'UTC', FALSE) AS due,
       due_seconds AS lateness,
       last_due AS last_run,
       CASE WHEN running OR NOT paused OR paused_until IS NOT NULL THEN due END AS next_run,
       every AS "interval",
       COALESCE(retry_limit, 1) AS retries,
       failures_hour,
       failures_day,
       failing_since,
       paused,
       deleting,
       running,
       retry_due,
       late,
       paused_at,
       paused_by,
       pause_reason,
       paused_until,
       held_from
FROM kodu_task_state
WHERE plugin_type = 'cron';

COMMENT ON VIEW kodu_task_status IS 'One row a task that the daemon runs; times are UTC';
COMMENT ON COLUMN kodu_task_status.due IS 'Its time has come, and its run has not ended';
COMMENT ON COLUMN kodu_task_status.lateness IS 'Seconds since it was due; 0 before and while paused';
COMMENT ON COLUMN kodu_task_status.last_run IS 'When the last run that has ended was due';

-- The time before which history is that old.
CREATE OR REPLACE FUNCTION kodu_history_cutoff(older_than interval) RETURNS timestamp
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF older_than IS NULL OR older_than <= interval '0' THEN
        RAISE EXCEPTION 'the age must be longer than 0' USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Use kodu_history_prune(''30 days''), for example.';
    END IF;
    RETURN now() AT TIME ZONE 'UTC' - older_than;
END
$$;

-- Deletes the history rows older than that, of all tasks, and returns their number. The copies of the
-- outputs remain in the archive folders.
CREATE OR REPLACE FUNCTION kodu_history_prune(older_than interval) RETURNS bigint
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    deleted bigint;
    cutoff timestamp := kodu_history_cutoff(older_than);
BEGIN
    DELETE FROM kodu_cron_error WHERE cron_date < cutoff;
    GET DIAGNOSTICS deleted = ROW_COUNT;
    RETURN deleted;
END
$$;

-- Planning ---------------------------------------------------------------------------------------

-- The tasks that run, in seconds since the epoch: the first time that is not past, and the interval.
CREATE OR REPLACE FUNCTION kodu_schedule(OUT id integer, OUT first bigint, OUT every bigint)
RETURNS SETOF record
LANGUAGE sql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT state.id,
           floor(EXTRACT(EPOCH FROM kodu_next_slot(
               scheduled, state.every, date_trunc('second', now() AT TIME ZONE 'UTC'))))::bigint,
           EXTRACT(EPOCH FROM state.every)::bigint
    FROM kodu_task_state AS state
    WHERE plugin_type = 'cron' AND NOT deleting AND NOT paused AND calendar IS NULL
      AND held_from IS NULL
$$;

-- When maintenance windows hold tasks, see kodu_window_spans.
CREATE OR REPLACE FUNCTION kodu_spans(windows integer[], since timestamp, until timestamp)
RETURNS TABLE (begins bigint, ends bigint, spread integer)
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    RETURN QUERY
    SELECT EXTRACT(EPOCH FROM span.begins)::bigint, EXTRACT(EPOCH FROM span.ends)::bigint, span.spread
    FROM kodu_window_spans(windows, since, until) AS span;
END
$$;

-- The tasks in maintenance windows as a forecast needs them, in seconds since the epoch: the time of a run
-- that a window holds, and the first regular time after it or that is not past.
CREATE OR REPLACE FUNCTION kodu_windowed(OUT id integer, OUT windows integer[], OUT slots bigint[],
                                         OUT zone text, OUT every bigint, OUT held bigint,
                                         OUT first bigint)
RETURNS SETOF record
LANGUAGE sql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT cron_id, cron_windows, cron_slots, cron_zone, EXTRACT(EPOCH FROM cron_interval)::bigint,
           CASE WHEN held_from IS NOT NULL THEN EXTRACT(EPOCH FROM cron_next_exec)::bigint END,
           floor(EXTRACT(EPOCH FROM CASE
               WHEN cron_slots IS NOT NULL AND held_from IS NULL THEN cron_next_exec
               WHEN cron_slots IS NOT NULL THEN kodu_slot_after(task, cron_next_exec)
               ELSE kodu_next_slot(
                   COALESCE(held_from, cron_next_exec), cron_interval,
                   CASE WHEN held_from IS NULL THEN date_trunc('second', now() AT TIME ZONE 'UTC')
                        ELSE cron_next_exec + interval '1 microsecond' END) END))::bigint
    FROM kodu_task_state AS state JOIN kodu_cron_plugin AS task ON cron_id = state.id
    WHERE plugin_type = 'cron' AND NOT deleting AND NOT paused AND cron_windows IS NOT NULL
$$;

-- The first regular time from a moment on, in seconds since the epoch, of a calendar or of an interval.
CREATE OR REPLACE FUNCTION kodu_slot_from(slots bigint[], zone text, first bigint, every bigint,
                                          moment bigint) RETURNS bigint
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF slots IS NULL THEN
        RETURN first + every * ceil(greatest(moment - first, 0) / every::float)::bigint;
    END IF;
    RETURN EXTRACT(EPOCH FROM kodu_calendar_next_parsed(
        slots, zone, to_timestamp(greatest(moment, first)) - interval '1 microsecond'))::bigint;
EXCEPTION WHEN OTHERS THEN
    RETURN NULL;
END
$$;

-- Of a calendar: `first`, or its next time where that is past, and the times after it that are before
-- `until`; seconds since the epoch.
CREATE OR REPLACE FUNCTION kodu_calendar_seconds(slots bigint[], zone text, first bigint, until bigint)
RETURNS SETOF bigint
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    place timestamptz := to_timestamp(first);
BEGIN
    IF place < date_trunc('second', now()) THEN
        place := kodu_calendar_next_parsed(slots, zone, now());
    END IF;
    WHILE place < to_timestamp(until) LOOP
        RETURN NEXT floor(EXTRACT(EPOCH FROM place));
        place := kodu_calendar_next_parsed(slots, zone, place);
    END LOOP;
EXCEPTION WHEN OTHERS THEN
    RETURN;  -- an invalid calendar: kodu_calendar_fault names it
END
$$;

-- The coming times of a task from its next one on, with or without a calendar; of a paused one, none.
CREATE OR REPLACE FUNCTION kodu_coming_runs(task integer, many integer DEFAULT 10)
RETURNS SETOF timestamp
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    row kodu_cron_plugin;
    due timestamp;
    regular timestamp;
BEGIN
    SELECT * INTO row FROM kodu_cron_plugin WHERE cron_id = task;
    due := row.cron_next_exec;
    regular := COALESCE(row.cron_held, due);
    FOR n IN 1..many LOOP
        EXIT WHEN due IS NULL OR due >= kodu_pause_time();
        RETURN NEXT due;
        regular := CASE WHEN row.cron_slots IS NOT NULL THEN kodu_slot_after(row, due)
                        ELSE regular + row.cron_interval * greatest(1, ceil(EXTRACT(
                                 EPOCH FROM due + interval '1 microsecond' - regular)
                                 / EXTRACT(EPOCH FROM row.cron_interval)))::double precision END;
        due := kodu_held(row, regular);
    END LOOP;
END
$$;

-- Why the next times of a calendar cannot be computed; NULL when they can.
CREATE OR REPLACE FUNCTION kodu_calendar_problem(calendar text, zone text, slots bigint[]) RETURNS text
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF slots IS NULL OR zone IS NULL OR slots <> kodu_calendar_parse(calendar) THEN
        RETURN 'it was written without the trigger that reads it';
    END IF;
    PERFORM kodu_calendar_next_parsed(slots, zone, now());
    RETURN NULL;
EXCEPTION WHEN OTHERS THEN
    RETURN SQLERRM;
END
$$;

-- The tasks whose calendar is invalid or has no coming time, and why. Each calendar is looked at once.
CREATE OR REPLACE VIEW kodu_calendar_fault AS
SELECT task.cron_id AS id, problem
FROM (SELECT cron_calendar, cron_zone, cron_slots,
             kodu_calendar_problem(cron_calendar, cron_zone, cron_slots) AS problem
      FROM kodu_cron_plugin WHERE cron_calendar IS NOT NULL
      GROUP BY cron_calendar, cron_zone, cron_slots) AS calendar
JOIN kodu_cron_plugin AS task
  ON (task.cron_calendar, task.cron_zone, task.cron_slots)
     IS NOT DISTINCT FROM (calendar.cron_calendar, calendar.cron_zone, calendar.cron_slots)
WHERE problem IS NOT NULL AND NOT task.cron_delete
UNION ALL
SELECT id, 'it has no time from now to 2035' FROM kodu_task_state WHERE parked AND NOT deleting;

COMMENT ON VIEW kodu_calendar_fault IS 'The tasks whose calendar is invalid or has no coming time';

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
    -- Later for many: to move 10,000 tasks takes about a second.
    FROM placed, (SELECT EXTRACT(EPOCH FROM kodu_soon())::bigint + count(*) / 5000 AS soon
                  FROM ranked) AS moment
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
        RAISE EXCEPTION 'dry_run must be TRUE or FALSE, and longest must be one second or more' USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Use kodu_stagger(dry_run => TRUE, longest => ''1 hour''), for example.';
    END IF;
    IF NOT dry_run THEN
        -- The daemon waits until the whole plan is carried out.
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
                PERFORM kodu_move(task, proposed, is_rhythm => TRUE);
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
    IF hours IS NULL OR hours <= 0 OR hours > 168
       OR run_seconds IS NULL OR run_seconds < 0 OR run_seconds = 'NaN' THEN
        RAISE EXCEPTION USING
            MESSAGE = 'hours must be more than 0 and at most 168, and run_seconds must not be negative',
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Use kodu_forecast(hours => 24, run_seconds => 2.5), for example.';
    END IF;
    IF durations IS NULL OR jsonb_typeof(durations) <> 'object'
       OR EXISTS (SELECT FROM jsonb_each(durations) WHERE jsonb_typeof(value) <> 'number'
                                                       OR value < '0') THEN
        RAISE EXCEPTION 'durations must be an object of task ids and seconds' USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Use durations => ''{"7": 12.5, "8": 3}'', for example.';
    END IF;
    ends := begins + ceil(hours * 3600);
    RETURN QUERY
    WITH windowed AS MATERIALIZED (
        SELECT task.*, greatest(1, ceil(COALESCE((durations ->> id::text)::numeric, run_seconds)))::bigint
                       AS took
        FROM kodu_windowed() AS task
    ), spans AS MATERIALIZED (
        SELECT windows, span.*
        FROM (SELECT DISTINCT windows FROM windowed) AS alike,
             kodu_spans(windows, to_timestamp(begins) AT TIME ZONE 'UTC',
                        to_timestamp(ends) AT TIME ZONE 'UTC') AS span
    ), regular AS (
        SELECT slots, zone, first, every, windows, took, count(*) AS tasks FROM windowed
        GROUP BY slots, zone, first, every, windows, took
    ), in_windows AS (
        SELECT held AS second, took, count(*) AS tasks FROM windowed WHERE held < ends GROUP BY held, took
        UNION ALL
        SELECT second, took, sum(tasks)
        FROM (SELECT windows, second, took, tasks
              FROM regular, generate_series(first, ends - 1, every) AS second WHERE slots IS NULL
              UNION ALL
              SELECT windows, second, took, tasks
              FROM regular, kodu_calendar_seconds(slots, zone, first, ends) AS second
              WHERE slots IS NOT NULL) AS run
        WHERE NOT EXISTS (SELECT FROM spans WHERE spans.windows = run.windows
                                              AND second >= spans.begins AND second < spans.ends)
        GROUP BY second, took
        UNION ALL
        SELECT span.ends + (hashint4(id) & 2147483647) % greatest(span.spread, 1), took, 1
        FROM windowed JOIN spans AS span USING (windows)
        WHERE kodu_slot_from(slots, zone, first, every, span.begins) < span.ends
          AND kodu_slot_from(slots, zone, first, every, span.ends) >= span.ends + greatest(span.spread, 1)
    ), alike AS (
        SELECT first, every, took, count(*) AS tasks
        FROM (SELECT first, every,
                     least(every, greatest(1, ceil(COALESCE((durations ->> id::text)::numeric,
                                                            run_seconds))))::bigint AS took
              FROM kodu_schedule() AS task
              WHERE NOT EXISTS (SELECT FROM windowed WHERE windowed.id = task.id)) AS task
        GROUP BY first, every, took
    ), calendars AS (
        SELECT cron_slots, cron_zone, floor(EXTRACT(EPOCH FROM scheduled))::bigint AS first,
               greatest(1, ceil(COALESCE((durations ->> id::text)::numeric, run_seconds)))::bigint AS took,
               count(*) AS tasks
        FROM kodu_task_state JOIN kodu_cron_plugin ON cron_id = id
        WHERE plugin_type = 'cron' AND NOT deleting AND NOT paused AND cron_slots IS NOT NULL
          AND cron_windows IS NULL
        GROUP BY 1, 2, 3, 4
    ), started AS (
        SELECT second, took, sum(tasks) AS runs
        FROM (SELECT second, took, tasks
              FROM alike, generate_series(first, ends - 1, every) AS second
              UNION ALL
              SELECT second, took, tasks
              FROM calendars, kodu_calendar_seconds(cron_slots, cron_zone, first, ends) AS second
              UNION ALL
              SELECT second, took, tasks FROM in_windows WHERE second < ends) AS run
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
    -- Roles belong to the whole cluster: a session of another database may have created it, even at this
    -- moment.
    WHEN duplicate_object OR unique_violation THEN NULL;
END
$$;

-- The functions run with the rights of their caller, so these are all the rights. They do not include
-- changing a task's status, deleting a task's row (the daemon would end at its next run) or changing an
-- existing plugin.
GRANT USAGE ON SCHEMA public TO kodu_admin;
GRANT SELECT ON kodu_plugins, kodu_cron_plugin, kodu_cron_error, kodu_cron_repair, kodu_cron_pause,
                kodu_cron_key, kodu_daemon_state, kodu_task_state, kodu_task_status, kodu_calendar_fault,
                kodu_schema_version TO kodu_admin;
GRANT INSERT (plugin_name, plugin_path, plugin_type) ON kodu_plugins TO kodu_admin;
GRANT INSERT (cron_plugin_id, cron_interval, cron_next_exec, cron_log_file, cron_retries,
              cron_retries_interval, cron_parameter, cron_wanted, cron_calendar, cron_zone),
      UPDATE (cron_plugin_id, cron_interval, cron_next_exec, cron_log_file, cron_retries,
              cron_retries_interval, cron_parameter, cron_delete, cron_wanted, cron_calendar, cron_zone,
              cron_last_exec,  -- after a run that ended during a pause
              cron_windows, cron_held)
    ON kodu_cron_plugin TO kodu_admin;
GRANT DELETE ON kodu_cron_error TO kodu_admin;
GRANT INSERT, UPDATE, DELETE ON kodu_cron_pause, kodu_cron_key TO kodu_admin;

DO $$
DECLARE
    function regprocedure;
BEGIN
    EXECUTE format('GRANT CONNECT ON DATABASE %I TO kodu_admin', current_database());
    FOR function IN
        SELECT oid FROM pg_proc
        WHERE pronamespace = 'public'::regnamespace AND proname LIKE 'kodu\_%'
          AND prorettype <> 'trigger'::regtype
          -- roles that may read the views, or that update a task, call these
          AND proname NOT IN ('kodu_pause_time', 'kodu_is_running', 'kodu_is_paused',
                              'kodu_follow_request', 'kodu_follow_calendar', 'kodu_check_next_run',
                              'kodu_implied_key')
          -- sql/ledger.sql, sql/events.sql, sql/hosts.sql, sql/windows.sql and sql/console.sql grant
          -- these
          AND proname NOT LIKE 'kodu\_ledger\_%' AND proname NOT LIKE 'kodu\_event%'
          AND proname NOT LIKE 'kodu\_host\_%' AND proname NOT LIKE 'kodu\_web\_%'
          AND proname NOT LIKE 'kodu\_window\_%'
    LOOP
        EXECUTE format('REVOKE EXECUTE ON FUNCTION %s FROM PUBLIC', function);
        EXECUTE format('GRANT EXECUTE ON FUNCTION %s TO kodu_admin', function);
    END LOOP;
END
$$;
GRANT SELECT ON kodu_calendar_fault TO kodu;  -- of the tools
GRANT EXECUTE ON FUNCTION kodu_calendar_problem, kodu_coming_runs, kodu_slot_after, kodu_held TO kodu;

COMMIT;
