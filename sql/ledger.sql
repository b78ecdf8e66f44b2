-- The ledger: one row for each attempt of a run, and one for each sequence of periods without a run,
-- with the reason. docs/ledger.md explains how to read it and what it costs.
--
-- Load it after sql/schema.sql and sql/functions.sql, as the same owner; loading it again changes
-- nothing, and a ledger that was switched off stays off. The daemon can be running: each wait for its
-- table ends after 100 ms and is repeated. Call the functions of the section "Housekeeping" from time to
-- time; the package has a timer for that.
--
-- What the trigger sees of the daemon's statements:
--   UpdateCronProcess    an attempt begins; at a retry the status does not change
--   UpdateCronState      a run ends: status, last time, next time one interval later
--   updateCronExecTask   only the next time, some intervals later: periods are skipped
-- All others that set a next time are people and tools. sql/repair.sql sets only the status.

BEGIN;
SET LOCAL client_min_messages = warning;  -- nothing about what exists already
SET LOCAL search_path = public;
SET LOCAL lock_timeout = '10s';

-- Locks the tasks against all other writers. The daemon queues behind a waiting request, so no wait is
-- longer than 100 ms. Fails after half a minute.
CREATE OR REPLACE FUNCTION kodu_ledger_lock_tasks() RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp SET lock_timeout = '100ms' AS $$
BEGIN
    FOR attempt IN 1..100 LOOP
        BEGIN
            LOCK TABLE kodu_cron_plugin IN SHARE ROW EXCLUSIVE MODE;
            RETURN;
        EXCEPTION WHEN lock_not_available THEN
            NULL;
        END;
        PERFORM pg_sleep(0.2);
    END LOOP;
    RAISE EXCEPTION 'the table of the tasks is in use' USING
        ERRCODE = 'lock_not_available',
        HINT = 'A long transaction uses it, see pg_stat_activity. Nothing has changed. Try again.';
END
$$;

-- Tables -----------------------------------------------------------------------------------------

-- The sessions of the daemon that have written something.
CREATE TABLE IF NOT EXISTS kodu_ledger_life (
    life_id        integer GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
    host           text NOT NULL,  -- where the session comes from
    began          timestamp NOT NULL,
    server_began   timestamp NOT NULL,
    previous_began timestamp       -- of the life before
);

-- A ring of 32 buckets. Runs are kept for N days, and each bucket is written for N hours, so 24 buckets
-- contain what is kept. TRUNCATE empties an old bucket without a lock on the one that is written. Creating
-- and dropping tables instead would lock the whole ledger.
CREATE TABLE IF NOT EXISTS kodu_ledger (
    ledger_id  bigint GENERATED ALWAYS AS IDENTITY,
    -- Of the transaction. A program that follows the ledger reads by this and not by ledger_id, which is
    -- assigned before the commit: of two ids, the lower one may appear later.
    xact       bigint NOT NULL,
    due        timestamp NOT NULL,  -- of the run; of the first skipped period
    started    timestamp,           -- of the attempt; NULL: not known, or no run
    ended      timestamp NOT NULL,  -- of the attempt; else when the row was written
    -- The next time before and after; of a paused task, the time at which it would be due.
    moved_from timestamp NOT NULL,
    moved_to   timestamp NOT NULL,
    cron_id    integer NOT NULL,    -- no foreign key: history outlives its task
    periods    integer NOT NULL,    -- that this row accounts for
    every      integer NOT NULL,    -- the task's interval in seconds; 0: the times of a calendar
    life       integer NOT NULL,    -- of the daemon; 0: written by somebody else
    bucket     integer NOT NULL,
    attempt    smallint NOT NULL,   -- from 1; without a run 0; in a row of what was lost: how many rows
    outcome    "char" NOT NULL,     -- see kodu_ledger_word
    -- Before the run, so that its row alone says whether the task has begun or ceased to fail.
    was_failing boolean NOT NULL DEFAULT FALSE
) PARTITION BY LIST (bucket);

-- A ledger of before this column. Rewrites nothing.
DO $$
BEGIN
    IF NOT EXISTS (SELECT FROM pg_attribute
                   WHERE attrelid = 'kodu_ledger'::regclass AND attname = 'was_failing') THEN
        ALTER TABLE kodu_ledger ADD COLUMN was_failing boolean NOT NULL DEFAULT FALSE;
    END IF;
END
$$;

-- For readers by time and by position; 0.1 bytes a row. CREATE INDEX IF NOT EXISTS would lock the table
-- before it looks.
DO $$
BEGIN
    IF to_regclass('kodu_ledger_place') IS NULL THEN
        CREATE INDEX kodu_ledger_place ON kodu_ledger
            USING brin (xact, ended, outcome) WITH (pages_per_range = 32, autosummarize);
    END IF;
END
$$;

CREATE TABLE IF NOT EXISTS kodu_ledger_state (
    only_row      boolean PRIMARY KEY DEFAULT TRUE CHECK (only_row),
    is_on         boolean NOT NULL DEFAULT TRUE,
    keep_days     integer NOT NULL DEFAULT 3,
    switched_on   timestamp NOT NULL DEFAULT (now() AT TIME ZONE 'UTC'),
    summarised_to bigint NOT NULL DEFAULT 0,  -- transactions below are in the summaries
    summarised_at timestamp,
    pruned_at     timestamp
);

-- Summaries: a row for each outcome and each reason that occurred.
CREATE TABLE IF NOT EXISTS kodu_ledger_hour (
    hour         timestamp NOT NULL,
    seconds      double precision NOT NULL,
    lateness     double precision NOT NULL,
    rows         bigint NOT NULL,
    periods      bigint NOT NULL,
    plugin_id    integer NOT NULL,  -- 0: its task is gone
    max_seconds  real NOT NULL,
    max_lateness real NOT NULL,
    outcome      "char" NOT NULL,
    host         text NOT NULL,     -- '': not by a daemon
    PRIMARY KEY (hour, plugin_id, host, outcome)
);
CREATE TABLE IF NOT EXISTS kodu_ledger_day (
    seconds      double precision NOT NULL,
    lateness     double precision NOT NULL,
    day          date NOT NULL,
    cron_id      integer NOT NULL,
    rows         integer NOT NULL,
    periods      integer NOT NULL,
    max_seconds  real NOT NULL,
    max_lateness real NOT NULL,
    outcome      "char" NOT NULL,
    PRIMARY KEY (day, cron_id, outcome)
) WITH (fillfactor = 90);

INSERT INTO kodu_ledger_state DEFAULT VALUES ON CONFLICT DO NOTHING;

-- Creates a table and attaches it: no reader or writer of the ledger has to wait.
CREATE OR REPLACE FUNCTION kodu_ledger_make_buckets() RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    bucket text;
BEGIN
    FOR n IN 0..31 LOOP
        bucket := 'kodu_ledger_' || to_char(n, 'FM00');
        CONTINUE WHEN to_regclass('public.' || bucket) IS NOT NULL;
        EXECUTE format('CREATE TABLE public.%I (LIKE public.kodu_ledger)', bucket);
        EXECUTE format('ALTER TABLE public.kodu_ledger ATTACH PARTITION public.%I'
                       ' FOR VALUES IN (%s)', bucket, n);
    END LOOP;
END
$$;
DO $$
BEGIN
    PERFORM kodu_ledger_make_buckets();
END
$$;

-- For how many seconds a bucket is written: a constant in the plans of the daemon's session, which
-- kodu_ledger_keep replaces. A table would have to be read at each run.
CREATE OR REPLACE FUNCTION kodu_ledger_set_bucket() RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    EXECUTE format('CREATE OR REPLACE FUNCTION public.kodu_ledger_bucket_seconds() RETURNS integer'
                   ' LANGUAGE sql IMMUTABLE AS $q$SELECT %s$q$',
                   (SELECT keep_days * 3600 FROM kodu_ledger_state));
END
$$;
DO $$
BEGIN
    PERFORM kodu_ledger_set_bucket();
END
$$;

