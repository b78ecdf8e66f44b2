-- Maintenance windows: times in which some tasks do not run. docs/windows.md explains them.
--
-- Load it after sql/functions.sql, as the same owner; loading it again changes nothing. Windows that recur
-- need sql/calendar.sql. A database without this file works as before.
--
-- A window moves the next time of a task: kodu_window_add does it with the times that are set, the end of
-- each run with the one after it (kodu_follow_calendar in sql/functions.sql). cron_windows of a task has the
-- numbers of the windows that concern it, so that all other tasks cost nothing, and cron_held the time
-- before it was moved. A window ends by itself, since the moved times lie behind it.

BEGIN;
SET LOCAL client_min_messages = warning;  -- nothing about what exists already
SET LOCAL search_path = public;

CREATE TABLE IF NOT EXISTS kodu_window (
    window_id integer GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
    reason    text NOT NULL,
    made_by   text NOT NULL DEFAULT session_user,
    made_at   timestamp NOT NULL DEFAULT date_trunc('second', now() AT TIME ZONE 'UTC'),
    begins_at timestamp NOT NULL,
    ends_at   timestamp,         -- NULL: never; only with a calendar
    -- The window recurs: it begins at each time of the calendar, and lasts so long.
    calendar  text,
    zone      text,
    slots     bigint[],          -- as kodu_calendar_parse returns it
    lasts     interval,
    spread    integer NOT NULL,  -- seconds behind the end over which the moved runs are spread
    -- The tasks: by id, by name or path of the plugin, by patterns of the name.
    tasks     integer[] NOT NULL DEFAULT '{}',
    plugins   text[] NOT NULL DEFAULT '{}',
    names     text[] NOT NULL DEFAULT '{}'
);

COMMENT ON TABLE kodu_window IS 'One row a maintenance window; times are UTC';
COMMENT ON COLUMN kodu_window.ends_at IS 'When the window, or its recurrence, ends; NULL: never';
COMMENT ON COLUMN kodu_window.names IS 'Patterns of names, with * for any characters and ? for one';

-- When a run may begin --------------------------------------------------------------------------------
-- The end of a run calls the functions of this section. They must not fail: the run would end the daemon.

-- The end of the window, or of its occurrence, that contains the moment; NULL: it does not.
CREATE OR REPLACE FUNCTION kodu_window_ends(present kodu_window, moment timestamp) RETURNS timestamp
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    begins timestamp;
BEGIN
    IF moment < present.begins_at OR moment >= present.ends_at THEN
        RETURN NULL;
    ELSIF present.slots IS NULL THEN
        RETURN present.ends_at;
    END IF;
    begins := timezone('UTC', kodu_calendar_next_parsed(
        present.slots, present.zone, timezone('UTC', moment - present.lasts)));
    RETURN CASE WHEN begins <= moment THEN least(begins + present.lasts, present.ends_at) END;
EXCEPTION WHEN OTHERS THEN
    RETURN NULL;  -- an invalid calendar: kodu_window_fault names it
END
$$;

-- When a run begins that a window has held from `due` to `ends`: at the task's first regular time from then
-- on if that is within the spread, otherwise at a time in the spread that depends on the task's id alone.
CREATE OR REPLACE FUNCTION kodu_window_release(task kodu_cron_plugin, due timestamp, ends timestamp,
                                               spread integer) RETURNS timestamp
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    place timestamp := ends + make_interval(
        secs => (hashint4(task.cron_id) & 2147483647) % greatest(spread, 1));
    slot timestamp := CASE WHEN task.cron_slots IS NULL THEN kodu_next_slot(due, task.cron_interval, ends)
                           ELSE kodu_slot_after(task, ends - interval '1 microsecond') END;
BEGIN
    RETURN CASE WHEN slot < ends + make_interval(secs => spread) THEN slot ELSE place END;
EXCEPTION WHEN OTHERS THEN
    RETURN place;  -- an invalid calendar of the task
