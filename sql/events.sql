-- Events: what changes of the tasks, for programs that follow it. docs/events.md explains them.
--
-- Load it after sql/ledger.sql, as the same owner; loading it again changes nothing. An event is a row of
-- the ledger, so it is written with the task's own row or not at all, and a program that reads by position
-- misses none. A NOTIFY on the channel kodu_run only wakes readers up.

BEGIN;
SET LOCAL client_min_messages = warning;  -- nothing about what exists already
SET LOCAL search_path = public;
SET LOCAL lock_timeout = '10s';

-- Tables -----------------------------------------------------------------------------------------

-- How far each program has read: to this row of this transaction, included.
CREATE TABLE IF NOT EXISTS kodu_event_reader (
    name      text PRIMARY KEY CONSTRAINT name_is_one_word CHECK (name ~ '^[A-Za-z0-9][A-Za-z0-9._-]{0,62}$'),
    owner     text NOT NULL,  -- the role that may use it, beside members of kodu_admin
    xact      bigint NOT NULL,
    ledger_id bigint NOT NULL,
    created   timestamp NOT NULL DEFAULT (now() AT TIME ZONE 'UTC'),
    moved     timestamp NOT NULL DEFAULT (now() AT TIME ZONE 'UTC'),
    again     bigint NOT NULL DEFAULT 0  -- the last number in kodu_event_dead
) WITH (fillfactor = 50);
ALTER TABLE kodu_event_reader ADD COLUMN IF NOT EXISTS again bigint NOT NULL DEFAULT 0;

-- Events that a program could not deliver. again: to be read again, in this order.
CREATE TABLE IF NOT EXISTS kodu_event_dead (
    reader text NOT NULL,
    key    text NOT NULL,
    event  json NOT NULL,
    tries  integer NOT NULL,
    error  text NOT NULL,
    died   timestamp NOT NULL DEFAULT (now() AT TIME ZONE 'UTC'),
    again  bigint,
    PRIMARY KEY (reader, key)
);
ALTER TABLE kodu_event_dead ADD COLUMN IF NOT EXISTS again bigint;
CREATE INDEX IF NOT EXISTS kodu_event_dead_again ON kodu_event_dead (reader, again)
    WHERE again IS NOT NULL;

CREATE TABLE IF NOT EXISTS kodu_event_setting (
    only_row boolean PRIMARY KEY DEFAULT TRUE CHECK (only_row),
    notify   text NOT NULL DEFAULT 'changes' CHECK (notify IN ('off', 'changes', 'all'))
);
INSERT INTO kodu_event_setting DEFAULT VALUES ON CONFLICT DO NOTHING;

-- Notifying --------------------------------------------------------------------------------------

CREATE OR REPLACE FUNCTION kodu_event_word(outcome text) RETURNS text LANGUAGE sql IMMUTABLE AS $$
    SELECT CASE outcome WHEN 'F' THEN 'failed' WHEN 'O' THEN 'recovered' WHEN 'I' THEN 'interrupted'
                        ELSE 'skipped' END
$$;

-- Sends nothing while the server's queue is half full: a full one would fail the transaction at its
-- commit, where it cannot be caught. Of skipped periods, one a second: the load of many overdue tasks
-- writes a row for each of them.
CREATE OR REPLACE FUNCTION kodu_event_send(event text, task integer, due timestamp) RETURNS void
LANGUAGE plpgsql AS $$
BEGIN
    IF event = 'skipped' THEN
        IF current_setting('kodu.event_skip', TRUE) = date_trunc('second', clock_timestamp())::text THEN
            RETURN;
        END IF;
        PERFORM set_config('kodu.event_skip', date_trunc('second', clock_timestamp())::text, FALSE);
    END IF;
    IF pg_notification_queue_usage() < 0.5 THEN
        PERFORM pg_notify('kodu_run', format(
            '{"version":1,"event":"%s","task":%s,"due":"%sZ","at":"%sZ"}', event, task,
            to_char(due, 'YYYY-MM-DD"T"HH24:MI:SS'),
            to_char(clock_timestamp() AT TIME ZONE 'UTC', 'YYYY-MM-DD"T"HH24:MI:SS')));
    END IF;
END
$$;

-- Called by the ledger for each change.
CREATE OR REPLACE FUNCTION kodu_event_notify(outcome text, task integer, due timestamp) RETURNS void
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF (SELECT notify <> 'off' FROM kodu_event_setting) THEN
        PERFORM kodu_event_send(kodu_event_word(outcome), task, due);
    END IF;