-- It rounds, which costs a run less than floor.
CREATE OR REPLACE FUNCTION kodu_ledger_bucket(moment timestamp) RETURNS integer
LANGUAGE sql IMMUTABLE AS $$
    SELECT (pg_catalog.date_part('epoch', moment) / public.kodu_ledger_bucket_seconds())::integer % 32
$$;

-- A code in words: the outcome of an attempt, or why periods were skipped.
CREATE OR REPLACE FUNCTION kodu_ledger_word(code "char") RETURNS text LANGUAGE sql IMMUTABLE AS $$
    SELECT CASE code
        WHEN 'O' THEN 'ok'
        WHEN 'F' THEN 'failed'
        WHEN 'R' THEN 'retried'       -- failed with a retry to come
        WHEN 'I' THEN 'interrupted'   -- the daemon or its session ended in it
        WHEN 'v' THEN 'overrun'       -- the run before took too long, its retries included
        WHEN 'l' THEN 'late'          -- the run before began late
        WHEN 'i' THEN 'interrupted'   -- its run was interrupted
        WHEN 'd' THEN 'daemon'        -- the daemon was down
        WHEN 'b' THEN 'database'      -- the database's server was down
        WHEN 'r' THEN 'reload'        -- the task was loaded in a run, or after it was due
        WHEN 'p' THEN 'paused'
        WHEN 'c' THEN 'changed'       -- a person or a tool has set the time or the interval
        WHEN 'm' THEN 'moved'         -- to another daemon
        WHEN 'w' THEN 'maintenance'   -- a maintenance window
        WHEN 'k' THEN 'calendar'      -- the calendar is invalid; the interval applied
        WHEN 'n' THEN 'new'           -- where the task's ledger begins
        WHEN 'z' THEN 'unrecorded'    -- rows that could not be written, or the ledger was off
    END
$$;

-- Writing ----------------------------------------------------------------------------------------

-- The life of the daemon that this session is; 0: none. Fails within a second of the last failure to
-- write, so that a ledger that is locked does not delay each run.
CREATE OR REPLACE FUNCTION kodu_ledger_find_life() RETURNS integer
LANGUAGE plpgsql
SET search_path = pg_catalog, public, pg_temp SET lock_timeout = '100ms' AS $$
DECLARE
    rests_until text := NULLIF(current_setting('kodu.ledger_rests_until', TRUE), '');
    known text := NULLIF(current_setting('kodu.ledger_session', TRUE), '');
    daemon text := COALESCE(NULLIF(current_setting('kodu.daemon_role', TRUE), ''), 'kodu');
    application text := current_setting('application_name');
    life integer := 0;
BEGIN
    IF rests_until::double precision > date_part('epoch', clock_timestamp()) THEN
        RAISE EXCEPTION 'the ledger could not be written a moment ago' USING ERRCODE = 'KL001';
    END IF;
    IF known IS NOT NULL THEN
        life := known::integer;
    ELSIF session_user = daemon AND application <> 'psql' AND application NOT LIKE 'kodu\_%' THEN
        INSERT INTO kodu_ledger_life (host, began, server_began, previous_began)
        SELECT COALESCE(host(inet_client_addr()), 'local'), backend_start AT TIME ZONE 'UTC',
               pg_postmaster_start_time() AT TIME ZONE 'UTC',
               (SELECT began FROM kodu_ledger_life ORDER BY life_id DESC LIMIT 1)
        FROM pg_stat_get_activity(pg_backend_pid())
        RETURNING life_id INTO life;
        PERFORM set_config('kodu.ledger_session', life::text, FALSE);
    END IF;
    IF life > 0 THEN
        PERFORM set_config('kodu.life', life::text, FALSE);
    END IF;
    RETURN life;
END
$$;

-- Wakes up the programs that follow the tasks' changes, see sql/events.sql. They read the ledger, so
-- nothing is lost where that fails or does not exist. The wait of the commit for other sessions that
-- notify is no wait for the ledger: with `is_last`, the limit of 100 ms, which would end the daemon there,
-- is taken back.
CREATE OR REPLACE FUNCTION kodu_ledger_tell(outcome text, task integer, due timestamp,
                                            is_last boolean DEFAULT FALSE) RETURNS void
LANGUAGE plpgsql AS $$
BEGIN
    PERFORM public.kodu_event_notify(outcome, task, due);
    IF is_last THEN
        PERFORM pg_catalog.set_config('lock_timeout', '0', TRUE);
    END IF;
EXCEPTION WHEN OTHERS THEN
    NULL;
END
$$;

-- One row. The functions from here to kodu_ledger_begin have no rights of their own: kodu_ledger_other
-- calls them with the owner's.
CREATE OR REPLACE FUNCTION kodu_ledger_put(
    task kodu_cron_plugin, life integer, outcome text, due timestamp, moved_from timestamp,
    moved_to timestamp, periods integer, started timestamp DEFAULT NULL,
    ended timestamp DEFAULT NULL, attempt integer DEFAULT 0) RETURNS void
LANGUAGE plpgsql AS $$
DECLARE
    utc timestamp := clock_timestamp() AT TIME ZONE 'UTC';
    was_failing boolean := task.run_failing_since IS NOT NULL;
BEGIN
    INSERT INTO kodu_ledger (xact, due, started, ended, moved_from, moved_to, cron_id, periods,
                             every, life, bucket, attempt, outcome, was_failing)
    VALUES (pg_current_xact_id()::text::bigint, due, started, COALESCE(ended, utc), moved_from,
            moved_to, task.cron_id, periods,
            CASE WHEN task.cron_slots IS NULL THEN date_part('epoch', task.cron_interval)::integer
                 ELSE 0 END, life,
            kodu_ledger_bucket(utc), attempt, outcome::"char", was_failing);
    IF (outcome = 'O' AND was_failing) OR (outcome = 'F' AND NOT was_failing) OR outcome = 'I'
       OR (outcome NOT IN ('O', 'F', 'R') AND periods > 0 AND life > 0) THEN
        PERFORM kodu_ledger_tell(outcome, task.cron_id, due);
    END IF;
END
$$;

-- When the task is due next, or would be if it were not paused.
CREATE OR REPLACE FUNCTION kodu_ledger_next(task kodu_cron_plugin) RETURNS timestamp
LANGUAGE plpgsql STABLE AS $$
BEGIN
    IF task.cron_next_exec < kodu_pause_time() THEN
        RETURN task.cron_next_exec;
    END IF;
    -- The pause may have begun while the ledger was off, and its row is deleted before it ends.
    RETURN COALESCE(task.pause_due,
                    (SELECT next_exec FROM kodu_cron_pause WHERE cron_id = task.cron_id),
                    task.ledger_to, task.cron_next_exec);
END
$$;

-- How many whole intervals of the task are between two times, or how many times its calendar has from the
-- first one on and before the second; 0 when the second is the earlier.
CREATE OR REPLACE FUNCTION kodu_ledger_periods(task kodu_cron_plugin, begins timestamp,
                                               ends timestamp) RETURNS integer
LANGUAGE plpgsql STABLE AS $$
BEGIN
    IF task.cron_slots IS NOT NULL THEN
        RETURN least(kodu_calendar_count(task.cron_slots, task.cron_zone, timezone('UTC', begins),
                                         timezone('UTC', ends)), 2147483647);
    END IF;
    RETURN least(greatest(floor(date_part('epoch', ends - begins)
                                / date_part('epoch', task.cron_interval)), 0), 2147483647);
END
$$;

-- Makes the ledger's chain of times reach `place`: where it begins, and where rows are missing.
CREATE OR REPLACE FUNCTION kodu_ledger_join(task kodu_cron_plugin, place timestamp, life integer)
RETURNS void
LANGUAGE plpgsql AS $$
BEGIN
    IF task.ledger_to IS NULL THEN
        PERFORM kodu_ledger_put(task, life, 'n', place, place, place, 0);
    ELSIF task.ledger_to <> place OR task.ledger_lost IS NOT NULL THEN
        PERFORM kodu_ledger_put(task, life, 'z', task.ledger_to, task.ledger_to, place,
                                kodu_ledger_periods(task, task.ledger_to, place),
                                attempt => least(COALESCE(task.ledger_lost, 0), 32767));
    END IF;