END
$$;

-- When the run that is regularly due at `due` begins. Of windows that overlap, the latest end holds, and a
-- time behind one window that is in another one moves to the end of that. With the owner's rights, since the
-- daemon's role has none to the windows.
CREATE OR REPLACE FUNCTION kodu_window_hold(task kodu_cron_plugin, due timestamp) RETURNS timestamp
LANGUAGE plpgsql STABLE SECURITY DEFINER
SET search_path = pg_catalog, public, pg_temp SET lock_timeout = '100ms' AS $$
DECLARE
    place timestamp := due;
    held record;
BEGIN
    FOR turn IN 1..100 LOOP  -- windows may follow each other without a gap
        EXIT WHEN place >= timestamp '2035-01-01';
        SELECT ends, spread INTO held
        FROM kodu_window AS present, kodu_window_ends(present, place) AS ends
        WHERE window_id = ANY (task.cron_windows) AND ends IS NOT NULL
        ORDER BY ends DESC LIMIT 1;
        EXIT WHEN NOT FOUND;
        place := kodu_window_release(task, due, held.ends, held.spread);
    END LOOP;
    RETURN CASE WHEN place < timestamp '2035-01-01' THEN place ELSE due END;
EXCEPTION WHEN OTHERS THEN
    RETURN due;
END
$$;

-- Those of the windows that have not ended; NULL: none.
CREATE OR REPLACE FUNCTION kodu_window_live(windows integer[]) RETURNS integer[]
LANGUAGE sql STABLE SET search_path = pg_catalog, public, pg_temp SET lock_timeout = '100ms' AS $$
    SELECT array_agg(window_id ORDER BY window_id) FROM kodu_window
    WHERE window_id = ANY (windows)
      AND (ends_at > clock_timestamp() AT TIME ZONE 'UTC') IS NOT FALSE
$$;

-- Which tasks a window concerns ------------------------------------------------------------------------

CREATE OR REPLACE FUNCTION kodu_window_pattern(glob text) RETURNS text
LANGUAGE sql IMMUTABLE PARALLEL SAFE
RETURN translate(regexp_replace(glob, '([\\%_])', '\\\1', 'g'), '*?', '%_');

-- Without a SET clause, so that the server plans it with the caller's query.
CREATE OR REPLACE FUNCTION kodu_window_concerns(present kodu_window, id integer, name text, path text,
                                                program text) RETURNS boolean
LANGUAGE sql STABLE
RETURN id = ANY (present.tasks) OR ARRAY[name, path, program] && present.plugins
       OR EXISTS (SELECT FROM unnest(present.names) AS glob WHERE name LIKE kodu_window_pattern(glob));

-- Gives a task the windows that concern it, after a change of what they choose by. A time that is moved
-- already stays.
CREATE OR REPLACE FUNCTION kodu_window_assign(task integer) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    wanted integer[] := array_agg(window_id ORDER BY window_id)
        FROM kodu_task_state AS state, kodu_window AS present
        WHERE id = task AND (ends_at > clock_timestamp() AT TIME ZONE 'UTC') IS NOT FALSE
          AND kodu_window_concerns(present, id, name, plugin_path, program);
BEGIN
    UPDATE kodu_cron_plugin SET cron_windows = wanted
    WHERE cron_id = task AND cron_windows IS DISTINCT FROM wanted
      AND (wanted IS NOT NULL OR cron_held IS NULL);
    IF FOUND AND wanted IS NOT NULL THEN
        PERFORM kodu_window_settle(NULL, after => task - 1, until => task);
    END IF;
END
$$;

-- A new task, or one with another plugin. With the owner's rights: a program that writes rows has none to
-- the windows.
CREATE OR REPLACE FUNCTION kodu_window_of_task() RETURNS trigger
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF EXISTS (SELECT FROM kodu_window
               WHERE (ends_at > clock_timestamp() AT TIME ZONE 'UTC') IS NOT FALSE) THEN
        PERFORM kodu_window_assign(NEW.cron_id);
    END IF;
    RETURN NULL;