END
$$;

-- Of each start and end. An error would end the daemon.
CREATE OR REPLACE FUNCTION kodu_event_each() RETURNS trigger
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    PERFORM kodu_event_send(CASE NEW.cron_status WHEN 'PROCESS' THEN 'started' ELSE 'ended' END,
                            NEW.cron_id, CASE NEW.cron_status WHEN 'PROCESS' THEN NEW.cron_next_exec
                                                              ELSE NEW.cron_last_exec END);
    RETURN NULL;
EXCEPTION WHEN OTHERS THEN
    RETURN NULL;
END
$$;

-- Makes the trigger of kodu_event_each exist or not, as the settings say. The daemon queues behind a
-- waiting request for a lock, so no wait is longer than 100 ms.
CREATE OR REPLACE FUNCTION kodu_event_switch() RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp SET lock_timeout = '100ms' AS $$
DECLARE
    wanted boolean := notify = 'all' FROM kodu_event_setting;
BEGIN
    FOR attempt IN 1..100 LOOP
        IF wanted = EXISTS (SELECT FROM pg_trigger WHERE tgrelid = 'kodu_cron_plugin'::regclass
                                                     AND tgname = 'kodu_task_event') THEN
            RETURN;
        END IF;
        BEGIN
            IF wanted THEN
                CREATE TRIGGER kodu_task_event AFTER UPDATE OF cron_status ON kodu_cron_plugin
                    FOR EACH ROW EXECUTE FUNCTION kodu_event_each();
            ELSE
                DROP TRIGGER kodu_task_event ON kodu_cron_plugin;
            END IF;
            RETURN;
        EXCEPTION WHEN lock_not_available THEN
            PERFORM pg_sleep(0.2);
        END;
    END LOOP;
    RAISE EXCEPTION 'the table of the tasks is in use' USING
        ERRCODE = 'lock_not_available',
        HINT = 'A long transaction uses it, see pg_stat_activity. Nothing has changed. Try again.';
END
$$;

-- Which notifications are sent: changes (the default), all (each start and end, too) or off.
CREATE OR REPLACE FUNCTION kodu_events_notify(which text) RETURNS void
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF which IS NULL OR which NOT IN ('off', 'changes', 'all') THEN
        RAISE EXCEPTION 'notifications are off, changes or all' USING
            ERRCODE = 'invalid_parameter_value', HINT = 'Use kodu_events_notify(''changes'').';
    END IF;
    UPDATE kodu_event_setting SET notify = which;
    PERFORM kodu_event_switch();
END
$$;

-- Reading ----------------------------------------------------------------------------------------

-- A time as JSON has it.
CREATE OR REPLACE FUNCTION kodu_event_time(utc timestamp) RETURNS text LANGUAGE sql STABLE AS $$
    SELECT to_char(utc, 'YYYY-MM-DD"T"HH24:MI:SS"Z"')
$$;

-- One row an event. key: the same whenever it is read. Rows with xact below
-- pg_snapshot_xmin(pg_current_snapshot()) are complete; of others, more may appear before those that are
-- visible already.
CREATE OR REPLACE VIEW kodu_event AS
SELECT row.xact, row.ledger_id, row.ledger_id::text AS key, row.cron_id AS id,
       kodu_event_word(row.outcome::text) AS event, row.ended AS at,
       json_build_object(
           'version', 1,
           'key', row.ledger_id::text,
           'event', kodu_event_word(row.outcome::text),
           'at', kodu_event_time(row.ended),
           'database', current_database(),
           'task', row.cron_id,
           'task_key', COALESCE(task_key, 'task-' || row.cron_id),
           'name', plugin_name,
           'plugin', plugin_path,
           'due', kodu_event_time(row.due),
           'started', kodu_event_time(row.started),
           'attempt', NULLIF(row.attempt, 0),
           'reason', CASE WHEN row.outcome NOT IN ('F', 'O', 'I') THEN kodu_ledger_word(row.outcome) END,
           'periods', row.periods,
           'host', NULLIF(host, 'local')) AS json