END
$$;

-- The time at which the period that begins at `place` ends. After a calendar's last time, that is before
-- all others.
CREATE OR REPLACE FUNCTION kodu_ledger_following(task kodu_cron_plugin, place timestamp)
RETURNS timestamp
LANGUAGE plpgsql STABLE AS $$
BEGIN
    IF task.cron_slots IS NULL THEN
        RETURN place + task.cron_interval;
    END IF;
    RETURN COALESCE(kodu_slot_after(task, place), place + interval '1 microsecond');
END
$$;

-- How many periods of a task with a calendar begin at `place`, which is a due time, or later and before
-- `bound`.
CREATE OR REPLACE FUNCTION kodu_ledger_begun(task kodu_cron_plugin, place timestamp, bound timestamp)
RETURNS integer
LANGUAGE plpgsql STABLE AS $$
BEGIN
    IF bound <= place THEN
        RETURN 0;
    END IF;
    RETURN 1 + kodu_ledger_periods(task, place + interval '1 microsecond', bound);
END
$$;

-- The daemon has moved the next time from `place` to the later `target` without a run: writes the
-- reasons of the periods in between, in the order of their times. slots: their number, for a calendar.
CREATE OR REPLACE FUNCTION kodu_ledger_skip(task kodu_cron_plugin, place timestamp,
                                            target timestamp, life kodu_ledger_life,
                                            slots integer DEFAULT NULL) RETURNS void
LANGUAGE plpgsql AS $$
DECLARE
    utc timestamp := clock_timestamp() AT TIME ZONE 'UTC';
    first double precision := date_part('epoch', place);
    every double precision := date_part('epoch', task.cron_interval);
    is_own boolean := COALESCE(task.run_started >= life.began, FALSE);
    reasons text[] := ARRAY['r'];
    bounds timestamp[] := ARRAY[target];  -- until when each reason applies
    step timestamp := place;
    stop timestamp;
    done integer := 0;
    reached integer;
BEGIN
    slots := COALESCE(slots, least(round((date_part('epoch', target) - first) / every), 2147483647));
    IF is_own AND task.cron_status <> 'PROCESS'
       -- The worker checks the next time right after the end of its run.
       AND (place <= task.run_ended OR utc < task.run_ended + interval '2 seconds') THEN
        reasons := ARRAY['l', 'v'];
        bounds := ARRAY[CASE WHEN task.run_attempt = 1 THEN task.run_started END, target];
    ELSIF NOT is_own AND place < life.began THEN
        reasons := ARRAY['i', 'b', 'd'];
        bounds := ARRAY[CASE WHEN task.run_due = place THEN place + interval '1 microsecond' END,
                        CASE WHEN life.server_began > life.previous_began THEN life.server_began END,
                        target];
    END IF;
    FOR n IN 1..cardinality(reasons) LOOP
        CONTINUE WHEN bounds[n] IS NULL;
        reached := CASE
            WHEN bounds[n] >= target THEN slots
            WHEN task.cron_slots IS NULL
            THEN least(ceil((date_part('epoch', bounds[n]) - first) / every), slots)
            ELSE kodu_ledger_begun(task, place, bounds[n]) END;
        CONTINUE WHEN reached <= done;
        stop := CASE WHEN reached = slots THEN target
                     WHEN task.cron_slots IS NULL THEN place + task.cron_interval * reached
                     ELSE kodu_slot_after(task, bounds[n] - interval '1 microsecond') END;
        PERFORM kodu_ledger_put(task, life.life_id, reasons[n], step, step, stop, reached - done);
        step := stop;
        done := reached;
    END LOOP;
END
$$;

-- A person, a tool or a request has moved the next time. A tool that has its own reason names it first:
-- SET LOCAL kodu.reason = 'moved', 'maintenance' or 'paused'.
CREATE OR REPLACE FUNCTION kodu_ledger_move(task kodu_cron_plugin, place timestamp,
                                            target timestamp) RETURNS void
LANGUAGE plpgsql AS $$
DECLARE
    periods integer := kodu_ledger_periods(task, place, target);
    stop timestamp := CASE WHEN task.cron_slots IS NULL THEN place + task.cron_interval * periods
                           ELSE target END;
    reason text := CASE current_setting('kodu.reason', TRUE) WHEN 'moved' THEN 'm'
                        WHEN 'maintenance' THEN 'w' WHEN 'paused' THEN 'p' ELSE 'c' END;
BEGIN
    IF reason = 'c' AND task.cron_next_exec >= kodu_pause_time() THEN
        reason := 'p';
    END IF;
    IF reason <> 'c' AND stop <> target THEN
        IF periods > 0 THEN
            PERFORM kodu_ledger_put(task, 0, reason, place, place, stop, periods);
        END IF;
        place := stop;
        periods := 0;
        reason := 'c';
    END IF;
    PERFORM kodu_ledger_put(task, 0, reason, place, place, target, periods);
END
$$;

-- How many periods a maintenance window skips that moves a run from `place` to the later `target`: those
-- that begin in between, less the one whose run it moves. When it is ended early, the run moves back.
CREATE OR REPLACE FUNCTION kodu_ledger_held(task kodu_cron_plugin, place timestamp, target timestamp)
RETURNS integer
LANGUAGE plpgsql STABLE AS $$
BEGIN
    IF task.cron_slots IS NULL THEN
        RETURN kodu_ledger_periods(task, place, target);
    END IF;
    RETURN greatest(kodu_ledger_periods(task, place, target + interval '1 microsecond') - 1, 0);
END
$$;

-- An attempt that UpdateCronState did not end: a failure with a retry to come, or a run that the end of
-- the daemon has interrupted. Returns when it ended; NULL when it is still in progress.
CREATE OR REPLACE FUNCTION kodu_ledger_close(task kodu_cron_plugin, new kodu_cron_plugin,
                                             place timestamp, life kodu_ledger_life)
RETURNS timestamp
LANGUAGE plpgsql AS $$
DECLARE
    is_own boolean := COALESCE(task.run_started >= life.began, FALSE);
    failed_at timestamp;
BEGIN
    IF task.cron_status IS DISTINCT FROM 'PROCESS' OR task.run_ended IS NOT NULL
       OR task.run_started IS NULL THEN
        RETURN task.run_ended;
    END IF;
    SELECT max(cron_date) INTO failed_at FROM kodu_cron_error
    WHERE cron_id = task.cron_id AND cron_date >= task.run_started;
    -- A change during the run: by a person, or by the daemon when it loads the task.
    IF new.cron_status = 'PROCESS'
       AND (life.life_id IS NULL OR new.cron_next_exec <> task.cron_next_exec
                                    AND is_own AND failed_at IS NULL) THEN
        RETURN NULL;
    END IF;
    IF failed_at IS NULL AND is_own AND new.cron_status = 'PROCESS' THEN
        failed_at := clock_timestamp() AT TIME ZONE 'UTC';  -- the history has lost its row
    END IF;
    PERFORM kodu_ledger_put(
        task, COALESCE(life.life_id, 0), CASE WHEN failed_at IS NULL THEN 'I' ELSE 'R' END,
        COALESCE(task.run_due, place), place, place, 0, started => task.run_started,
        ended => failed_at, attempt => COALESCE(task.run_attempt, 1));
    RETURN COALESCE(failed_at, clock_timestamp() AT TIME ZONE 'UTC');
END
$$;

-- The end of a run that the trigger's own branch does not handle: the first of the task, one with a
-- request, one whose start or end is missing, one of a calendar.
CREATE OR REPLACE FUNCTION kodu_ledger_end(task kodu_cron_plugin, new kodu_cron_plugin,
                                           place timestamp, following timestamp, life integer)