END
$$;
CREATE OR REPLACE TRIGGER kodu_window_of_task
    AFTER INSERT OR UPDATE OF cron_plugin_id, cron_parameter ON kodu_cron_plugin
    FOR EACH ROW EXECUTE FUNCTION kodu_window_of_task();

CREATE OR REPLACE FUNCTION kodu_window_of_plugin() RETURNS trigger
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF EXISTS (SELECT FROM kodu_window
               WHERE (ends_at > clock_timestamp() AT TIME ZONE 'UTC') IS NOT FALSE) THEN
        PERFORM kodu_window_assign(cron_id) FROM kodu_cron_plugin WHERE cron_plugin_id = NEW.plugin_id;
    END IF;
    RETURN NULL;
END
$$;
CREATE OR REPLACE TRIGGER kodu_window_of_plugin
    AFTER UPDATE OF plugin_name, plugin_path ON kodu_plugins
    FOR EACH ROW EXECUTE FUNCTION kodu_window_of_plugin();

-- Moving the times that are set -------------------------------------------------------------------------

-- When a run begins that is regularly due at `due`, where the task was told of another time before. Of a
-- window that was ended: a time that has passed comes at once, spread over the window's time.
CREATE OR REPLACE FUNCTION kodu_window_place(task kodu_cron_plugin, due timestamp, released kodu_window)
RETURNS timestamp
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    soon timestamp := kodu_soon();
    place timestamp := kodu_window_hold(task, due);
BEGIN
    IF released.window_id IS NOT NULL AND place <= soon THEN
        RETURN kodu_window_hold(task, kodu_window_release(task, due, soon, released.spread));
    END IF;
    RETURN place;
END
$$;

-- Moves the next times of tasks that are in windows behind these. Where a window was ended, moves those that
-- it held back, to their own time or, if that has passed, to now and the window's spread. Runs in progress are
-- left alone. Returns the last task that it has looked at; NULL: there is none left.
--
-- number: of the window; NULL: all. released: it was ended. after, until, most: only tasks with a higher id,
-- up to an id, and so many of them. The daemon waits until the transaction ends: 5,000 tasks take a second.
CREATE OR REPLACE FUNCTION kodu_window_settle(number integer, released boolean DEFAULT FALSE,
                                              after integer DEFAULT -1, until integer DEFAULT 2147483647,
                                              most bigint DEFAULT NULL) RETURNS integer
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp SET kodu.reason = 'maintenance' AS $$
DECLARE
    present kodu_window;
    ended kodu_window;
    utc timestamp := clock_timestamp() AT TIME ZONE 'UTC';
    last integer;
BEGIN
    SELECT * INTO present FROM kodu_window WHERE window_id = number;
    IF released THEN
        ended := present;
    END IF;
    WITH looked AS MATERIALIZED (
        SELECT task, cron_id, COALESCE(cron_held, cron_next_exec) AS regular
        FROM kodu_cron_plugin AS task
        WHERE cron_id > after AND cron_id <= until AND cron_windows IS NOT NULL
          AND (number = ANY (cron_windows)) IS NOT FALSE
        ORDER BY cron_id LIMIT most FOR NO KEY UPDATE
    ), placed AS MATERIALIZED (
        SELECT cron_id, regular, kodu_window_place(task, regular, ended) AS due
        FROM looked
        WHERE NOT (task).cron_delete AND (task).cron_next_exec < kodu_pause_time()
          AND NOT kodu_is_running((task).cron_status, (task).cron_next_exec, (task).cron_wanted, utc)
          AND CASE WHEN released THEN (task).cron_held IS NOT NULL
                   ELSE number IS NULL OR kodu_window_ends(present, regular) IS NOT NULL
                        OR kodu_window_ends(present, (task).cron_next_exec) IS NOT NULL END
    ), moved AS (
        UPDATE kodu_cron_plugin AS task
        SET cron_next_exec = due, cron_wanted = due, cron_held = NULLIF(regular, due)
        FROM placed WHERE task.cron_id = placed.cron_id AND cron_next_exec <> due
        RETURNING task.cron_id
    )
    -- The number of notifications is not used, but the server would leave out what is not counted.
    SELECT max(cron_id), count(told) INTO last FROM (
        SELECT cron_id, NULL::text AS told FROM looked
        UNION ALL
        SELECT NULL, pg_notify('koducronchannel', format('{"TYPE":"SERVICE","COMMAND":"UPDATE","ID":%s}',
                                                         cron_id))::text FROM moved) AS done;
    RETURN last;
