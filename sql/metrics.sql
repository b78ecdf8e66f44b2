-- What koduexporter and `koductl metrics` read: counters of runs and skipped periods, figures of tasks and
-- daemon, and the role kodu_monitor, which may read these and nothing else.
--
-- Load it after sql/ledger.sql, as the same owner; loading it again changes nothing. docs/metrics.md
-- describes the metrics. Nothing here is called by a run: without a reader it costs nothing.

BEGIN;
SET LOCAL client_min_messages = warning;  -- nothing about what exists already
SET LOCAL search_path = public;
SET LOCAL lock_timeout = '10s';

-- Counters ---------------------------------------------------------------------------------------

-- Readers move these on from the ledger, not the runs: a row that each run updates would keep a version of
-- itself for each run as long as any transaction is open. They never fall, whatever is pruned or restarted.
CREATE TABLE IF NOT EXISTS kodu_metric_counter (
    host  text NOT NULL,  -- of the daemon; '': not by a daemon
    name  text NOT NULL,
    label text NOT NULL,  -- outcome, reason or upper bound
    value double precision NOT NULL,
    PRIMARY KEY (host, name, label)
) WITH (fillfactor = 50);

CREATE TABLE IF NOT EXISTS kodu_metric_state (
    only_row       boolean PRIMARY KEY DEFAULT TRUE CHECK (only_row),
    position       bigint,             -- transactions below are counted; NULL: nothing was counted yet
    read_at        timestamp,
    -- No row of a later transaction was written before this time, so older buckets need not be read.
    written_since  timestamp,
    -- The next value for it: at marked_at, no transaction had the number `mark` yet.
    mark           bigint,
    marked_at      timestamp,
    -- Of the ledger, when it was read; negative while rows by an earlier value may be left to count.
    bucket_seconds integer,
    life_id        integer             -- of the daemon's last session that was counted
) WITH (fillfactor = 50);
INSERT INTO kodu_metric_state DEFAULT VALUES ON CONFLICT DO NOTHING;

-- Tasks with series of their own. No foreign key, which would cost each update of a task a look.
CREATE TABLE IF NOT EXISTS kodu_metric_mark (cron_id integer PRIMARY KEY);

-- The upper bounds of a histogram in seconds, as the text of its label.
CREATE OR REPLACE FUNCTION kodu_metric_bounds(name text) RETURNS text[]
LANGUAGE sql IMMUTABLE AS $$
    SELECT CASE name
        WHEN 'lateness' THEN ARRAY['1.0', '1.5', '2.0', '3.0', '5.0', '10.0', '30.0', '60.0', '300.0',
                                   '1800.0', '+Inf']
        WHEN 'seconds' THEN ARRAY['0.005', '0.02', '0.1', '0.5', '1.0', '5.0', '10.0', '30.0', '60.0',
                                  '300.0', '1800.0', '+Inf']
    END
$$;

-- Adds the rows of the ledger whose transactions have the numbers from `first` to before `stop`.
CREATE OR REPLACE FUNCTION kodu_metric_add(first bigint, stop bigint, buckets integer[]) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    late_bounds text[] := kodu_metric_bounds('lateness');
    run_bounds text[] := kodu_metric_bounds('seconds');
    late_limits double precision[] := trim_array(late_bounds, 1);
    run_limits double precision[] := trim_array(run_bounds, 1);
BEGIN
    INSERT INTO kodu_metric_counter AS counter (host, name, label, value)
    SELECT COALESCE(host, ''), one.name, one.label, sum(one.value)
    FROM (
        SELECT life, outcome, outcome IN ('O', 'F', 'R', 'I') AS is_run,
               -- A bound belongs to its bucket.
               1 + width_bucket(late - 1e-9, late_limits) AS late,
               1 + width_bucket(took - 1e-9, run_limits) AS took,
               count(*) AS rows, sum(periods) AS periods, sum(late) AS late_sum, sum(took) AS took_sum
        FROM (
            SELECT life, outcome, periods,
                   CASE WHEN attempt = 1 AND outcome IN ('O', 'F', 'R')
                        THEN greatest(date_part('epoch', started - due), 0) END AS late,
                   CASE WHEN outcome IN ('O', 'F', 'R')
                        THEN greatest(date_part('epoch', ended - started), 0) END AS took
            FROM kodu_ledger
            WHERE xact >= first AND xact < stop AND bucket = ANY (buckets) AND outcome <> 'n'
        ) AS attempts
        GROUP BY 1, 2, 3, 4, 5
    ) AS part
    LEFT JOIN kodu_ledger_life ON life_id = life
    CROSS JOIN LATERAL (VALUES
        (CASE WHEN is_run THEN 'runs' ELSE 'skipped' END, kodu_ledger_word(outcome),
         CASE WHEN is_run THEN rows ELSE periods END::double precision),
        ('lateness', late_bounds[late], rows), ('lateness_sum', '', late_sum),
        ('seconds', run_bounds[took], rows), ('seconds_sum', '', took_sum)) AS one (name, label, value)
    WHERE one.label IS NOT NULL AND one.value IS NOT NULL
    GROUP BY 1, 2, 3
    ON CONFLICT ON CONSTRAINT kodu_metric_counter_pkey DO UPDATE
        SET value = counter.value + EXCLUDED.value;