RETURNS kodu_cron_plugin
LANGUAGE plpgsql AS $$
BEGIN
    -- The row describes another run when that has ended, or when its end is missing.
    IF task.cron_status IS DISTINCT FROM 'PROCESS' OR task.run_ended IS NOT NULL
       OR task.run_started IS NULL OR task.ledger_to <> place THEN
        new.run_due := place;
        new.run_started := NULL;
        new.run_attempt := 1;
    END IF;
    new.run_ended := clock_timestamp() AT TIME ZONE 'UTC';
    PERFORM kodu_ledger_put(task, life, CASE new.cron_status WHEN 'OK' THEN 'O' ELSE 'F' END,
                            new.run_due, place, following, 1,
                            started => new.run_started, ended => new.run_ended,
                            attempt => new.run_attempt);
    RETURN new;
END
$$;

-- An attempt begins.
CREATE OR REPLACE FUNCTION kodu_ledger_begin(task kodu_cron_plugin, new kodu_cron_plugin,
                                             place timestamp, life kodu_ledger_life)
RETURNS kodu_cron_plugin
LANGUAGE plpgsql AS $$
DECLARE
    utc timestamp := clock_timestamp() AT TIME ZONE 'UTC';
    -- A retry belongs to the run whose first attempt failed. If the time has been moved meanwhile and
    -- has come again, this is the run of that time.
    is_retry boolean := task.cron_status = 'PROCESS' AND task.run_ended IS NULL
                        AND task.run_started >= life.began
                        AND (task.run_due = place OR place > utc OR place < task.run_started);
BEGIN
    IF COALESCE(is_retry, FALSE) OR task.run_due = place THEN
        new.run_attempt := least(COALESCE(task.run_attempt, 0), 32766) + 1;
    ELSE
        new.run_due := place;
        new.run_attempt := 1;
    END IF;
    new.run_started := utc;
    new.run_ended := NULL;
    RETURN new;
END
$$;

-- All that the trigger does not do itself, with the rights of the ledger's owner. said: the row as the
-- statement would leave it; new: as it will be, since a request in the row may change it.
CREATE OR REPLACE FUNCTION kodu_ledger_other(old kodu_cron_plugin, said kodu_cron_plugin,
                                             new kodu_cron_plugin, life integer)
RETURNS kodu_cron_plugin
LANGUAGE plpgsql SECURITY DEFINER
SET search_path = pg_catalog, public, pg_temp SET lock_timeout = '100ms' AS $$
DECLARE
    place timestamp := kodu_ledger_next(old);  -- as far as the rows reach
    ends_run boolean := COALESCE(said.cron_last_exec = old.cron_next_exec
                                 AND said.cron_next_exec = old.cron_next_exec + old.cron_interval
                                 AND said.cron_status <> 'PROCESS', FALSE);
    present kodu_ledger_life;
    following timestamp;
    slots integer;
    reached timestamp;
    is_asked boolean := new.cron_wanted IS DISTINCT FROM old.cron_wanted
                        OR ends_run AND old.cron_wanted IS NOT NULL;
    is_by_calendar boolean := FALSE;  -- and not by a request
    is_by_window boolean := FALSE;
    regular timestamp := new.cron_next_exec;  -- before a maintenance window moved it
BEGIN
    IF pg_trigger_depth() = 0 THEN
        RAISE EXCEPTION 'only the trigger of the ledger calls this function' USING
            ERRCODE = 'object_not_in_prerequisite_state',
            HINT = 'Update the task instead.';
    END IF;
    SELECT * INTO present FROM kodu_ledger_life WHERE life_id = life;
    PERFORM kodu_ledger_join(old, place, life);
    new.ledger_lost := NULL;
    IF old.ledger_to <> place AND old.ledger_lost IS NULL THEN  -- it was off
        old.run_failing_since := '-infinity';
    END IF;
    IF num_nonnulls(old.cron_held, new.cron_held) > 0 THEN
        is_by_window := current_setting('kodu.reason', TRUE) IS NOT DISTINCT FROM 'maintenance'
                        OR present.life_id IS NOT NULL AND NOT is_asked;
        IF present.life_id IS NOT NULL AND NOT is_asked THEN
            regular := COALESCE(new.cron_held, regular);
        END IF;
    END IF;
    IF old.cron_slots IS NOT NULL AND said.cron_next_exec <> old.cron_next_exec THEN
        BEGIN
            is_by_calendar := NOT is_asked;
            IF ends_run THEN
                following := kodu_ledger_following(old, place);
            END IF;
            IF is_by_calendar AND regular > COALESCE(following, place)
               AND regular < kodu_pause_time() THEN
                -- The calendar has chosen its first time that is not past: the years up to that of a rare
                -- one have none, and are not counted day by day.
                reached := greatest(clock_timestamp() AT TIME ZONE 'UTC',
                                    COALESCE(following, place) + interval '1 microsecond');
                slots := kodu_ledger_begun(
                    old, COALESCE(following, place),
                    CASE WHEN regular = said.cron_next_exec THEN regular
                         ELSE least(regular, reached) END);
            END IF;
        EXCEPTION WHEN OTHERS THEN
            old.cron_slots := NULL;  -- from here on, the interval counts
            is_by_calendar := FALSE;
            IF ends_run THEN
                PERFORM kodu_ledger_put(old, life, 'k', place, place, place, 0);
            END IF;
        END;
    END IF;

    IF ends_run THEN
        following := COALESCE(following, place + old.cron_interval);
        new := kodu_ledger_end(old, new, place, following, life);
        place := following;
    ELSE
        new.run_ended := kodu_ledger_close(old, said, place, present);
        IF said.cron_status = 'PROCESS' AND said.cron_next_exec = old.cron_next_exec
           AND (present.life_id IS NOT NULL OR old.cron_status IS DISTINCT FROM 'PROCESS') THEN
            new := kodu_ledger_begin(old, new, place, present);
        END IF;
    END IF;
    new.run_failing_since := kodu_ledger_failing(old, new);

    IF is_by_calendar AND present.life_id IS NOT NULL AND regular > place
       AND regular < kodu_pause_time()
       AND (ends_run OR said.cron_status IS NOT DISTINCT FROM old.cron_status) THEN
        -- A calendar passes over what a run has taken too long for at once.
        PERFORM kodu_ledger_skip(CASE WHEN ends_run THEN new ELSE old END, place, regular, present,
                                 slots);
        place := regular;
    ELSIF old.cron_slots IS NULL AND NOT ends_run AND present.life_id IS NOT NULL
          AND said.cron_next_exec > old.cron_next_exec AND said.cron_next_exec < kodu_pause_time()
          AND said.cron_status IS NOT DISTINCT FROM old.cron_status THEN
        reached := CASE WHEN regular = said.cron_next_exec THEN regular
                        ELSE place + old.cron_interval * kodu_ledger_periods(old, place, regular) END;
        PERFORM kodu_ledger_skip(old, place, reached, present);
        place := reached;
    END IF;

    -- What is left of the way was not the daemon's.
    IF new.cron_next_exec >= kodu_pause_time() THEN
        IF old.cron_next_exec < kodu_pause_time() THEN
            PERFORM kodu_ledger_put(old, 0, 'p', place, place, place, 0);
        END IF;
        new.pause_due := place;
    ELSE
        IF new.cron_next_exec <> place AND is_by_window THEN
            PERFORM kodu_ledger_put(old, 0, 'w', place, place, new.cron_next_exec,
                                    kodu_ledger_held(old, place, new.cron_next_exec));
        ELSIF new.cron_next_exec <> place THEN
            PERFORM kodu_ledger_move(old, place, new.cron_next_exec);
        END IF;
        new.pause_due := NULL;
        place := new.cron_next_exec;
    END IF;
    new.ledger_to := place;
    RETURN new;
END
$$;