FROM kodu_ledger AS row
LEFT JOIN kodu_ledger_life ON life_id = row.life
LEFT JOIN kodu_cron_plugin AS task ON task.cron_id = row.cron_id
LEFT JOIN kodu_plugins ON plugin_id = cron_plugin_id
LEFT JOIN kodu_cron_key AS key ON key.cron_id = row.cron_id
WHERE CASE row.outcome WHEN 'O' THEN row.was_failing WHEN 'F' THEN NOT row.was_failing
                       WHEN 'I' THEN TRUE WHEN 'R' THEN FALSE ELSE row.periods > 0 END;

-- The reader's row, locked. Fails when another role made it.
CREATE OR REPLACE FUNCTION kodu_event_lock_reader(reader text) RETURNS kodu_event_reader
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    found_reader kodu_event_reader;
BEGIN
    SELECT * INTO found_reader FROM kodu_event_reader WHERE name = reader FOR UPDATE;
    IF found_reader.owner <> session_user
       AND NOT pg_has_role(session_user, 'kodu_admin', 'MEMBER') THEN
        RAISE EXCEPTION 'the reader % belongs to the role %', reader, found_reader.owner USING
            ERRCODE = 'insufficient_privilege', HINT = 'Use another name.';
    END IF;
    RETURN found_reader;
END
$$;

-- The numbers in a position, as in 4711/23.
CREATE OR REPLACE FUNCTION kodu_event_place("position" text, OUT xact bigint, OUT ledger_id bigint)
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF "position" IS NULL OR "position" !~ '^[0-9]{1,18}/[0-9]{1,18}$' THEN
        RAISE EXCEPTION 'not a position of an event: %', COALESCE("position", 'NULL') USING
            ERRCODE = 'invalid_parameter_value', HINT = 'Pass what kodu_events() has returned.';
    END IF;
    xact := split_part("position", '/', 1);
    ledger_id := split_part("position", '/', 2);
END
$$;

-- The next events that `reader` has not yet called kodu_events_done for, in the order of their
-- transactions; none: all have been read. The first call creates the reader, which gets the events of
-- transactions that end from then on. The same are returned until they are done, so a program that ends
-- in between gets them again, with the same keys. Those of kodu_events_redeliver come first, and alone.
CREATE OR REPLACE FUNCTION kodu_events(reader text, "limit" integer DEFAULT 100)
RETURNS TABLE (key text, "position" text, event json)
LANGUAGE plpgsql SECURITY DEFINER
SET search_path = pg_catalog, public, pg_temp SET lock_timeout = '10s' AS $$
#variable_conflict use_column
DECLARE
    horizon bigint := pg_snapshot_xmin(pg_current_snapshot())::text::bigint;
    place kodu_event_reader := kodu_event_lock_reader(reader);
    begun bigint := place.xact;
    width bigint := 20000;  -- transactions that are searched at once
    stop bigint;
    is_found boolean := FALSE;
BEGIN
    IF place.name IS NULL THEN
        INSERT INTO kodu_event_reader (name, owner, xact, ledger_id)
        VALUES (reader, session_user, horizon, 0) ON CONFLICT DO NOTHING;
        RETURN;
    END IF;
    RETURN QUERY
        SELECT dead.key, '0/' || dead.again, dead.event FROM kodu_event_dead AS dead
        WHERE dead.reader = place.name AND dead.again IS NOT NULL ORDER BY dead.again LIMIT "limit";
    IF FOUND THEN
        RETURN;
    ELSIF place.xact > horizon THEN
        -- A copy on another server, which counts its transactions from the start.
        UPDATE kodu_event_reader SET xact = horizon, ledger_id = 0 WHERE name = reader;
        RETURN;
    END IF;
    LOOP
        stop := least(horizon, place.xact + width);
        RETURN QUERY
            SELECT found.key, found.xact || '/' || found.ledger_id, found.json
            FROM kodu_event AS found
            WHERE found.xact >= place.xact AND found.xact < stop
              AND (found.xact, found.ledger_id) > (place.xact, place.ledger_id)
            ORDER BY found.xact, found.ledger_id LIMIT "limit";
        is_found := FOUND;
        EXIT WHEN is_found OR stop = horizon;
        place.xact := stop;
        place.ledger_id := 0;
        width := width * 4;
    END LOOP;
    IF is_found THEN
        -- A crash of the server may take back the last second of the ledger and use its ids again. So
        -- what is handed out is written to the disk first, with this row.
        PERFORM set_config('synchronous_commit', 'on', TRUE);
    ELSE
        place.xact := horizon;
        place.ledger_id := 0;
    END IF;
    IF is_found OR place.xact - begun > 1000 OR place.moved < now() AT TIME ZONE 'UTC' - interval '1 minute' THEN
        UPDATE kodu_event_reader AS present
        SET xact = place.xact, ledger_id = place.ledger_id, moved = now() AT TIME ZONE 'UTC'
        WHERE name = reader;
    END IF;