END
$$;

-- Counts the daemon's sessions since the last call. Their numbers have gaps.
CREATE OR REPLACE FUNCTION kodu_metric_add_lives(known integer) RETURNS integer
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    INSERT INTO kodu_metric_counter AS counter (host, name, label, value)
    SELECT host, 'lives', '', count(*) FROM kodu_ledger_life WHERE life_id > known GROUP BY host
    ON CONFLICT ON CONSTRAINT kodu_metric_counter_pkey DO UPDATE
        SET value = counter.value + EXCLUDED.value;
    RETURN (SELECT COALESCE(max(life_id), known) FROM kodu_ledger_life);
END
$$;

-- Counts what the ledger has got since the last call, once for all callers; the first call only marks the
-- place. Takes at most `most` transactions (a run has two or three), so that a call after a long rest is
-- short. Returns FALSE while there is more: until then the counters are those of an earlier time.
--
-- By position: a transaction below the oldest one in progress has ended, so no row of it can appear later.
-- The commit waits for the disk, so after a crash of the server no row is missing that was counted.
CREATE OR REPLACE FUNCTION kodu_metric_collect(most bigint DEFAULT 200000) RETURNS boolean
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    utc timestamp;
    horizon bigint;
    next_one bigint;
    state kodu_metric_state;
    stop bigint;
    bucket_seconds integer;
    width interval;
    buckets integer[];
BEGIN
    SELECT * INTO state FROM kodu_metric_state FOR UPDATE;
    utc := clock_timestamp() AT TIME ZONE 'UTC';
    SELECT pg_snapshot_xmin(present)::text::bigint, pg_snapshot_xmax(present)::text::bigint
    INTO horizon, next_one FROM pg_current_snapshot() AS present;
    -- The first call; a copy on another server, which counts its transactions from the start; a rest in
    -- which the ledger has lost rows.
    IF state.position IS NULL OR state.position > horizon
       OR state.read_at < utc - make_interval(days => (SELECT keep_days FROM kodu_ledger_state)) THEN
        state.position := horizon;
        state.written_since := utc;
        state.mark := next_one;
        state.marked_at := utc;
        IF state.life_id IS NULL THEN
            SELECT COALESCE(max(life_id), 0) INTO state.life_id FROM kodu_ledger_life;
        END IF;
    END IF;
    bucket_seconds := kodu_ledger_bucket_seconds();
    IF abs(state.bucket_seconds) IS DISTINCT FROM bucket_seconds THEN
        state.bucket_seconds := -bucket_seconds;
        state.mark := next_one;
        state.marked_at := utc;
    END IF;
    stop := least(horizon, state.position + most);
    IF stop > state.position THEN
        IF state.bucket_seconds > 0 THEN
            -- One more on either side, for rows at the border and for a clock that was set.
            width := make_interval(secs => bucket_seconds);
            buckets := ARRAY(SELECT DISTINCT kodu_ledger_bucket(moment)
                             FROM generate_series(state.written_since - width, utc + width, width)
                                  AS moment);
        ELSE
            buckets := ARRAY(SELECT generate_series(0, 31));
        END IF;
        PERFORM kodu_metric_add(state.position, stop, buckets);
    END IF;
    IF state.mark <= stop THEN
        state.written_since := state.marked_at;
        state.mark := next_one;
        state.marked_at := utc;
        state.bucket_seconds := bucket_seconds;
    END IF;
    UPDATE kodu_metric_state
    SET position = stop, read_at = utc, written_since = state.written_since, mark = state.mark,
        marked_at = state.marked_at, bucket_seconds = state.bucket_seconds,
        life_id = kodu_metric_add_lives(state.life_id);
    RETURN stop >= horizon;