-- The end of the first failed run since the last one that was OK; NULL: the task is not failing; -infinity:
-- it was failing already when the ledger began. A run in progress changes nothing.
CREATE OR REPLACE FUNCTION kodu_ledger_failing(old kodu_cron_plugin, new kodu_cron_plugin)
RETURNS timestamp LANGUAGE plpgsql AS $$
BEGIN
    IF new.cron_status IS NULL OR new.cron_status NOT IN ('PROCESS', 'FAILED') THEN
        RETURN NULL;
    ELSIF new.cron_status = 'PROCESS' OR old.cron_status IS DISTINCT FROM 'PROCESS'
          OR old.run_failing_since IS NOT NULL THEN
        RETURN old.run_failing_since;
    ELSIF old.ledger_to IS NULL AND old.cron_last_exec IS NOT NULL THEN
        RETURN '-infinity';
    END IF;
    RETURN pg_catalog.timezone('UTC', pg_catalog.clock_timestamp());
END
$$;

-- Nothing could be written: counts that in the task's row, `new`, and keeps the state of the run. The
-- chain stays where it is, and the first row that can be written again accounts for the gap.
CREATE OR REPLACE FUNCTION kodu_ledger_lose(old kodu_cron_plugin, said kodu_cron_plugin,
                                            new kodu_cron_plugin)
RETURNS kodu_cron_plugin
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    utc timestamp := clock_timestamp() AT TIME ZONE 'UTC';
BEGIN
    new.ledger_lost := least(COALESCE(old.ledger_lost, 0), 2147483646) + 1;
    new.ledger_to := COALESCE(old.ledger_to, old.pause_due, old.cron_next_exec);
    IF new.cron_next_exec < kodu_pause_time() THEN
        new.pause_due := NULL;
    ELSIF old.cron_next_exec < kodu_pause_time() THEN
        -- At the end of a run, the time one interval after it.
        new.pause_due := CASE WHEN said.cron_next_exec < kodu_pause_time() THEN said.cron_next_exec
                              ELSE old.cron_next_exec END;
    END IF;
    new.run_failing_since := kodu_ledger_failing(old, new);
    IF new.cron_status IS DISTINCT FROM 'PROCESS' THEN
        new.run_ended := COALESCE(old.run_ended, utc);
    ELSIF said.cron_next_exec = old.cron_next_exec THEN
        new.run_due := COALESCE(old.pause_due, old.cron_next_exec);
        new.run_started := utc;
        new.run_ended := NULL;
        new.run_attempt := 1;
    END IF;
    RETURN new;
END
$$;

-- In place of kodu_follow_daemon while the ledger is on. Two branches for the two statements of nearly
-- every run, with the rights of the caller and as few expressions as possible: the server prepares each
-- of them, with each operator in it, again in each transaction. Everything else is in functions.
--
-- An error in here would end the daemon, so none leaves it: what cannot be written is counted. Nothing
-- waits for a lock of the ledger for more than 100 ms, and after a failure nothing is tried for a second.
CREATE OR REPLACE FUNCTION kodu_ledger_note() RETURNS trigger LANGUAGE plpgsql AS $$
DECLARE
    ignored text;
    failure text;
BEGIN
    IF OLD.cron_wanted IS NOT NULL OR OLD.cron_changed OR OLD.cron_delete THEN
        NULL;
    ELSIF NEW.cron_next_exec = OLD.cron_next_exec THEN
        IF NEW.cron_status = 'PROCESS' AND OLD.cron_status IS DISTINCT FROM 'PROCESS'
           AND OLD.run_due IS DISTINCT FROM OLD.cron_next_exec
           AND OLD.pause_due IS NULL THEN  -- a run begins
            NEW.run_due := OLD.cron_next_exec;
            NEW.run_started := pg_catalog.timezone('UTC', pg_catalog.clock_timestamp());
            NEW.run_ended := NULL;
            NEW.run_attempt := 1;
            RETURN NEW;
        ELSIF NEW.cron_status IS NOT DISTINCT FROM OLD.cron_status
              AND NEW.cron_status IS DISTINCT FROM 'PROCESS' THEN
            RETURN NEW;
        END IF;
    ELSIF NEW.cron_last_exec = OLD.cron_next_exec AND OLD.cron_status = 'PROCESS'
          AND OLD.ledger_to = OLD.cron_next_exec AND OLD.run_ended IS NULL
          AND OLD.run_due IS NOT NULL AND OLD.ledger_lost IS NULL AND OLD.cron_slots IS NULL
          AND OLD.cron_windows IS NULL
          -- a run ends
          AND NEW.cron_next_exec BETWEEN timestamp '1970-01-01' AND timestamp '2036-01-01'
          -- Last, when all else is true; to the end of the statement, which is the daemon's whole
          -- transaction. Its own row is locked already.
          AND pg_catalog.set_config('lock_timeout', '100', TRUE) IS NOT NULL THEN
        BEGIN
            NEW.run_ended := pg_catalog.timezone('UTC', pg_catalog.clock_timestamp());
            -- An unknown life is left to the function below: '' is no number, and the column is NOT NULL.
            -- The first letter of the status is the code of its outcome.
            INSERT INTO public.kodu_ledger (xact, due, started, ended, moved_from, moved_to, cron_id,
                                            periods, every, life, bucket, attempt, outcome,
                                            was_failing)
            VALUES (pg_catalog.txid_current(), OLD.run_due, OLD.run_started, NEW.run_ended,
                    OLD.cron_next_exec, NEW.cron_next_exec, NEW.cron_id, 1,
                    pg_catalog.date_part('epoch', OLD.cron_interval),
                    pg_catalog.current_setting('kodu.life', TRUE)::integer,
                    public.kodu_ledger_bucket(NEW.run_ended), OLD.run_attempt,
                    NEW.cron_status::"char", OLD.run_failing_since IS NOT NULL);
            NEW.ledger_to := NEW.cron_next_exec;
            IF NEW.cron_status <> 'OK' THEN
                IF OLD.run_failing_since IS NULL THEN
                    NEW.run_failing_since := NEW.run_ended;
                    PERFORM public.kodu_ledger_tell('F', NEW.cron_id, OLD.run_due, TRUE);
                END IF;
            ELSIF OLD.run_failing_since IS NOT NULL THEN
                NEW.run_failing_since := NULL;
                PERFORM public.kodu_ledger_tell('O', NEW.cron_id, OLD.run_due, TRUE);
            END IF;
            RETURN NEW;
        EXCEPTION WHEN OTHERS THEN
            failure := CASE SQLSTATE WHEN '55P03' THEN SQLSTATE END;  -- no second wait for a lock
        END;
    END IF;

    IF NEW.cron_next_exec NOT BETWEEN timestamp '1970-01-01' AND timestamp '2036-01-01' THEN
        PERFORM public.kodu_check_next_run(OLD, NEW);  -- accepts what the daemon writes
    END IF;
    DECLARE
        asked public.kodu_cron_plugin := NEW;
    BEGIN
        IF (OLD.cron_slots IS NOT NULL OR OLD.cron_windows IS NOT NULL)
           AND NEW.cron_next_exec <> OLD.cron_next_exec THEN
            asked := public.kodu_follow_calendar(OLD, NEW);
        END IF;
        IF OLD.cron_wanted IS NOT NULL OR OLD.cron_changed OR OLD.cron_delete THEN
            asked := public.kodu_follow_request(OLD, asked);
        END IF;
        IF failure IS NULL THEN
            BEGIN
                RETURN public.kodu_ledger_other(OLD, NEW, asked, public.kodu_ledger_find_life());
            EXCEPTION WHEN OTHERS THEN
                failure := SQLSTATE;
            END;
        END IF;
        IF failure <> 'KL001' THEN
            ignored := pg_catalog.set_config('kodu.ledger_rests_until', (
                pg_catalog.date_part('epoch', pg_catalog.clock_timestamp()) + 1)::text, FALSE);
            ignored := pg_catalog.set_config('kodu.life', '', FALSE);
        END IF;
        BEGIN
            RETURN public.kodu_ledger_lose(OLD, NEW, asked);
        EXCEPTION WHEN OTHERS THEN
            RETURN asked;
        END;
    END;
END
$$;