END
$$;

-- The events up to this position need not be returned again. An earlier position changes nothing; 0/N is
-- one of kodu_event_dead.
CREATE OR REPLACE FUNCTION kodu_events_done(reader text, "position" text) RETURNS void
LANGUAGE plpgsql SECURITY DEFINER
SET search_path = pg_catalog, public, pg_temp SET lock_timeout = '10s' AS $$
DECLARE
    reached record := kodu_event_place("position");
    place kodu_event_reader := kodu_event_lock_reader(reader);
BEGIN
    IF place.name IS NULL THEN
        RAISE EXCEPTION 'there is no reader %', reader USING
            ERRCODE = 'no_data_found', HINT = 'kodu_events() creates it.';
    ELSIF reached.xact >= pg_snapshot_xmin(pg_current_snapshot())::text::bigint THEN
        RAISE EXCEPTION 'the position % has not been reached yet', "position" USING
            ERRCODE = 'invalid_parameter_value', HINT = 'Pass what kodu_events() has returned.';
    ELSIF reached.xact = 0 THEN
        DELETE FROM kodu_event_dead AS dead
        WHERE dead.reader = place.name AND dead.again <= reached.ledger_id;
        RETURN;
    END IF;
    UPDATE kodu_event_reader
    SET xact = reached.xact, ledger_id = reached.ledger_id, moved = now() AT TIME ZONE 'UTC'
    WHERE name = reader AND (xact, ledger_id) < (reached.xact, reached.ledger_id);
END
$$;

-- Puts an event that cannot be delivered aside, and is done with it.
CREATE OR REPLACE FUNCTION kodu_events_bury(reader text, "position" text, event json, tries integer,
                                            error text) RETURNS void
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    PERFORM kodu_events_done(reader, "position");
    INSERT INTO kodu_event_dead AS dead (reader, key, event, tries, error)
    VALUES (reader, event ->> 'key', event, tries, error) ON CONFLICT DO NOTHING;
END
$$;

-- Lets the reader read an event again that was put aside, or all of them. Returns how many there are.
CREATE OR REPLACE FUNCTION kodu_events_redeliver(reader text, key text DEFAULT NULL) RETURNS integer
LANGUAGE plpgsql SECURITY DEFINER
SET search_path = pg_catalog, public, pg_temp SET lock_timeout = '10s' AS $$
DECLARE
    place kodu_event_reader := kodu_event_lock_reader(reader);
    found_dead integer;
BEGIN
    IF place.name IS NULL THEN
        RAISE EXCEPTION 'there is no reader %', reader USING
            ERRCODE = 'no_data_found', HINT = 'kodu_events() creates it.';
    END IF;
    -- Numbers are never used twice, so a late kodu_events_done is not about events that it does not mean.
    UPDATE kodu_event_dead AS dead SET again = place.again + numbered.number
    FROM (SELECT one.key, row_number() OVER (ORDER BY length(one.key), one.key) AS number
          FROM kodu_event_dead AS one
          WHERE one.reader = place.name AND one.again IS NULL
            AND one.key = COALESCE(kodu_events_redeliver.key, one.key)) AS numbered
    WHERE dead.reader = place.name AND dead.key = numbered.key;
    GET DIAGNOSTICS found_dead = ROW_COUNT;
    IF found_dead = 0 AND kodu_events_redeliver.key IS NOT NULL THEN
        RAISE EXCEPTION 'no event % of the reader % was put aside', kodu_events_redeliver.key, reader USING
            ERRCODE = 'no_data_found', HINT = 'koductl events --dead lists them.';
    END IF;
    UPDATE kodu_event_reader SET again = place.again + found_dead WHERE name = reader;
    RETURN found_dead;
END
$$;

-- Makes a reader begin with the events since then; a new or a present one.
CREATE OR REPLACE FUNCTION kodu_events_start(reader text, since timestamptz) RETURNS void
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    horizon bigint := pg_snapshot_xmin(pg_current_snapshot())::text::bigint;
    place kodu_event_reader := kodu_event_lock_reader(reader);
    first bigint := min(xact) FROM kodu_ledger WHERE ended >= since AT TIME ZONE 'UTC' AND xact < horizon;