END
$$;

-- All counters with those that are still 0. Of a histogram each bucket has the runs up to its bound.
CREATE OR REPLACE VIEW kodu_metric_count AS
SELECT host, name, label, place,
       sum(COALESCE(value, 0)) OVER (PARTITION BY host, name, CASE WHEN is_bucket THEN '' ELSE label END
                                     ORDER BY place) AS value
FROM (SELECT host FROM kodu_ledger_life UNION SELECT host FROM kodu_metric_counter UNION SELECT '') AS host
CROSS JOIN (
    SELECT 'runs' AS name, label, place, FALSE AS is_bucket
    FROM unnest(ARRAY['ok', 'failed', 'retried', 'interrupted']) WITH ORDINALITY AS o (label, place)
    UNION ALL
    SELECT 'skipped', label, place, FALSE
    FROM unnest(ARRAY['overrun', 'late', 'interrupted', 'daemon', 'database', 'reload', 'paused', 'changed',
                      'moved', 'maintenance', 'unrecorded']) WITH ORDINALITY AS r (label, place)
    UNION ALL
    SELECT name, label, place, TRUE
    FROM (VALUES ('lateness'), ('seconds')) AS histogram (name),
         LATERAL unnest(kodu_metric_bounds(name)) WITH ORDINALITY AS b (label, place)
    UNION ALL
    SELECT name, '', 1, FALSE FROM (VALUES ('lateness_sum'), ('seconds_sum'), ('lives')) AS single (name)
) AS series
LEFT JOIN kodu_metric_counter USING (host, name, label)
-- What only a daemon does has no series of anybody else.
WHERE host <> '' OR name = 'skipped' OR name IN (SELECT name FROM kodu_metric_counter WHERE host = '');

-- Gauges -----------------------------------------------------------------------------------------

-- One row, read at each scrape.
CREATE OR REPLACE VIEW kodu_metric_daemon AS
SELECT daemons, pg_notification_queue_usage() AS queue,
       pg_snapshot_xmax(pg_current_snapshot())::text::bigint - position AS uncounted,
       is_on AS ledger_is_on,
       EXTRACT(EPOCH FROM GREATEST(pruned_at, switched_on)) AS pruned_at,
       (SELECT max(version) FROM kodu_schema_version) AS version
FROM kodu_daemon_state, kodu_metric_state, kodu_ledger_state;

-- One row, in which each task is in one state. It reads all tasks, so no scrape waits for it. Counted in
-- groups first: a column that is used in several filters would be computed as often.
CREATE OR REPLACE VIEW kodu_metric_tasks AS
SELECT COALESCE(sum(tasks) FILTER (WHERE state = 'ok'), 0) AS ok,
       COALESCE(sum(tasks) FILTER (WHERE state = 'failed'), 0) AS failed,
       COALESCE(sum(tasks) FILTER (WHERE state = 'running'), 0) AS running,
       COALESCE(sum(tasks) FILTER (WHERE state = 'retrying'), 0) AS retrying,
       COALESCE(sum(tasks) FILTER (WHERE state = 'paused'), 0) AS paused,
       COALESCE(sum(tasks) FILTER (WHERE state = 'deleting'), 0) AS deleting,
       COALESCE(sum(tasks) FILTER (WHERE state = 'new'), 0) AS new,
       COALESCE(sum(tasks) FILTER (WHERE late), 0) AS overdue,
       COALESCE(max(longest_due) FILTER (WHERE late), 0) AS oldest_overdue,
       COALESCE(max(longest_due) FILTER (WHERE state = 'running'), 0) AS longest_run,
       COALESCE(sum(tasks) FILTER (WHERE failing), 0) AS failing,
       (SELECT COALESCE(sum(ledger_lost), 0) FROM kodu_cron_plugin
        WHERE ledger_lost IS NOT NULL) AS unwritten
FROM (
    SELECT CASE WHEN deleting THEN 'deleting'
                WHEN paused AND NOT running THEN 'paused'
                WHEN awaiting_retry THEN 'retrying'
                WHEN running THEN 'running'
                WHEN status = 'OK' THEN 'ok'
                WHEN status IS NULL THEN 'new'
                ELSE 'failed' END AS state,
           late, failing, count(*) AS tasks, max(due_seconds) AS longest_due
    FROM kodu_task_state WHERE plugin_type = 'cron'
    GROUP BY 1, 2, 3
) AS part;