-- Reading ----------------------------------------------------------------------------------------

-- One row an attempt, and one a sequence of periods without a run; times are UTC. lateness: seconds
-- from due to the attempt's start.
CREATE OR REPLACE VIEW kodu_run AS
SELECT cron_id AS id, due, started, ended,
       CASE WHEN outcome IN ('O', 'F', 'R', 'I') THEN kodu_ledger_word(outcome) ELSE 'skipped'
       END AS outcome,
       CASE WHEN outcome NOT IN ('O', 'F', 'R', 'I') THEN kodu_ledger_word(outcome) END AS reason,
       attempt, periods,
       EXTRACT(EPOCH FROM ended - started) AS seconds,
       EXTRACT(EPOCH FROM started - due) AS lateness,
       moved_from, moved_to, life, host, ledger_id
FROM kodu_ledger LEFT JOIN kodu_ledger_life ON life_id = life
WHERE outcome <> 'n';

-- One row a task: its latest run, and since when it has been failing, if the ledger has seen that begin.
CREATE OR REPLACE VIEW kodu_task_run AS
SELECT cron_id AS id, run_due AS due, run_started AS started, run_ended AS ended,
       EXTRACT(EPOCH FROM run_ended - run_started) AS seconds, run_attempt AS attempt,
       NULLIF(run_failing_since, '-infinity') AS failing_since
FROM kodu_cron_plugin;

-- What the ledger cannot explain; always empty. A row that does not begin where the previous one ended, a
-- task whose next time is not the one of its last row, a row that moved the time by something else than
-- its periods. Tasks without a row since the ledger was switched on are left out.
CREATE OR REPLACE VIEW kodu_ledger_gap AS
SELECT cron_id AS id, ledger_id, previous AS expected, moved_from AS found
FROM (SELECT cron_id, ledger_id, moved_from, outcome,
             lag(moved_to) OVER (PARTITION BY cron_id ORDER BY ledger_id) AS previous
      FROM kodu_ledger) AS link
WHERE previous <> moved_from AND outcome <> 'n'
UNION ALL
SELECT id, ledger_id, expected, found
FROM (SELECT DISTINCT ON (cron_id) cron_id AS id, ledger_id, moved_to AS expected, ended,
             CASE WHEN cron_next_exec < kodu_pause_time() THEN cron_next_exec
                  ELSE COALESCE(pause_due, next_exec, cron_next_exec) END AS found
      FROM kodu_ledger JOIN kodu_cron_plugin USING (cron_id) LEFT JOIN kodu_cron_pause USING (cron_id)
      WHERE ledger_lost IS NULL
      ORDER BY cron_id, ledger_id DESC) AS last
WHERE expected <> found AND ended >= (SELECT switched_on FROM kodu_ledger_state WHERE is_on)
UNION ALL
SELECT cron_id, ledger_id, moved_from + make_interval(secs => every) * periods, moved_to
FROM kodu_ledger
WHERE round(EXTRACT(EPOCH FROM moved_to - moved_from) / NULLIF(every, 0)) <> periods
  AND outcome NOT IN ('n', 'c', 'z', 'w');

-- One row a task that has rows since then (by default, in the whole ledger). periods: from the first of
-- its times to the last, counted by the interval; where a person or a tool has moved the time, the
-- interval has changed or the task has a calendar, by the rows in between. Each is a run or was skipped
-- for a reason, so `difference` is 0. One SELECT without settings, so that the server plans it with the
-- caller's query.
CREATE OR REPLACE FUNCTION kodu_account(since timestamptz DEFAULT NULL, task integer DEFAULT NULL)
RETURNS TABLE (id integer, periods bigint, runs bigint, failed bigint, retried bigint,
               interrupted_attempts bigint, skipped bigint, overrun bigint, late bigint,
               daemon bigint, database bigint, interrupted bigint, reload bigint, paused bigint,
               changed bigint, moved bigint, maintenance bigint, unrecorded bigint,
               difference bigint)
LANGUAGE sql STABLE AS $$
    SELECT total.cron_id, total.periods, runs, failed, retried, interrupted_attempts,
           accounted - runs, overrun, late, daemon, database, interrupted, reload, paused, changed,
           moved, maintenance, unrecorded, total.periods - accounted
    FROM (
        SELECT cron_id,
               CASE WHEN bool_or(is_shift) OR min(every) <> max(every) OR min(every) = 0
                         OR count(*) FILTER (WHERE outcome = 'n') > 1  -- its id was used before
                    THEN sum(CASE WHEN is_shift OR every = 0 THEN row.periods
                                  ELSE round(EXTRACT(EPOCH FROM moved_to - moved_from) / every) END)
                    ELSE round(EXTRACT(EPOCH FROM max(moved_to) - min(moved_from))
                               / NULLIF(min(every), 0))
               END::bigint AS periods,
               sum(row.periods) AS accounted,
               COALESCE(sum(row.periods) FILTER (WHERE outcome IN ('O', 'F')), 0) AS runs,
               count(*) FILTER (WHERE outcome = 'F') AS failed,
               count(*) FILTER (WHERE outcome = 'R') AS retried,
               count(*) FILTER (WHERE outcome = 'I') AS interrupted_attempts,
               COALESCE(sum(row.periods) FILTER (WHERE outcome = 'v'), 0) AS overrun,
               COALESCE(sum(row.periods) FILTER (WHERE outcome = 'l'), 0) AS late,
               COALESCE(sum(row.periods) FILTER (WHERE outcome = 'd'), 0) AS daemon,
               COALESCE(sum(row.periods) FILTER (WHERE outcome = 'b'), 0) AS database,
               COALESCE(sum(row.periods) FILTER (WHERE outcome = 'i'), 0) AS interrupted,
               COALESCE(sum(row.periods) FILTER (WHERE outcome = 'r'), 0) AS reload,
               COALESCE(sum(row.periods) FILTER (WHERE outcome = 'p'), 0) AS paused,
               COALESCE(sum(row.periods) FILTER (WHERE outcome = 'c'), 0) AS changed,
               COALESCE(sum(row.periods) FILTER (WHERE outcome = 'm'), 0) AS moved,
               COALESCE(sum(row.periods) FILTER (WHERE outcome = 'w'), 0) AS maintenance,
               COALESCE(sum(row.periods) FILTER (WHERE outcome = 'z'), 0) AS unrecorded
        FROM (SELECT *, outcome IN ('c', 'z', 'w')
                        AND moved_to <> moved_from + pg_catalog.make_interval(secs => every) * periods
                        AS is_shift
              FROM public.kodu_ledger
              WHERE (since IS NULL OR ended >= since AT TIME ZONE 'UTC')
                AND (task IS NULL OR cron_id = task)) AS row
        GROUP BY cron_id
    ) AS total
$$;

-- Summaries: one row an outcome or reason, of a plugin's runs in an hour and of a task's in a day. They
-- contain what the last kodu_ledger_summarise has read.
CREATE OR REPLACE VIEW kodu_plugin_hour AS
SELECT hour, plugin_id, plugin_name AS name, host,
       CASE WHEN outcome IN ('O', 'F', 'R', 'I') THEN kodu_ledger_word(outcome) ELSE 'skipped'
       END AS outcome,
       CASE WHEN outcome NOT IN ('O', 'F', 'R', 'I') THEN kodu_ledger_word(outcome) END AS reason,
       rows, periods, seconds, max_seconds, lateness, max_lateness
FROM kodu_ledger_hour LEFT JOIN kodu_plugins USING (plugin_id);

CREATE OR REPLACE VIEW kodu_task_day AS
SELECT day, cron_id AS id,
       CASE WHEN outcome IN ('O', 'F', 'R', 'I') THEN kodu_ledger_word(outcome) ELSE 'skipped'
       END AS outcome,
       CASE WHEN outcome NOT IN ('O', 'F', 'R', 'I') THEN kodu_ledger_word(outcome) END AS reason,
       rows, periods, seconds, max_seconds, lateness, max_lateness