END
$$;

-- Adding and ending -------------------------------------------------------------------------------------

CREATE OR REPLACE FUNCTION kodu_window_refuse(problem text, hint text) RETURNS void
LANGUAGE plpgsql AS $$
BEGIN
    RAISE EXCEPTION '%', problem USING ERRCODE = 'invalid_parameter_value', HINT = hint;
END
$$;

-- What is wrong with a new window, if anything.
CREATE OR REPLACE FUNCTION kodu_window_check(wanted kodu_window) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    distance interval;
    unknown text;
BEGIN
    IF COALESCE(btrim(wanted.reason), '') = '' THEN
        PERFORM kodu_window_refuse('a window needs a reason', 'Use reason => ''new disks'', for example.');
    ELSIF cardinality(wanted.tasks) + cardinality(wanted.plugins) + cardinality(wanted.names) = 0 THEN
        PERFORM kodu_window_refuse('the window has no tasks', 'Use tasks => ''{7,8}'', plugins => '
                                   '''{check_disk}'' or names => ''{web*}''; names => ''{*}'' is all.');
    ELSIF wanted.spread NOT BETWEEN 0 AND 86400 OR wanted.spread IS NULL THEN
        PERFORM kodu_window_refuse('the spread must be from 0 seconds to 1 day',
                                   'Use spread => ''5 minutes'', for example.');
    ELSIF wanted.slots IS NULL AND (wanted.ends_at <= clock_timestamp() AT TIME ZONE 'UTC'
                                    OR wanted.ends_at <= wanted.begins_at OR wanted.ends_at IS NULL) THEN
        PERFORM kodu_window_refuse('the end of a window must lie ahead, and behind its beginning',
                                   'Use ends => now() + interval ''2 hours'', or lasts => ''2 hours''.');
    ELSIF wanted.ends_at >= timestamp '2035-01-01' OR NOT isfinite(wanted.begins_at) THEN
        PERFORM kodu_window_refuse('a window must end before 2035', 'Pause the tasks instead.');
    ELSIF wanted.lasts < interval '1 minute' OR wanted.lasts IS NULL AND wanted.slots IS NOT NULL
          OR EXTRACT(YEAR FROM wanted.lasts) <> 0 OR EXTRACT(MONTH FROM wanted.lasts) <> 0 THEN
        PERFORM kodu_window_refuse('a window with a calendar needs a duration of a minute or more',
                                   'Use lasts => ''2 hours'', for example. Months have no fixed length.');
    ELSIF wanted.slots IS NOT NULL THEN
        distance := kodu_calendar_interval(wanted.calendar, wanted.zone);
        IF wanted.lasts >= distance THEN
            PERFORM kodu_window_refuse(
                format('the window would never end: it lasts %s and begins again after %s', wanted.lasts,
                       distance), 'Make it shorter, or pause the tasks.');
        END IF;
    END IF;
    SELECT 'task ' || id INTO unknown FROM unnest(wanted.tasks) AS id
    WHERE NOT EXISTS (SELECT FROM kodu_cron_plugin WHERE cron_id = id);
    SELECT 'plugin ' || quote_literal(plugin) INTO unknown FROM unnest(wanted.plugins) AS plugin
    WHERE unknown IS NULL
      AND NOT EXISTS (SELECT FROM kodu_plugins WHERE plugin IN (plugin_name, plugin_path))
      AND NOT EXISTS (SELECT FROM kodu_task_state WHERE program = plugin)
    UNION ALL SELECT unknown WHERE unknown IS NOT NULL;
    IF unknown IS NOT NULL THEN
        RAISE EXCEPTION 'there is no %', unknown USING
            ERRCODE = 'undefined_object', HINT = 'SELECT id, name FROM kodu_task_status lists the tasks.';
    END IF;
END
$$;

-- Adds a window and returns its number. It is from `begins` (now) to `ends`, or for as long as it `lasts`;
-- with `at` and `zone`, it begins at each time of this calendar, from `begins` to `ends`. tasks, plugins,
-- names: whom it concerns, by ids, by plugins' names or paths, by patterns of names with * and ?, now or
-- later. spread: over which time behind the end the runs are spread that it has moved. settle => FALSE:
-- kodu_window_settle is called later, many tasks in several transactions.
CREATE OR REPLACE FUNCTION kodu_window_add(
    reason text, begins timestamptz DEFAULT NULL, ends timestamptz DEFAULT NULL,
    lasts interval DEFAULT NULL, at text DEFAULT NULL, zone text DEFAULT NULL,
    tasks integer[] DEFAULT '{}', plugins text[] DEFAULT '{}', names text[] DEFAULT '{}',
    spread interval DEFAULT '1 minute', settle boolean DEFAULT TRUE)
RETURNS integer
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
#variable_conflict use_column
DECLARE
    utc timestamp := date_trunc('second', clock_timestamp() AT TIME ZONE 'UTC');
    wanted kodu_window;
BEGIN
    IF at IS NOT NULL AND to_regproc('kodu_calendar_parse') IS NULL THEN
        RAISE EXCEPTION 'this database has no calendars' USING
            ERRCODE = 'object_not_in_prerequisite_state',
            HINT = 'Load sql/calendar.sql as the owner of the tables.';
    ELSIF at IS NULL AND (zone IS NOT NULL OR num_nonnulls(ends, lasts) <> 1) THEN
        PERFORM kodu_window_refuse('a window needs either an end or a duration',
                                   'Use lasts => ''2 hours'', for example; with at, both are possible.');
    END IF;
    wanted.reason := reason;
    wanted.begins_at := date_trunc('second', COALESCE(begins AT TIME ZONE 'UTC', utc));
    wanted.ends_at := date_trunc('second', COALESCE(
        ends AT TIME ZONE 'UTC',
        CASE WHEN at IS NULL THEN wanted.begins_at + make_interval(secs => EXTRACT(EPOCH FROM lasts)::float)
        END));
    IF at IS NOT NULL THEN
        wanted.calendar := at;
        wanted.zone := kodu_calendar_zone(COALESCE(zone, 'UTC'));
        wanted.slots := kodu_calendar_parse(at);
        wanted.lasts := lasts;
    END IF;
    wanted.spread := EXTRACT(EPOCH FROM spread);
    wanted.tasks := COALESCE(tasks, '{}');
    wanted.plugins := COALESCE(plugins, '{}');
    wanted.names := COALESCE(names, '{}');
    PERFORM kodu_window_check(wanted);
    DELETE FROM kodu_window WHERE ends_at < utc - interval '365 days';  -- nothing refers to them
    INSERT INTO kodu_window (reason, begins_at, ends_at, calendar, zone, slots, lasts, spread, tasks, plugins,
                             names)
    VALUES (wanted.reason, wanted.begins_at, wanted.ends_at, wanted.calendar, wanted.zone, wanted.slots,
            wanted.lasts, wanted.spread, wanted.tasks, wanted.plugins, wanted.names)
    RETURNING * INTO wanted;
    UPDATE kodu_cron_plugin SET cron_windows = cron_windows || wanted.window_id
    FROM kodu_task_state AS state
    WHERE cron_id = state.id
      AND kodu_window_concerns(wanted, state.id, state.name, state.plugin_path, state.program);
    IF NOT FOUND THEN
        RAISE NOTICE 'window % concerns no task at present', wanted.window_id;
    ELSIF settle THEN
        PERFORM kodu_window_settle(wanted.window_id);
    END IF;
    RETURN wanted.window_id;
END
$$;

-- Ends a window now, and brings its tasks back: those whose time has passed are due at once, spread over the
-- window's time, and the others at their own. With once => TRUE a window that recurs is ended only for this
-- time.
CREATE OR REPLACE FUNCTION kodu_window_end(number integer, once boolean DEFAULT FALSE,
                                           settle boolean DEFAULT TRUE) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    utc timestamp := date_trunc('second', clock_timestamp() AT TIME ZONE 'UTC');
    present kodu_window;
BEGIN
    SELECT * INTO present FROM kodu_window WHERE window_id = number FOR UPDATE;
    IF NOT FOUND THEN
        RAISE EXCEPTION 'there is no window %', COALESCE(number::text, 'NULL') USING
            ERRCODE = 'undefined_object', HINT = 'SELECT * FROM kodu_window_status lists the windows.';
    ELSIF present.ends_at <= utc THEN
        RAISE NOTICE 'window % has ended already', number;
        RETURN;
    ELSIF once AND present.slots IS NOT NULL THEN
        IF kodu_window_ends(present, utc) IS NULL THEN
            RAISE NOTICE 'window % is not open', number;
            RETURN;
        END IF;
        UPDATE kodu_window SET begins_at = kodu_window_ends(present, utc) WHERE window_id = number;
    ELSE
        UPDATE kodu_window SET ends_at = utc, begins_at = least(begins_at, utc) WHERE window_id = number;
    END IF;
    IF settle THEN
        PERFORM kodu_window_settle(number, released => TRUE);
    END IF;
END
$$;

-- Looking ------------------------------------------------------------------------------------------------

-- Why a window's calendar is of no use; NULL: it is, or the window has none.
CREATE OR REPLACE FUNCTION kodu_window_problem(present kodu_window) RETURNS text
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF present.calendar IS NULL THEN
        RETURN NULL;
    END IF;
    RETURN COALESCE(kodu_calendar_problem(present.calendar, present.zone, present.slots),
                    CASE WHEN kodu_calendar_next_parsed(present.slots, present.zone, now()) IS NULL
                         THEN 'it has no coming time' END);
END
$$;

-- When the present occurrence of a window began, or else the next one will; NULL: none will.
CREATE OR REPLACE FUNCTION kodu_window_begins(present kodu_window, moment timestamp) RETURNS timestamp
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF present.calendar IS NULL THEN
        RETURN present.begins_at;
    ELSIF kodu_window_ends(present, moment) IS NOT NULL THEN
        RETURN greatest(timezone('UTC', kodu_calendar_next_parsed(
            present.slots, present.zone, timezone('UTC', moment - present.lasts))), present.begins_at);
    END IF;
    RETURN timezone('UTC', kodu_calendar_next_parsed(
        present.slots, present.zone,
        timezone('UTC', greatest(moment, present.begins_at - interval '1 microsecond'))));
EXCEPTION WHEN OTHERS THEN
    RETURN NULL;
END
$$;

-- The times between two moments in which one of the windows, or several one after the other, hold a task,
-- and over how many seconds behind it the moved runs are spread.
CREATE OR REPLACE FUNCTION kodu_window_spans(windows integer[], since timestamp, until timestamp)
RETURNS TABLE (begins timestamp, ends timestamp, spread integer)
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
#variable_conflict use_variable
DECLARE
    place timestamp := since;
    next record;
BEGIN
    FOR turn IN 1..10000 LOOP
        begins := (SELECT min(CASE WHEN kodu_window_ends(present, place) IS NULL
                                   THEN kodu_window_begins(present, place) ELSE place END)
                   FROM kodu_window AS present
                   WHERE window_id = ANY (windows) AND (ends_at > place) IS NOT FALSE);
        EXIT WHEN begins IS NULL OR begins >= until;
        ends := begins;
        LOOP
            SELECT moment, present.spread INTO next
            FROM kodu_window AS present, kodu_window_ends(present, ends) AS moment
            WHERE window_id = ANY (windows) AND moment IS NOT NULL ORDER BY moment DESC LIMIT 1;
            EXIT WHEN NOT FOUND OR ends >= until;
            ends := next.moment;
            spread := next.spread;
        END LOOP;
        IF ends > begins THEN
            RETURN NEXT;
        END IF;
        place := greatest(ends, begins + interval '1 second');
    END LOOP;
END
$$;

-- One row a window; times are UTC. begins, ends: of the present or the next occurrence. concerns: the number
-- of its tasks; holds: of those whose next run it, or another window, has moved.
CREATE OR REPLACE VIEW kodu_window_status AS
SELECT window_id AS id, reason, made_by, made_at, begins,
       CASE WHEN slots IS NULL THEN ends_at
            ELSE COALESCE(ends_now, least(begins + lasts, ends_at)) END AS ends,
       ends_now IS NOT NULL AS is_open, is_over, calendar, zone, lasts, ends_at AS last_end, spread,
       tasks, plugins, names, COALESCE(concerns, 0) AS concerns, COALESCE(holds, 0) AS holds
FROM kodu_window AS present
CROSS JOIN LATERAL (SELECT now() AT TIME ZONE 'UTC' AS utc) AS moment
CROSS JOIN LATERAL (SELECT kodu_window_ends(present, utc) AS ends_now,
                           kodu_window_begins(present, utc) AS begins,
                           COALESCE(ends_at <= utc, FALSE) AS is_over) AS state
LEFT JOIN (SELECT number, count(*) AS concerns,
                  count(*) FILTER (WHERE cron_held IS NOT NULL) AS holds
           FROM kodu_cron_plugin, unnest(cron_windows) AS number
           WHERE cron_windows IS NOT NULL AND NOT cron_delete GROUP BY number) AS concerned
       ON number = window_id AND NOT is_over;

COMMENT ON VIEW kodu_window_status IS 'One row a maintenance window; times are UTC';

-- The windows whose calendar is invalid or has no coming time, and why.
CREATE OR REPLACE VIEW kodu_window_fault AS
SELECT window_id AS id, kodu_window_problem(present) AS problem
FROM kodu_window AS present
WHERE (ends_at > now() AT TIME ZONE 'UTC') IS NOT FALSE AND kodu_window_problem(present) IS NOT NULL;

COMMENT ON VIEW kodu_window_fault IS 'The maintenance windows whose calendar is invalid';

-- Rights ---------------------------------------------------------------------------------------------------

DO $$
DECLARE
    routine regprocedure;
BEGIN
    FOR routine IN
        SELECT oid FROM pg_proc
        WHERE pronamespace = 'public'::regnamespace AND proname LIKE 'kodu\_window\_%'
          AND prorettype <> 'trigger'::regtype
    LOOP
        EXECUTE format('REVOKE EXECUTE ON FUNCTION %s FROM PUBLIC', routine);
        EXECUTE format('GRANT EXECUTE ON FUNCTION %s TO kodu_admin', routine);
    END LOOP;
END
$$;
GRANT SELECT, INSERT, UPDATE, DELETE ON kodu_window TO kodu_admin;
GRANT SELECT ON kodu_window_status, kodu_window_fault TO kodu_admin, kodu;
GRANT SELECT ON kodu_window TO kodu;  -- of the tools
GRANT EXECUTE ON FUNCTION kodu_window_hold, kodu_window_ends, kodu_window_begins, kodu_window_problem TO kodu;

COMMIT;