-- The 100 tasks that have been failing for longest. Sorted by the ledger's time, so that only theirs is
-- looked for in the history if the ledger does not have it.
CREATE OR REPLACE VIEW kodu_metric_failing AS
SELECT id, name, EXTRACT(EPOCH FROM failing_since) AS since
FROM (SELECT cron_id FROM kodu_cron_plugin
      WHERE cron_status = 'FAILED' OR run_failing_since IS NOT NULL
      ORDER BY run_failing_since, cron_id LIMIT 100) AS task
CROSS JOIN LATERAL (SELECT id, name, failing_since FROM kodu_task_state
                    WHERE id = cron_id AND plugin_type = 'cron' AND failing AND NOT deleting) AS state
WHERE failing_since IS NOT NULL;

-- One row a task that kodu_metric_mark has marked; times in seconds since the epoch.
CREATE OR REPLACE VIEW kodu_metric_marked AS
SELECT id, name, NOT failing AS is_ok,
       EXTRACT(EPOCH FROM run_ended) AS ended, EXTRACT(EPOCH FROM run_ended - run_started) AS seconds,
       EXTRACT(EPOCH FROM due) AS due
FROM kodu_metric_mark
JOIN kodu_cron_plugin USING (cron_id)
CROSS JOIN LATERAL (SELECT id, name, failing, due FROM kodu_task_state
                    WHERE id = cron_id AND plugin_type = 'cron' AND NOT deleting) AS state
WHERE cron_status IS NOT NULL;

-- Gives a task series of its own, or takes them away.
CREATE OR REPLACE FUNCTION kodu_metric_mark(task integer, marked boolean DEFAULT TRUE) RETURNS void
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    DELETE FROM kodu_metric_mark AS old
    WHERE cron_id = task
       OR NOT EXISTS (SELECT FROM kodu_cron_plugin WHERE kodu_cron_plugin.cron_id = old.cron_id);
    IF NOT marked THEN
        RETURN;
    ELSIF NOT EXISTS (SELECT FROM kodu_cron_plugin WHERE cron_id = task) THEN
        RAISE EXCEPTION 'there is no task %', task USING
            ERRCODE = 'no_data_found', HINT = 'koductl status lists the ids.';
    ELSIF (SELECT count(*) FROM kodu_metric_mark) >= 1000 THEN
        RAISE EXCEPTION '1000 tasks have series of their own' USING
            ERRCODE = 'configuration_limit_exceeded',
            HINT = 'Take those of another task away: kodu_metric_mark(ID, FALSE).';
    END IF;
    INSERT INTO kodu_metric_mark VALUES (task);
END
$$;

COMMENT ON TABLE kodu_metric_counter IS 'Sums of the ledger; read it through kodu_metric_count';
COMMENT ON TABLE kodu_metric_state IS 'One row: how far the ledger is counted; times are UTC';
COMMENT ON TABLE kodu_metric_mark IS 'Tasks with series of their own';

-- The role, its rights -----------------------------------------------------------------------------

DO $$
DECLARE
    function regprocedure;
BEGIN
    IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = 'kodu_monitor') THEN
        BEGIN
            CREATE ROLE kodu_monitor LOGIN;
        EXCEPTION
            -- Roles belong to the whole cluster: a session of another database may have created it.
            WHEN duplicate_object OR unique_violation THEN NULL;
        END;
    END IF;
    EXECUTE format('GRANT CONNECT ON DATABASE %I TO kodu_monitor', current_database());
    EXECUTE format('ALTER ROLE kodu_monitor IN DATABASE %I SET search_path = public',
                   current_database());
    FOR function IN
        SELECT oid FROM pg_proc
        WHERE pronamespace = 'public'::regnamespace AND proname LIKE 'kodu\_metric\_%'
    LOOP
        EXECUTE format('REVOKE EXECUTE ON FUNCTION %s FROM PUBLIC', function);
        EXECUTE format('GRANT EXECUTE ON FUNCTION %s TO kodu_admin', function);
    END LOOP;
END
$$;

GRANT USAGE ON SCHEMA public TO kodu_monitor;
-- kodu: of the tools, which connect as it too.
GRANT SELECT ON kodu_metric_count, kodu_metric_daemon, kodu_metric_tasks, kodu_metric_failing,
                kodu_metric_marked TO kodu_monitor, kodu, kodu_admin;
GRANT EXECUTE ON FUNCTION kodu_metric_collect, kodu_metric_bounds TO kodu_monitor, kodu, kodu_admin;

COMMIT;