FROM kodu_ledger_day;

COMMENT ON TABLE kodu_ledger IS 'Attempts and skipped periods; read it through kodu_run; times are UTC';
COMMENT ON TABLE kodu_ledger_life IS 'One row a session of the daemon; times are UTC';
COMMENT ON TABLE kodu_ledger_hour IS 'Per plugin, host and hour; read it through kodu_plugin_hour';
COMMENT ON TABLE kodu_ledger_day IS 'Per task and day; read it through kodu_task_day';
COMMENT ON TABLE kodu_ledger_state IS 'One row: the settings of the ledger, and how far the summaries are';
COMMENT ON VIEW kodu_run IS 'One row an attempt or a sequence of skipped periods; times are UTC';
COMMENT ON VIEW kodu_task_run IS 'One row a task: its latest run; times are UTC';
COMMENT ON VIEW kodu_ledger_gap IS 'What the ledger cannot explain: always empty';

-- Housekeeping -----------------------------------------------------------------------------------
-- The functions of this section are called from time to time, each in a transaction of its own, in
-- this order: summarise, prune, index. None of them delays a run.

-- Adds the rows that were committed since the last call to the summaries, once an hour or at once, and
-- returns their number. By position: a transaction below the oldest one in progress has ended, so no row
-- of it can appear later.
CREATE OR REPLACE FUNCTION kodu_ledger_summarise(at_once boolean DEFAULT FALSE) RETURNS bigint
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    utc timestamp := now() AT TIME ZONE 'UTC';
    horizon bigint := pg_snapshot_xmin(pg_current_snapshot())::text::bigint;
    state kodu_ledger_state;
    added bigint;
BEGIN
    SELECT * INTO state FROM kodu_ledger_state FOR UPDATE SKIP LOCKED;
    IF NOT FOUND OR NOT at_once AND date_trunc('hour', utc) <= state.summarised_at THEN
        RETURN 0;
    ELSIF state.summarised_to > horizon THEN
        -- A copy on another server, which counts its transactions from the start. Its rows are counted.
        UPDATE kodu_ledger_state SET summarised_to = horizon;
        RETURN 0;
    END IF;
    INSERT INTO kodu_ledger_hour AS hour (hour, plugin_id, host, outcome, rows, periods, seconds,
                                          max_seconds, lateness, max_lateness)
    SELECT date_trunc('hour', ended), COALESCE(cron_plugin_id, 0), COALESCE(life.host, ''), outcome,
           count(*), sum(periods), COALESCE(sum(date_part('epoch', ended - started)), 0),
           COALESCE(max(date_part('epoch', ended - started)), 0),
           COALESCE(sum(date_part('epoch', started - due)), 0),
           COALESCE(max(date_part('epoch', started - due)), 0)
    FROM kodu_ledger LEFT JOIN kodu_cron_plugin USING (cron_id)
    LEFT JOIN kodu_ledger_life AS life ON life_id = life
    WHERE xact >= state.summarised_to AND xact < horizon AND outcome <> 'n'
    GROUP BY 1, 2, 3, 4
    ON CONFLICT ON CONSTRAINT kodu_ledger_hour_pkey DO UPDATE SET
        rows = hour.rows + EXCLUDED.rows, periods = hour.periods + EXCLUDED.periods,
        seconds = hour.seconds + EXCLUDED.seconds, lateness = hour.lateness + EXCLUDED.lateness,
        max_seconds = greatest(hour.max_seconds, EXCLUDED.max_seconds),
        max_lateness = greatest(hour.max_lateness, EXCLUDED.max_lateness);
    INSERT INTO kodu_ledger_day AS day (day, cron_id, outcome, rows, periods, seconds, max_seconds,
                                        lateness, max_lateness)
    SELECT ended::date, cron_id, outcome, count(*), least(sum(periods), 2147483647),
           COALESCE(sum(date_part('epoch', ended - started)), 0),
           COALESCE(max(date_part('epoch', ended - started)), 0),
           COALESCE(sum(date_part('epoch', started - due)), 0),
           COALESCE(max(date_part('epoch', started - due)), 0)
    FROM kodu_ledger
    WHERE xact >= state.summarised_to AND xact < horizon AND outcome <> 'n'
    GROUP BY 1, 2, 3
    ON CONFLICT ON CONSTRAINT kodu_ledger_day_pkey DO UPDATE SET
        rows = day.rows + EXCLUDED.rows,
        periods = least(day.periods::bigint + EXCLUDED.periods, 2147483647),
        seconds = day.seconds + EXCLUDED.seconds, lateness = day.lateness + EXCLUDED.lateness,
        max_seconds = greatest(day.max_seconds, EXCLUDED.max_seconds),
        max_lateness = greatest(day.max_lateness, EXCLUDED.max_lateness);
    SELECT count(*) INTO added FROM kodu_ledger
    WHERE xact >= state.summarised_to AND xact < horizon AND outcome <> 'n';
    UPDATE kodu_ledger_state SET summarised_to = horizon, summarised_at = utc;
    RETURN added;
END
$$;

-- The newest row of a bucket. Rows are appended, so it is on one of the last pages.
CREATE OR REPLACE FUNCTION kodu_ledger_newest(bucket regclass, OUT ended timestamp, OUT xact bigint)
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    EXECUTE format('SELECT max(ended), max(xact) FROM %s WHERE ctid >= $1', bucket)
    INTO ended, xact USING format('(%s,0)', greatest(pg_relation_size(bucket) / 8192 - 64, 0))::tid;
END
$$;

CREATE OR REPLACE FUNCTION kodu_ledger_oldest(bucket regclass) RETURNS timestamp
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    oldest timestamp;
BEGIN
    EXECUTE format('SELECT min(ended) FROM %s WHERE ctid < ''(64,0)''', bucket) INTO oldest;
    RETURN oldest;
END
$$;

-- Empties the buckets whose newest row is older than what is kept, once it is in the summaries, and
-- returns their number. A bucket that a report reads is left for the next call. Deletes old summaries:
-- hours after a year, days after 90.
CREATE OR REPLACE FUNCTION kodu_ledger_prune() RETURNS integer
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp
SET lock_timeout = '100ms' SET client_min_messages = warning AS $$
DECLARE
    utc timestamp := clock_timestamp() AT TIME ZONE 'UTC';
    state kodu_ledger_state;
    bucket regclass;
    newest record;
    emptied integer := 0;
BEGIN
    SELECT * INTO state FROM kodu_ledger_state;
    FOR bucket IN
        SELECT inhrelid FROM pg_inherits
        WHERE inhparent = 'kodu_ledger'::regclass AND pg_relation_size(inhrelid) > 0 ORDER BY 1
    LOOP
        BEGIN
            SELECT * INTO newest FROM kodu_ledger_newest(bucket);
            CONTINUE WHEN newest.ended >= utc - make_interval(days => state.keep_days)
                          OR newest.xact >= state.summarised_to;
            EXECUTE format('DROP INDEX IF EXISTS public.%I', bucket || '_of_task');
            EXECUTE format('TRUNCATE %s', bucket);
            emptied := emptied + 1;
        EXCEPTION WHEN lock_not_available THEN
            NULL;
        END;
    END LOOP;
    DELETE FROM kodu_ledger_hour WHERE hour < utc - interval '365 days';
    DELETE FROM kodu_ledger_day WHERE day < utc::date - 90;
    DELETE FROM kodu_ledger_life
    WHERE began < utc - interval '400 days'
      AND life_id NOT IN (SELECT max(life_id) FROM kodu_ledger_life GROUP BY host);
    UPDATE kodu_ledger_state SET pruned_at = utc;
    RETURN emptied;
END
$$;

-- Gives one bucket that is no longer written an index by task, and returns its name; NULL when all have
-- one. An index of the bucket that is written would cost a few percent of the runs.
CREATE OR REPLACE FUNCTION kodu_ledger_index() RETURNS text
LANGUAGE plpgsql SECURITY DEFINER
SET search_path = pg_catalog, public, pg_temp SET lock_timeout = '100ms' AS $$
DECLARE
    utc timestamp := clock_timestamp() AT TIME ZONE 'UTC';
    bucket regclass;