BEGIN
    INSERT INTO kodu_event_reader AS present (name, owner, xact, ledger_id)
    VALUES (reader, session_user, COALESCE(first, horizon), 0)
    ON CONFLICT ON CONSTRAINT kodu_event_reader_pkey
        DO UPDATE SET xact = EXCLUDED.xact, ledger_id = 0, moved = EXCLUDED.moved;
END
$$;

CREATE OR REPLACE FUNCTION kodu_events_forget(reader text) RETURNS void
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    PERFORM kodu_event_lock_reader(reader);
    DELETE FROM kodu_event_reader WHERE name = reader;
END
$$;

-- Housekeeping -----------------------------------------------------------------------------------

-- Ends the sessions that may keep the queue of notifications above `usage`: for longer than `patience`
-- they have taken no data from the server, or been idle in a transaction. The server does not say which
-- session it is, so the oldest goes first, and the others stay once the queue is shorter. Returns how
-- many it has ended, of all databases, since they share the queue.
CREATE OR REPLACE FUNCTION kodu_event_end_receivers(usage double precision, patience interval)
RETURNS integer
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    receiver record;
    ended integer := 0;
BEGIN
    FOR receiver IN
        SELECT pid, usename FROM pg_stat_activity
        WHERE backend_type = 'client backend' AND pid <> pg_backend_pid()
          AND (wait_event = 'ClientWrite' OR state LIKE 'idle in transaction%')
          AND state_change < now() - patience
        ORDER BY wait_event = 'ClientWrite' DESC NULLS LAST, state_change
    LOOP
        EXIT WHEN pg_notification_queue_usage() < usage;
        BEGIN
            PERFORM pg_terminate_backend(receiver.pid, 5000);
            ended := ended + 1;
        EXCEPTION WHEN insufficient_privilege THEN
            RAISE WARNING 'session % of % may block notifications and cannot be ended', receiver.pid,
                receiver.usename USING HINT = 'Grant pg_signal_backend to the owner of the tables.';
        END;
    END LOOP;
    RETURN ended;
END
$$;

-- Called with the ledger's maintenance. Returns the number of sessions that were disconnected.
CREATE OR REPLACE FUNCTION kodu_event_maintain() RETURNS integer
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    DELETE FROM kodu_event_dead WHERE died < now() AT TIME ZONE 'UTC' - interval '90 days';
    RETURN kodu_event_end_receivers(0.25, '1 minute');
END
$$;

-- Rights -----------------------------------------------------------------------------------------

DO $$
BEGIN
    CREATE ROLE kodu_reader NOLOGIN;
EXCEPTION
    -- Roles belong to the whole cluster, as in sql/functions.sql.
    WHEN duplicate_object OR unique_violation THEN NULL;
END
$$;

DO $$
DECLARE
    function regprocedure;
BEGIN
    EXECUTE format('GRANT CONNECT ON DATABASE %I TO kodu_reader', current_database());
    FOR function IN
        SELECT oid FROM pg_proc
        WHERE pronamespace = 'public'::regnamespace AND proname LIKE 'kodu\_event%'
          AND prorettype <> 'trigger'::regtype
    LOOP
        EXECUTE format('REVOKE EXECUTE ON FUNCTION %s FROM PUBLIC', function);
    END LOOP;
END
$$;
GRANT USAGE ON SCHEMA public TO kodu_reader;
GRANT SELECT ON kodu_event TO kodu, kodu_admin, kodu_reader;
GRANT SELECT ON kodu_event_dead TO kodu;
GRANT SELECT, DELETE ON kodu_event_dead TO kodu_admin;
GRANT SELECT ON kodu_event_reader, kodu_event_setting TO kodu_admin;
-- The ledger calls it with the rights of the role that changes a task. The view calls the others.
GRANT EXECUTE ON FUNCTION kodu_event_notify, kodu_event_word, kodu_event_time TO PUBLIC;
GRANT EXECUTE ON FUNCTION kodu_events, kodu_events_done, kodu_events_bury, kodu_events_redeliver,
                          kodu_events_start, kodu_events_forget TO kodu, kodu_admin, kodu_reader;
GRANT EXECUTE ON FUNCTION kodu_events_notify TO kodu_admin;
GRANT EXECUTE ON FUNCTION kodu_event_maintain TO kodu;

DO $$
BEGIN
    PERFORM kodu_event_switch();
END
$$;

COMMIT;