BEGIN
    FOR bucket IN
        SELECT inhrelid FROM pg_inherits
        WHERE inhparent = 'kodu_ledger'::regclass AND pg_relation_size(inhrelid) > 0
          AND to_regclass(inhrelid::regclass || '_of_task') IS NULL ORDER BY 1
    LOOP
        -- A minute, for transactions that are still open and for differences of clocks.
        CONTINUE WHEN bucket = to_regclass('kodu_ledger_'
                                           || to_char(kodu_ledger_bucket(utc), 'FM00'))
                   OR (kodu_ledger_newest(bucket)).ended > utc - interval '1 minute';
        BEGIN
            EXECUTE format('CREATE INDEX %I ON %s (cron_id, ended)', bucket || '_of_task', bucket);
            RETURN bucket;
        EXCEPTION WHEN lock_not_available THEN
            NULL;
        END;
    END LOOP;
    RETURN NULL;
END
$$;

-- Switching --------------------------------------------------------------------------------------

CREATE OR REPLACE FUNCTION kodu_ledger_is_on() RETURNS boolean
LANGUAGE sql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT EXISTS (SELECT FROM pg_trigger
                   WHERE tgrelid = 'kodu_cron_plugin'::regclass AND tgname = 'kodu_task_updated'
                     AND tgfoid = to_regproc('kodu_ledger_note') AND tgenabled <> 'D')
$$;

-- Makes the trigger of sql/functions.sql call the ledger's function or its own, as the settings say. One
-- trigger for both: with two, the server would prepare two calls at each update.
CREATE OR REPLACE FUNCTION kodu_ledger_switch() RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    wanted boolean := is_on FROM kodu_ledger_state;
BEGIN
    IF wanted = kodu_ledger_is_on() THEN
        RETURN;
    END IF;
    PERFORM kodu_ledger_lock_tasks();
    EXECUTE format(
        'CREATE OR REPLACE TRIGGER kodu_task_updated'
        ' BEFORE UPDATE OF cron_status, cron_next_exec ON kodu_cron_plugin'
        ' FOR EACH ROW EXECUTE FUNCTION %s()',
        CASE WHEN wanted THEN 'kodu_ledger_note' ELSE 'kodu_follow_daemon' END);
END
$$;

-- What happens while the ledger is off is one row of each task afterwards: unrecorded.
CREATE OR REPLACE FUNCTION kodu_ledger_on() RETURNS void
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    PERFORM kodu_ledger_make_buckets();
    IF kodu_ledger_is_on() THEN
        RAISE NOTICE 'the ledger is on already';
        RETURN;
    END IF;
    UPDATE kodu_ledger_state SET is_on = TRUE, switched_on = clock_timestamp() AT TIME ZONE 'UTC';
    PERFORM kodu_ledger_switch();
END
$$;

CREATE OR REPLACE FUNCTION kodu_ledger_off() RETURNS void
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF NOT kodu_ledger_is_on() THEN
        RAISE NOTICE 'the ledger is off already';
        RETURN;
    END IF;
    UPDATE kodu_ledger_state SET is_on = FALSE;
    PERFORM kodu_ledger_switch();
END
$$;

-- Keeps runs for so many days, from 1 to 30. What is older is pruned by the next kodu_ledger_prune.
CREATE OR REPLACE FUNCTION kodu_ledger_keep(days integer) RETURNS void
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF days IS NULL OR days NOT BETWEEN 1 AND 30 THEN
        RAISE EXCEPTION 'the days to keep must be between 1 and 30' USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Use kodu_ledger_keep(3), for example. Summaries are kept for longer.';
    END IF;
    UPDATE kodu_ledger_state SET keep_days = days;
    PERFORM kodu_ledger_set_bucket();
END
$$;

-- How many rows could not be written that no row accounts for yet. Reads only the tasks, so that it
-- answers when the ledger does not.
CREATE OR REPLACE FUNCTION kodu_ledger_unwritten() RETURNS bigint
LANGUAGE sql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT COALESCE(sum(ledger_lost), 0)::bigint FROM kodu_cron_plugin WHERE ledger_lost IS NOT NULL
$$;

-- One row. unrecorded: rows that could not be written, of the runs that are kept, where a row accounts
-- for them. rows: estimated. Fails when a bucket is locked for more than 100 ms.
CREATE OR REPLACE FUNCTION kodu_ledger_status()
RETURNS TABLE (is_on boolean, switched_on timestamp, keep_days integer, oldest timestamp,
               rows bigint, bytes bigint, summary_bytes bigint, unwritten bigint, unrecorded bigint,
               buckets integer, summarised_at timestamp, pruned_at timestamp)
LANGUAGE sql STABLE SECURITY DEFINER
SET search_path = pg_catalog, public, pg_temp SET lock_timeout = '100ms' AS $$
    SELECT kodu_ledger_is_on(), state.switched_on, state.keep_days, bucket.oldest, bucket.rows,
           bucket.bytes,
           pg_total_relation_size('kodu_ledger_hour') + pg_total_relation_size('kodu_ledger_day'),
           kodu_ledger_unwritten(),
           (SELECT COALESCE(sum(attempt), 0) FROM kodu_ledger WHERE outcome >= 'z'),
           bucket.number, state.summarised_at, state.pruned_at
    FROM kodu_ledger_state AS state,
         (SELECT count(*)::integer AS number,
                 sum(pg_total_relation_size(inhrelid))::bigint AS bytes,
                 (sum(pg_relation_size(inhrelid)) / 108)::bigint AS rows,
                 min(kodu_ledger_oldest(inhrelid)) AS oldest
          FROM pg_inherits WHERE inhparent = 'kodu_ledger'::regclass) AS bucket
$$;

-- Rights, and the trigger --------------------------------------------------------------------------

-- The functions for people and for the housekeeping have the owner's rights, since only an owner can
-- empty a table or replace a trigger. All roles that change a task call what the trigger calls.
DO $$
DECLARE
    function regprocedure;
BEGIN
    FOR function IN
        SELECT oid FROM pg_proc
        WHERE pronamespace = 'public'::regnamespace AND proname LIKE 'kodu\_ledger\_%'
          AND prorettype <> 'trigger'::regtype
    LOOP
        EXECUTE format('REVOKE EXECUTE ON FUNCTION %s FROM PUBLIC', function);
    END LOOP;
END
$$;
GRANT EXECUTE ON FUNCTION kodu_ledger_find_life, kodu_ledger_other, kodu_ledger_lose,
                          kodu_ledger_failing, kodu_ledger_tell, kodu_ledger_bucket,
                          kodu_ledger_bucket_seconds, kodu_ledger_word TO PUBLIC;
GRANT EXECUTE ON FUNCTION kodu_ledger_summarise, kodu_ledger_prune, kodu_ledger_index,
                          kodu_ledger_is_on, kodu_ledger_unwritten, kodu_ledger_status
    TO kodu, kodu_admin;
REVOKE EXECUTE ON FUNCTION kodu_account FROM PUBLIC;
GRANT EXECUTE ON FUNCTION kodu_account TO kodu, kodu_admin;  -- kodu: of the tools
GRANT EXECUTE ON FUNCTION kodu_ledger_on, kodu_ledger_off, kodu_ledger_keep TO kodu_admin;
GRANT INSERT ON kodu_ledger TO kodu;
GRANT INSERT ON kodu_ledger_life TO kodu;
GRANT SELECT ON kodu_ledger, kodu_ledger_life, kodu_ledger_state TO kodu, kodu_admin;
GRANT SELECT ON kodu_ledger_hour, kodu_ledger_day, kodu_run, kodu_task_run, kodu_ledger_gap,
                kodu_plugin_hour, kodu_task_day TO kodu, kodu_admin;

DO $$
BEGIN
    PERFORM kodu_ledger_switch();
END
$$;

COMMIT;
