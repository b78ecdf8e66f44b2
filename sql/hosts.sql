-- Hosts: several daemons on one database, each with tasks of its own. docs/hosts.md explains them.
--
-- Load it after the other files, as the same owner; loading it again changes nothing, and a database
-- without it works as before. The daemon can be running. The owner needs the right to create roles; to see
-- and end the sessions of other roles, it must be a member of pg_monitor and pg_signal_backend, or a
-- superuser.
--
-- A host is a role that one daemon connects as. cron_host holds the role's name, so the policies compare
-- two names and look nothing up. The first host is the role of the daemon that the database has had so far:
-- `kodu`, or what the session that loads this file has set kodu.daemon_role to.

BEGIN;
SET LOCAL client_min_messages = warning;  -- nothing about what exists already
SET LOCAL search_path = public;

-- The daemon queues behind a waiting request for a lock, so no wait is longer than 100 ms. All tables at
-- once: nothing below may wait while it has one of them.
DO $$
DECLARE
    limit_before text := current_setting('lock_timeout');
BEGIN
    PERFORM set_config('lock_timeout', '100ms', TRUE);
    FOR attempt IN 1..100 LOOP
        BEGIN
            LOCK TABLE kodu_cron_plugin, kodu_cron_error, kodu_cron_repair IN ACCESS EXCLUSIVE MODE;
            PERFORM set_config('lock_timeout', limit_before, TRUE);
            RETURN;
        EXCEPTION WHEN lock_not_available THEN
            NULL;
        END;
        PERFORM pg_sleep(0.2);
    END LOOP;
    RAISE EXCEPTION 'the tables of the tasks are in use' USING
        ERRCODE = 'lock_not_available',
        HINT = 'A long transaction uses them, see pg_stat_activity. Nothing has changed. Try again.';
END
$$;

-- Tables -----------------------------------------------------------------------------------------

CREATE TABLE IF NOT EXISTS kodu_host (
    host       text PRIMARY KEY CHECK (octet_length(host) <= 63),
    ping_task  integer,    -- see kodu_host_ping
    made_role  boolean NOT NULL DEFAULT FALSE,  -- so kodu_host_remove drops it
    added      timestamp NOT NULL DEFAULT (now() AT TIME ZONE 'UTC'),
    -- The rest is written by kodu_host_hear and kodu_host_watch.
    asked_pid  integer,    -- the session that is asked whether it listens
    answers    integer NOT NULL DEFAULT 0,
    heard_pid  integer,    -- the session that is known to listen: the same one, or NULL
    seen       timestamp,  -- the latest sign of life
    asked      timestamp,  -- when one was asked for that has not come yet
    watched    timestamp,
    asked_began timestamptz  -- of the session: a later one may have the same pid
);
ALTER TABLE kodu_host ADD COLUMN IF NOT EXISTS asked_began timestamptz;
-- The host that gets new tasks instead of this one, which is drained; NULL: it is not.
ALTER TABLE kodu_host ADD COLUMN IF NOT EXISTS instead text REFERENCES kodu_host (host);

-- A task on its way, parked at kodu_pause_time() on its former host.
CREATE TABLE IF NOT EXISTS kodu_host_moving (
    -- The daemon can delete the task, and this row with it, without a right to this table.
    cron_id     integer PRIMARY KEY REFERENCES kodu_cron_plugin (cron_id) ON DELETE CASCADE,
    source      text NOT NULL,
    target      text NOT NULL,
    next_exec   timestamp NOT NULL,  -- when it is due
    is_told     boolean NOT NULL,    -- the daemon was told that it is parked
    mover       integer NOT NULL,    -- the session that moves it
    mover_began timestamptz NOT NULL
);

-- The task goes back to the host that has lent it.
ALTER TABLE kodu_host_moving ADD COLUMN IF NOT EXISTS is_lent boolean NOT NULL DEFAULT FALSE;

-- No rewrite of a table, and no function of ours in a default: an upgrade drops and creates them. A session
-- that adds tasks for another host names it: SET kodu.host = '...'.
DO $$
DECLARE
    first text := COALESCE(NULLIF(current_setting('kodu.daemon_role', TRUE), ''), 'kodu');
BEGIN
    IF EXISTS (SELECT FROM pg_attribute
               WHERE attrelid = 'kodu_cron_plugin'::regclass AND attname = 'cron_host') THEN
        RETURN;
    END IF;
    INSERT INTO kodu_host (host) VALUES (first);
    EXECUTE format('ALTER TABLE kodu_cron_plugin ADD COLUMN cron_host text NOT NULL DEFAULT %L', first);
    EXECUTE format('ALTER TABLE kodu_cron_plugin ALTER COLUMN cron_host'
                   ' SET DEFAULT COALESCE(NULLIF(current_setting(''kodu.host'', TRUE), ''''), %L)', first);
    -- Not tested for the rows that are there: they have the first host.
    ALTER TABLE kodu_cron_plugin ADD CONSTRAINT cron_host_is_a_host
        FOREIGN KEY (cron_host) REFERENCES kodu_host (host) NOT VALID;
    -- Where the copy of a failed run's output is, and whose run was repaired.
    EXECUTE format('ALTER TABLE kodu_cron_error ADD COLUMN cron_host text DEFAULT %L', first);
    ALTER TABLE kodu_cron_error ALTER COLUMN cron_host SET DEFAULT CURRENT_USER;
    EXECUTE format('ALTER TABLE kodu_cron_repair ADD COLUMN cron_host text DEFAULT %L', first);
    EXECUTE format('ALTER TABLE kodu_cron_repair ALTER COLUMN cron_host SET DEFAULT'
                   ' COALESCE(NULLIF(current_setting(''kodu.daemon_role'', TRUE), ''''), %L)', first);
END
$$;

ALTER TABLE kodu_cron_plugin
    ADD COLUMN IF NOT EXISTS cron_home text,  -- the host that it was taken over from, or drained
    ADD COLUMN IF NOT EXISTS cron_moved_from text, ADD COLUMN IF NOT EXISTS cron_moved_at timestamp;
CREATE INDEX IF NOT EXISTS kodu_cron_plugin_of_home ON kodu_cron_plugin (cron_home)
    WHERE cron_home IS NOT NULL;

-- The load and the takeover of one host among many. The daemon never writes the column, so its updates
-- change no index.
CREATE INDEX IF NOT EXISTS kodu_cron_plugin_of_host ON kodu_cron_plugin (cron_host);

COMMENT ON COLUMN kodu_cron_plugin.cron_host IS 'The role of the daemon that runs the task';
COMMENT ON COLUMN kodu_cron_plugin.cron_home IS 'The host that koductl host return gives it back to';
COMMENT ON COLUMN kodu_cron_plugin.cron_moved_from IS 'Its previous host: earlier outputs are there';
COMMENT ON COLUMN kodu_cron_plugin.cron_moved_at IS 'When it left that host; UTC';
COMMENT ON COLUMN kodu_cron_error.cron_host IS
    'The role of the daemon that ran it: the output''s copy is on its machine';
COMMENT ON COLUMN kodu_cron_repair.cron_host IS 'The role of the daemon whose run it was';
COMMENT ON TABLE kodu_host IS 'One row a daemon''s role; times are UTC';
COMMENT ON TABLE kodu_host_moving IS 'One row a task that is being moved to another host';

-- Policies and the fence -------------------------------------------------------------------------

DO $$
BEGIN
    CREATE ROLE kodu_hosts NOLOGIN;
EXCEPTION
    -- Roles belong to the whole cluster, as in sql/functions.sql.
    WHEN duplicate_object OR unique_violation THEN NULL;
END
$$;

-- All roles see and change what they have a right to, but hosts only their own tasks.
DROP POLICY IF EXISTS kodu_all ON kodu_cron_plugin;
DROP POLICY IF EXISTS kodu_own_host ON kodu_cron_plugin;
CREATE POLICY kodu_all ON kodu_cron_plugin USING (TRUE) WITH CHECK (TRUE);
CREATE POLICY kodu_own_host ON kodu_cron_plugin AS RESTRICTIVE TO kodu_hosts
    USING (cron_host = CURRENT_USER) WITH CHECK (cron_host = CURRENT_USER);
ALTER TABLE kodu_cron_plugin ENABLE ROW LEVEL SECURITY;

-- A daemon that begins the run of a task which is another host's by now finds no row, which is no error to
-- it: it would run the plugin and end only afterwards. So an update of no row is an error here, and the
-- daemon ends before it runs anything. A policy cannot do that: the condition of reading comes first.
--
-- It has no SET clause, which would cost each of the daemon's updates as much as the rest; hence the full
-- names.
CREATE OR REPLACE FUNCTION kodu_fence() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    IF EXISTS (SELECT FROM changed) THEN
        RETURN NULL;
    END IF;
    -- CURRENT_USER is another one within the functions below.
    IF session_user = COALESCE(NULLIF(pg_catalog.current_setting('kodu.daemon_role', TRUE), ''), 'kodu')
       AND session_user = CURRENT_USER
       AND pg_catalog.current_setting('application_name') <> 'psql'
       AND pg_catalog.current_setting('application_name') NOT LIKE 'kodu\_%' THEN
        RAISE EXCEPTION 'the host % does not have this task any more', session_user USING
            ERRCODE = 'object_not_in_prerequisite_state',
            HINT = 'It was moved to another host or deleted. A new start of the daemon loads the tasks'
                   ' that the host has now.';
    END IF;
    RETURN NULL;
END
$$;

CREATE OR REPLACE TRIGGER kodu_fence AFTER UPDATE ON kodu_cron_plugin
    REFERENCING NEW TABLE AS changed FOR EACH STATEMENT EXECUTE FUNCTION kodu_fence();

-- Adding and removing a host -----------------------------------------------------------------------

-- Gives all hosts the rights that the other files give to the role kodu.
CREATE OR REPLACE FUNCTION kodu_host_grant() RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    statement text;
BEGIN
    EXECUTE format('GRANT CONNECT ON DATABASE %I TO kodu_hosts', current_database());
    GRANT USAGE ON SCHEMA public TO kodu_hosts;
    FOR statement IN
        SELECT format('GRANT %s%s ON %s %s TO kodu_hosts', privilege_type, columns, kind, object)
        FROM (SELECT CASE relkind WHEN 'S' THEN 'SEQUENCE' ELSE 'TABLE' END AS kind,
                     oid::regclass::text AS object, '' AS columns, acl.*
              FROM pg_class, aclexplode(relacl) AS acl
              WHERE relnamespace = 'public'::regnamespace AND starts_with(relname, 'kodu_')
              UNION ALL
              SELECT 'TABLE', attrelid::regclass::text, format(' (%I)', attname), acl.*
              FROM pg_attribute JOIN pg_class ON pg_class.oid = attrelid, aclexplode(attacl) AS acl
              WHERE relnamespace = 'public'::regnamespace AND starts_with(relname, 'kodu_')
              UNION ALL
              SELECT 'ROUTINE', oid::regprocedure::text, '', acl.*
              FROM pg_proc, aclexplode(proacl) AS acl
              WHERE pronamespace = 'public'::regnamespace AND starts_with(proname, 'kodu_')) AS granted
        WHERE grantee = 'kodu'::regrole
    LOOP
        EXECUTE statement;
    END LOOP;
END
$$;

-- Refuses a role that the policies would not apply to.
CREATE OR REPLACE FUNCTION kodu_host_check_role(host text) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF EXISTS (SELECT FROM pg_roles
               WHERE rolname = host
                 AND (rolsuper OR rolbypassrls OR oid = (SELECT relowner FROM pg_class
                                                         WHERE oid = 'kodu_cron_plugin'::regclass)
                      OR pg_has_role(oid, 'kodu_admin', 'MEMBER'))) THEN
        RAISE EXCEPTION 'the role % cannot be a host: it has rights to all tasks', host USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Superusers, the owner of the tables and members of kodu_admin cannot. Use a role of'
                   ' its own.';
    END IF;
END
$$;

-- Adds a host: a role with the rights and the settings of the daemon's first one. Settings are not
-- inherited, so each role gets its own. It has no password until one is set, with \password in psql. A
-- host that is there already stays as it is.
CREATE OR REPLACE FUNCTION kodu_host_add(host text) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
#variable_conflict use_column
DECLARE
    role text := host;
    is_new boolean := NOT EXISTS (SELECT FROM pg_roles WHERE rolname = role);
BEGIN
    IF NOT EXISTS (SELECT FROM kodu_host WHERE host = role)  -- the first one has any name
       AND (role !~ '^[a-z_][a-z0-9_]{0,62}$' OR starts_with(role, 'pg_')
            OR role IN ('kodu_hosts', 'kodu_admin', 'kodu_reader', 'kodu_monitor')) IS NOT FALSE THEN
        RAISE EXCEPTION '% cannot be the name of a host', COALESCE(quote_literal(role), 'NULL') USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'Use at most 63 lower-case letters, digits and _, for example kodu_b.';
    END IF;
    IF is_new THEN
        BEGIN
            EXECUTE format('CREATE ROLE %I LOGIN', role);
        EXCEPTION WHEN duplicate_object OR unique_violation THEN
            is_new := FALSE;
        END;
    END IF;
    PERFORM kodu_host_check_role(role);
    IF NOT pg_has_role(role, 'kodu_hosts', 'MEMBER') THEN
        EXECUTE format('GRANT kodu_hosts TO %I', role);
    END IF;
    -- The same as for kodu in sql/schema.sql. With the last one, which for kodu is the default, the ledger
    -- and the fence know its sessions as those of a daemon, and sql/repair.sql repairs its own runs.
    EXECUTE format('ALTER ROLE %I IN DATABASE %I SET synchronous_commit = off', role,
                   current_database());
    EXECUTE format('ALTER ROLE %I IN DATABASE %I SET search_path = public', role, current_database());
    IF role <> 'kodu' THEN
        EXECUTE format('ALTER ROLE %I IN DATABASE %I SET kodu.daemon_role = %L', role,
                       current_database(), role);
    END IF;
    INSERT INTO kodu_host (host, made_role) VALUES (role, is_new) ON CONFLICT DO NOTHING;
    PERFORM kodu_host_add_ping(role);
EXCEPTION WHEN insufficient_privilege THEN
    RAISE EXCEPTION 'the host % cannot be added: %', role, SQLERRM USING
        ERRCODE = 'insufficient_privilege',
        HINT = 'Call it as a superuser, or as the owner of the tables with the right to create roles and'
               ' GRANT SET ON PARAMETER kodu.daemon_role.';
END
$$;

-- The task of kodu_host_ping, where there is none, or somebody has deleted it. Its interval is the longest
-- there is: it never runs for its own sake.
CREATE OR REPLACE FUNCTION kodu_host_add_ping(host text) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
#variable_conflict use_column
DECLARE
    role text := host;
    plugin integer;
    ping integer;
BEGIN
    IF EXISTS (SELECT FROM kodu_host JOIN kodu_cron_plugin ON cron_id = ping_task
               WHERE host = role) THEN
        RETURN;
    END IF;
    SELECT min(plugin_id) INTO plugin FROM kodu_plugins WHERE plugin_name = 'kodu_host_ping';
    IF plugin IS NULL THEN
        INSERT INTO kodu_plugins (plugin_name, plugin_path) VALUES ('kodu_host_ping', '/bin/echo')
        RETURNING plugin_id INTO plugin;
    END IF;
    INSERT INTO kodu_cron_plugin (cron_plugin_id, cron_interval, cron_next_exec, cron_log_file,
                                  cron_retries, cron_parameter, cron_host)
    VALUES (plugin, '366 days', kodu_soon() + interval '366 days', 'kodu_host_ping_$SERVICEID_$DATE.txt',
            0, 'alive', role)
    RETURNING cron_id INTO ping;
    UPDATE kodu_host SET ping_task = ping WHERE host = role;
END
$$;

-- The host's row, locked. The lock does not keep a task of the host from being added.
CREATE OR REPLACE FUNCTION kodu_host_lock(host text) RETURNS kodu_host
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
#variable_conflict use_column
DECLARE
    role text := host;
    locked kodu_host;
BEGIN
    SELECT * INTO locked FROM kodu_host WHERE host = role FOR NO KEY UPDATE;
    IF NOT FOUND THEN
        RAISE EXCEPTION 'there is no host %', COALESCE(quote_literal(role), 'NULL') USING
            ERRCODE = 'undefined_object', HINT = 'SELECT host FROM kodu_host_status lists the hosts.';
    END IF;
    RETURN locked;
END
$$;

-- Removes a host that has no tasks and no daemon. Its role goes too if kodu_host_add created it and
-- nothing else depends on it; otherwise it loses its rights, unless it is a host in another database too.
CREATE OR REPLACE FUNCTION kodu_host_remove(host text) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
#variable_conflict use_column
DECLARE
    present kodu_host := kodu_host_lock(host);
    tasks bigint := count(*) FROM kodu_cron_plugin
                    WHERE cron_host = present.host AND cron_id IS DISTINCT FROM present.ping_task;
BEGIN
    IF present.host = kodu_host_default() THEN
        RAISE EXCEPTION 'the host % cannot be removed: new tasks are its own', present.host USING
            ERRCODE = 'object_not_in_prerequisite_state',
            HINT = 'Make another host the default first, with kodu_host_set_default.';
    ELSIF tasks > 0 THEN
        RAISE EXCEPTION 'the host % still has % tasks', present.host, tasks USING
            ERRCODE = 'object_not_in_prerequisite_state',
            HINT = 'Move them to another host first, with kodu_host_move or kodu_host_takeover.';
    ELSIF kodu_host_session(present.host) IS NOT NULL THEN
        RAISE EXCEPTION 'the daemon of the host % is connected', present.host USING
            ERRCODE = 'object_not_in_prerequisite_state', HINT = 'Stop it first.';
    END IF;
    IF EXISTS (SELECT FROM kodu_host WHERE instead = present.host) THEN
        RAISE EXCEPTION 'the host % cannot be removed: it gets the new tasks of a drained host',
            present.host USING
            ERRCODE = 'object_not_in_prerequisite_state',
            HINT = 'Call kodu_host_reopen for that one first, or kodu_host_drain for this one.';
    END IF;
    UPDATE kodu_cron_plugin SET cron_home = NULL WHERE cron_home = present.host;
    DELETE FROM kodu_cron_plugin WHERE cron_id = present.ping_task;
    DELETE FROM kodu_host WHERE host = present.host;
    IF EXISTS (SELECT FROM pg_roles WHERE rolname = present.host) THEN
        EXECUTE format('ALTER ROLE %I IN DATABASE %I RESET ALL', present.host, current_database());
        -- With settings for another database, it is a host there.
        IF NOT EXISTS (SELECT FROM pg_db_role_setting JOIN pg_roles ON pg_roles.oid = setrole
                       WHERE rolname = present.host AND setdatabase <> 0) THEN
            EXECUTE format('REVOKE kodu_hosts FROM %I', present.host);
            IF present.made_role THEN
                EXECUTE format('DROP ROLE %I', present.host);
            END IF;
        END IF;
    END IF;
EXCEPTION WHEN dependent_objects_still_exist THEN
    RAISE EXCEPTION 'the role % has other rights or objects', present.host USING
        ERRCODE = 'dependent_objects_still_exist', HINT = 'Revoke or drop them first, see DROP OWNED.';
END
$$;

-- The host of a new task that names none.
CREATE OR REPLACE FUNCTION kodu_host_default() RETURNS text
LANGUAGE plpgsql STABLE SET search_path = pg_catalog, public, pg_temp SET kodu.host = '' AS $$
DECLARE
    host text;
BEGIN
    EXECUTE (SELECT 'SELECT ' || pg_get_expr(adbin, adrelid) FROM pg_attrdef JOIN pg_attribute
                 ON attrelid = adrelid AND attnum = adnum
             WHERE adrelid = 'kodu_cron_plugin'::regclass AND attname = 'cron_host') INTO host;
    RETURN host;
END
$$;

-- Signs of life ----------------------------------------------------------------------------------

CREATE OR REPLACE FUNCTION kodu_host_utc() RETURNS timestamp LANGUAGE sql AS
    $$SELECT pg_catalog.timezone('UTC', pg_catalog.clock_timestamp())$$;

-- The sessions of the hosts' daemons. sign: the latest moment at which the daemon was at work: it has ended
-- or begun a statement then. One that the server works on is a sign itself, also one that waits for a lock;
-- but not one whose result is not taken.
CREATE OR REPLACE FUNCTION kodu_host_sessions()
RETURNS TABLE (host text, pid integer, began timestamptz, sign timestamp)
LANGUAGE sql SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT usename, pid, backend_start,
           CASE WHEN state = 'active' AND COALESCE(wait_event_type, '') <> 'Client'
                THEN kodu_host_utc() ELSE state_change AT TIME ZONE 'UTC' END
    FROM pg_stat_activity JOIN kodu_host ON host = usename
    WHERE datname = current_database() AND pid <> pg_backend_pid()
      AND COALESCE(backend_type, 'client backend') = 'client backend'
      AND COALESCE(application_name, '') <> 'psql'
      AND COALESCE(application_name, '') NOT LIKE 'kodu\_%'
$$;

-- The latest one of a host; NULL: its daemon is not connected. Each call looks again, also within a
-- transaction.
CREATE OR REPLACE FUNCTION kodu_host_session(host text) RETURNS integer
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    PERFORM pg_stat_clear_snapshot();
    RETURN (SELECT pid FROM kodu_host_sessions() AS session
            WHERE session.host = kodu_host_session.host ORDER BY began DESC LIMIT 1);
END
$$;

CREATE OR REPLACE FUNCTION kodu_host_sessions_of(hosts text[]) RETURNS integer[]
LANGUAGE sql SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT ARRAY(SELECT kodu_host_session(host) FROM unnest(hosts) WITH ORDINALITY AS known (host, place)
                 ORDER BY place)
$$;

-- Whether the host's daemon is known to listen: the very session that has answered. A role without the
-- right to see when sessions of others began compares their pids only.
CREATE OR REPLACE FUNCTION kodu_host_listens(known kodu_host) RETURNS boolean
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    PERFORM pg_stat_clear_snapshot();
    RETURN COALESCE((SELECT pid = known.heard_pid AND (began <> known.asked_began) IS NOT TRUE
                     FROM kodu_host_sessions() AS session
                     WHERE session.host = known.host ORDER BY began DESC LIMIT 1), FALSE);
END
$$;

-- Asks the listener of a daemon for a sign: the ping task's time is set into the past, and the daemon told
-- of it; to load the task it moves the time into the future. The listener takes one batch of notifications
-- after the other. So two answers, the second asked for after the first, prove that everything has been
-- done which was sent before the first.
CREATE OR REPLACE FUNCTION kodu_host_ping(host text) RETURNS void
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
#variable_conflict use_column
DECLARE
    role text := (kodu_host_lock(host)).host;
    ping integer;
BEGIN
    PERFORM kodu_host_add_ping(role);
    SELECT ping_task INTO ping FROM kodu_host WHERE host = role;
    UPDATE kodu_cron_plugin
    SET cron_next_exec = date_trunc('second', kodu_host_utc()) - interval '30 minutes'
    WHERE cron_id = ping;
    PERFORM kodu_tell_update(ping);
END
$$;

CREATE OR REPLACE FUNCTION kodu_host_answered(host text) RETURNS boolean
LANGUAGE sql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT EXISTS (SELECT FROM kodu_host AS known JOIN kodu_cron_plugin ON cron_id = ping_task
                   WHERE known.host = kodu_host_answered.host AND cron_next_exec > kodu_host_utc())
$$;

-- Whether the daemon of the host listens. A new session must first answer two pings: one may be answered
-- by its start, which loads all tasks before it listens. So call it again, in transactions of its own, until
-- it returns TRUE; that takes a daemon three seconds.
CREATE OR REPLACE FUNCTION kodu_host_hear(host text) RETURNS boolean
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
#variable_conflict use_column
DECLARE
    present kodu_host := kodu_host_lock(host);
    session integer := kodu_host_session(host);
    session_began timestamptz := max(began) FROM kodu_host_sessions() WHERE pid = session;
BEGIN
    IF kodu_host_listens(present) THEN
        RETURN TRUE;
    ELSIF session IS NULL THEN
        NULL;
    ELSIF (session, session_began) IS DISTINCT FROM (present.asked_pid, present.asked_began) THEN
        present.answers := 0;
        PERFORM kodu_host_ping(present.host);
    ELSIF NOT kodu_host_answered(present.host) THEN
        PERFORM kodu_tell_update(present.ping_task);  -- it may not have listened yet
    ELSE
        present.answers := present.answers + 1;
        IF present.answers < 2 THEN
            PERFORM kodu_host_ping(present.host);
        END IF;
    END IF;
    UPDATE kodu_host
    SET asked_pid = session, asked_began = session_began, answers = present.answers,
        heard_pid = CASE WHEN present.answers >= 2 THEN session END
    WHERE host = present.host;
    RETURN session IS NOT NULL AND present.answers >= 2;
END
$$;

-- Takeover ---------------------------------------------------------------------------------------

-- The task's next regular time that is not past: `slot` itself, or one after it; after a run at `slot`, one
-- after it. Without a coming time of its calendar, that of a pause; a calendar that cannot be evaluated is
-- none, and must not keep the other tasks where they are.
CREATE OR REPLACE FUNCTION kodu_host_slot(task kodu_cron_plugin, slot timestamp,
                                          has_run boolean DEFAULT FALSE) RETURNS timestamp
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    -- A listener looks once a second. A later time would be lost time after a takeover.
    soon timestamp := date_trunc('second', kodu_host_utc() + interval '2.5 seconds');
BEGIN
    IF slot >= soon AND NOT has_run THEN
        RETURN slot;
    ELSIF task.cron_slots IS NOT NULL THEN
        BEGIN
            RETURN COALESCE(kodu_slot_after(task, greatest(slot, soon - interval '1 microsecond')),
                            kodu_pause_time());
        EXCEPTION WHEN OTHERS THEN
            NULL;
        END;
    END IF;
    RETURN kodu_next_slot(slot + CASE WHEN has_run THEN task.cron_interval ELSE interval '0' END,
                          task.cron_interval, soon);
END
$$;

-- The next time of a task that was parked with this one. A run of a parked task has added an interval to
-- the parking time.
CREATE OR REPLACE FUNCTION kodu_host_due(task kodu_cron_plugin, parked timestamp) RETURNS timestamp
LANGUAGE sql SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT CASE WHEN parked >= kodu_pause_time() THEN task.cron_next_exec
                ELSE kodu_host_slot(task, parked,
                                    COALESCE(task.cron_last_exec >= kodu_pause_time(), FALSE)) END
$$;

-- Gives the tasks that are on their way from a host their own times back, and returns their number. Of a
-- run in progress, the time in the row becomes what it would have been.
CREATE OR REPLACE FUNCTION kodu_host_give_back(source text) RETURNS bigint
LANGUAGE plpgsql SECURITY DEFINER
SET search_path = pg_catalog, public, pg_temp SET kodu.reason = 'moved' AS $$
DECLARE
    given bigint;
BEGIN
    WITH given_up AS (
        DELETE FROM kodu_host_moving AS moving
        WHERE moving.source = kodu_host_give_back.source RETURNING moving.*
    ), back AS (
        UPDATE kodu_cron_plugin AS task
        SET cron_next_exec = CASE task.cron_status WHEN 'PROCESS' THEN given_up.next_exec
                                  ELSE kodu_host_due(task, given_up.next_exec) END,
            cron_last_exec = CASE WHEN task.cron_last_exec >= kodu_pause_time() THEN given_up.next_exec
                                  ELSE task.cron_last_exec END
        FROM given_up
        WHERE task.cron_id = given_up.cron_id AND task.cron_host = given_up.source
          AND task.cron_next_exec >= kodu_pause_time() AND given_up.next_exec < kodu_pause_time()
        RETURNING task.cron_id, task.cron_status
    )
    SELECT count(*),
           count(CASE WHEN cron_status IS DISTINCT FROM 'PROCESS' THEN kodu_tell_update(cron_id) END)
    INTO given FROM back;
    RETURN given;
END
$$;

-- Ends the sessions of a host's daemon: of one that works, so that it stops at once; of one that does not,
-- because its unread notifications would fill the server's queue.
CREATE OR REPLACE FUNCTION kodu_host_end_sessions(host text) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    PERFORM pg_stat_clear_snapshot();
    PERFORM pg_terminate_backend(pid) FROM kodu_host_sessions() AS session
    WHERE session.host = kodu_host_end_sessions.host;
EXCEPTION WHEN insufficient_privilege THEN
    RAISE WARNING 'the sessions of the host % cannot be ended', host USING
        HINT = 'Grant pg_signal_backend to the owner of the tables.';
END
$$;

-- Gives all tasks of the host `dead` to `targets` in equal shares, in one transaction, and returns a row for
-- each target. Runs in progress there become FAILED, with a row in kodu_cron_repair each. It is safe
-- whatever `dead` still does: a run begins with an update of its row. Either that comes first, and the run
-- is in progress, or it waits for this transaction and then meets the fence.
CREATE OR REPLACE FUNCTION kodu_host_hand_out(dead text, targets text[])
RETURNS TABLE (target text, tasks bigint)
LANGUAGE plpgsql
SET search_path = pg_catalog, public, pg_temp SET lock_timeout = '5s' SET kodu.reason = 'moved' AS $$
DECLARE
    known kodu_host[] := '{}';
    ping integer;
BEGIN
    IF dead = ANY (targets) THEN
        RAISE EXCEPTION 'the host % cannot take over from itself', quote_literal(dead) USING
            ERRCODE = 'invalid_parameter_value', HINT = 'Name two hosts.';
    END IF;
    PERFORM pg_advisory_xact_lock(6420241123);  -- one at a time, see kodu_host_watch
    PERFORM kodu_host_lock(dead);
    FOREACH target IN ARRAY targets LOOP
        known := known || kodu_host_lock(target);
        IF NOT kodu_host_listens(known[cardinality(known)]) THEN
            RAISE EXCEPTION 'the daemon of the host % is not known to listen', target USING
                ERRCODE = 'object_not_in_prerequisite_state',
                HINT = 'Start it, and call kodu_host_hear until it returns TRUE.';
        END IF;
    END LOOP;
    ping := ping_task FROM kodu_host WHERE host = dead;
    PERFORM FROM kodu_cron_plugin WHERE cron_host = dead ORDER BY cron_id FOR NO KEY UPDATE;
    PERFORM kodu_host_give_back(dead);

    WITH ended AS (
        UPDATE kodu_cron_plugin AS task
        SET cron_status = 'FAILED',
            cron_next_exec = kodu_held(was, kodu_host_slot(was, was.cron_next_exec))
        FROM kodu_cron_plugin AS was  -- a trigger may move the time
        WHERE task.cron_id = was.cron_id AND task.cron_host = dead AND task.cron_status = 'PROCESS'
        RETURNING was.cron_id, was.cron_next_exec
    )
    INSERT INTO kodu_cron_repair (cron_id, was_due, cron_host)
    SELECT cron_id, cron_next_exec, dead FROM ended ORDER BY cron_id;
    -- The daemon would do the same as it loads them, but the ledger would not know why.
    UPDATE kodu_cron_plugin AS task
    SET cron_next_exec = kodu_held(task, kodu_host_slot(task, cron_next_exec))
    WHERE cron_host = dead AND cron_id IS DISTINCT FROM ping AND cron_next_exec < kodu_host_utc();

    RETURN QUERY
    WITH share AS (
        SELECT cron_id, targets[1 + row_number() OVER (ORDER BY cron_interval, cron_id)
                                    % cardinality(targets)] AS host
        FROM kodu_cron_plugin WHERE cron_host = dead AND cron_id IS DISTINCT FROM ping
    ), moved AS (
        UPDATE kodu_cron_plugin AS task
        SET cron_host = share.host, cron_home = NULLIF(COALESCE(cron_home, dead), share.host),
            cron_moved_from = dead, cron_moved_at = kodu_host_utc()
        FROM share WHERE task.cron_id = share.cron_id
        RETURNING task.cron_id, task.cron_host
    )
    SELECT cron_host, count(pg_notify('koducronchannel',
                                      format('{"TYPE":"SERVICE","COMMAND":"ADD","ID":%s}', cron_id)))
    FROM moved GROUP BY cron_host ORDER BY cron_host;
    -- A daemon that has started meanwhile has loaded its tasks already, and may not listen yet.
    FOR target IN SELECT host FROM unnest(known) AS taker WHERE NOT kodu_host_listens(taker) LOOP
        RAISE EXCEPTION 'the daemon of the host % has ended during the takeover', target USING
            ERRCODE = 'object_not_in_prerequisite_state', HINT = 'Nothing has changed. Try again.';
    END LOOP;
    UPDATE kodu_host SET asked_pid = NULL, heard_pid = NULL, answers = 0 WHERE host = dead;
    PERFORM kodu_host_end_sessions(dead);
END
$$;

-- The same for one target, or for all hosts that are known to listen if `target` is NULL. Returns the number
-- of tasks.
CREATE OR REPLACE FUNCTION kodu_host_takeover(dead text, target text) RETURNS bigint
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    targets text[] := CASE WHEN target IS NULL THEN kodu_host_listening(dead) ELSE ARRAY[target] END;
BEGIN
    IF targets = '{}' THEN
        RAISE EXCEPTION 'no other host than % is known to listen', quote_literal(dead) USING
            ERRCODE = 'object_not_in_prerequisite_state',
            HINT = 'Start a daemon, and call kodu_host_hear for its host until it returns TRUE.';
    END IF;
    RETURN (SELECT COALESCE(sum(tasks), 0) FROM kodu_host_hand_out(dead, targets));
END
$$;

-- The hosts except this one that are known to listen, those with the fewest tasks first. Drained ones only
-- where there is no other.
CREATE OR REPLACE FUNCTION kodu_host_listening(except_host text) RETURNS text[]
LANGUAGE sql SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT COALESCE(array_agg(host ORDER BY tasks, host) FILTER (WHERE instead IS NULL),
                    array_agg(host ORDER BY tasks, host), '{}')
    FROM kodu_host AS known CROSS JOIN LATERAL (
        SELECT count(*) AS tasks FROM kodu_cron_plugin WHERE cron_host = known.host) AS own
    WHERE host <> except_host AND kodu_host_listens(known)
$$;

-- Watching ---------------------------------------------------------------------------------------

-- Takes over from each host whose daemon has given no sign of life for `dead_after`: its tasks go to the
-- host that listens and has the fewest, or with `spread` to all hosts that listen. Returns a row for each
-- host that gets tasks. Call it on every host every two seconds, outside the daemon: all its workers may
-- be busy. kodu_host_watch_pause says when exactly.
--
-- A silent daemon is asked for a sign: it is told of a task that does not exist, which costs it one query
-- without a result.
DROP FUNCTION IF EXISTS kodu_host_watch(interval);
CREATE OR REPLACE FUNCTION kodu_host_watch(dead_after interval DEFAULT '6 seconds',
                                           spread boolean DEFAULT FALSE)
RETURNS TABLE (dead text, target text, tasks bigint)
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    utc timestamp := kodu_host_utc();
    targets text[];
BEGIN
    IF dead_after IS NULL OR dead_after < interval '3 seconds' THEN
        RAISE EXCEPTION 'dead_after must be 3 seconds or more' USING
            ERRCODE = 'invalid_parameter_value',
            HINT = 'A daemon answers once a second. Use kodu_host_watch(''6 seconds''), for example.';
    END IF;
    IF NOT pg_try_advisory_xact_lock(6420241123)
       OR EXISTS (SELECT FROM kodu_host HAVING max(watched) > utc - interval '1 second'
                  -- Nor has the time of a silent host ended since.
                  AND bool_and(seen >= utc - dead_after OR seen < watched - dead_after)) THEN
        RETURN;  -- another host is at it
    END IF;
    PERFORM kodu_host_see(utc, dead_after);
    IF EXISTS (SELECT FROM kodu_host WHERE asked = utc) THEN
        PERFORM kodu_tell_update(-1);
    END IF;
    PERFORM kodu_host_give_back(source)
    FROM (SELECT DISTINCT moving.source FROM kodu_host_moving AS moving
          WHERE NOT kodu_host_is_moving(moving)) AS aborted;
    PERFORM kodu_host_hear(host) FROM kodu_host ORDER BY host;

    FOR dead IN
        SELECT host FROM kodu_host AS known
        WHERE seen < utc - dead_after AND asked < utc - dead_after / 3
          AND EXISTS (SELECT FROM kodu_cron_plugin
                      WHERE cron_host = known.host AND cron_id IS DISTINCT FROM ping_task)
        ORDER BY host
    LOOP
        -- Not one that has been asked in vain: it may be down as well.
        targets := ARRAY(SELECT host
                         FROM unnest(kodu_host_listening(dead)) WITH ORDINALITY AS able (host, place)
                         JOIN kodu_host USING (host)
                         WHERE seen > utc - dead_after
                           AND (asked IS NULL OR asked > utc - interval '2.5 seconds') ORDER BY place);
        CONTINUE WHEN targets = '{}';
        BEGIN
            FOR target, tasks IN
                SELECT * FROM kodu_host_hand_out(dead, CASE WHEN spread THEN targets ELSE targets[:1] END)
            LOOP
                RETURN NEXT;
            END LOOP;
        EXCEPTION WHEN OTHERS THEN
            RAISE WARNING 'the tasks of the host % were not taken over: %', dead, SQLERRM USING
                HINT = 'The next call tries it again.';
        END;
        UPDATE kodu_host SET watched = kodu_host_utc();  -- that may have taken seconds
    END LOOP;
END
$$;

-- Notes the signs of life, and which daemons are to be asked for one.
--
-- When no call came for a while, or no session of a daemon is older than the last call, the server was
-- away, and all hosts count as seen: otherwise the first daemon to come back would take the tasks of all. A
-- start can take longer than `dead_after`, so they get five times as long.
CREATE OR REPLACE FUNCTION kodu_host_see(utc timestamp, dead_after interval) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    PERFORM pg_stat_clear_snapshot();
    UPDATE kodu_host AS known SET watched = utc, seen =
        CASE WHEN watched IS NULL OR utc - watched > interval '6 seconds'
                  OR NOT EXISTS (SELECT FROM kodu_host_sessions() AS session
                                 WHERE began AT TIME ZONE 'UTC' < watched) THEN utc + 4 * dead_after
             WHEN utc - watched > interval '3 seconds' THEN greatest(seen, utc)
             ELSE greatest(seen, (SELECT max(sign) FROM kodu_host_sessions() AS session
                                  WHERE session.host = known.host)) END;
    UPDATE kodu_host SET asked = CASE WHEN seen > utc - dead_after / 6 THEN NULL
                                      WHEN asked > seen THEN asked ELSE utc END;
END
$$;

-- When to call kodu_host_watch again, in seconds: after two, or as soon as the time of a silent host ends.
CREATE OR REPLACE FUNCTION kodu_host_watch_pause(dead_after interval DEFAULT '6 seconds')
RETURNS double precision
LANGUAGE sql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT COALESCE(least(2, min(EXTRACT(EPOCH FROM seen + dead_after - kodu_host_utc())) + 0.02), 2)
           ::double precision
    FROM kodu_host WHERE seen + dead_after > kodu_host_utc()
$$;

-- Moving between hosts whose daemons work ----------------------------------------------------------

-- Whether the call that parked the task goes on.
CREATE OR REPLACE FUNCTION kodu_host_is_moving(moving kodu_host_moving) RETURNS boolean
LANGUAGE sql SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT EXISTS (SELECT FROM pg_stat_activity
                   WHERE pid = moving.mover AND backend_start = moving.mover_began
                     AND state = 'active')
$$;

-- The first half: parks up to `how_many` tasks of `source` that are not running, and tells its daemon of
-- those that are due later than in six seconds, and in one more for each thousand tasks: it takes that long
-- until the daemon knows. One that is due sooner may be in its queue already: the daemon runs it, and takes
-- the parking time over from the row at the run's end.
--
-- With `tasks`, only these are parked, each for the host at its place in `targets`. One session at a time
-- moves tasks of a host: the answers to its pings prove nothing for the tasks of another.
DROP FUNCTION IF EXISTS kodu_host_park(text, text, bigint);
CREATE OR REPLACE FUNCTION kodu_host_park(source text, target text, how_many bigint,
                                          tasks integer[] DEFAULT NULL, targets text[] DEFAULT NULL,
                                          is_lent boolean DEFAULT FALSE)
RETURNS bigint
LANGUAGE plpgsql SECURITY DEFINER
SET search_path = pg_catalog, public, pg_temp SET kodu.reason = 'moved'
SET enable_nestloop = off  -- the planner expects a few tasks, and gets thousands
AS $$
DECLARE
    -- A host may only fetch what it has lent.
    is_host boolean := pg_has_role(session_user, 'kodu_hosts', 'MEMBER')
                       AND NOT pg_has_role(session_user, 'kodu_admin', 'MEMBER');
    margin interval := interval '6 seconds' + interval '1 millisecond' * least(
        20000, how_many, cardinality(tasks), (SELECT count(*) FROM kodu_cron_plugin
                                              WHERE cron_host = kodu_host_park.source));
    parked bigint;
BEGIN
    IF is_host AND (target = session_user AND targets IS NULL) IS NOT TRUE THEN
        RAISE EXCEPTION 'the host % may not give tasks to others', session_user USING
            ERRCODE = 'insufficient_privilege', HINT = 'Connect as a member of kodu_admin.';
    END IF;
    PERFORM kodu_host_lock(source);
    IF EXISTS (SELECT FROM kodu_host_moving AS moving
               WHERE moving.source = kodu_host_park.source AND mover <> pg_backend_pid()
                 AND kodu_host_is_moving(moving)) THEN
        RAISE EXCEPTION 'another session is moving tasks of the host %', source USING
            ERRCODE = 'object_in_use', HINT = 'Try again when it has ended.';
    END IF;
    WITH chosen AS (
        SELECT cron_id, cron_next_exec, COALESCE(wish.host, kodu_host_park.target) AS host,
               cron_next_exec > kodu_host_utc() + margin AS is_told
        FROM kodu_cron_plugin
        LEFT JOIN unnest(kodu_host_park.tasks, targets) AS wish (task, host) ON wish.task = cron_id
        WHERE cron_host = kodu_host_park.source AND NOT cron_delete
          AND (kodu_host_park.tasks IS NULL OR wish.task IS NOT NULL)
          AND (NOT is_host OR cron_home = session_user)
          AND cron_status IS DISTINCT FROM 'PROCESS'
          -- A time that was asked for and has just come is not moved: the task runs now.
          AND (cron_wanted IS NULL OR cron_wanted > kodu_host_utc() + interval '6 seconds')
          AND cron_id NOT IN (SELECT ping_task FROM kodu_host WHERE ping_task IS NOT NULL)
          AND NOT EXISTS (SELECT FROM kodu_host_moving AS moving
                          WHERE moving.cron_id = kodu_cron_plugin.cron_id)
        ORDER BY cron_id LIMIT how_many
        FOR NO KEY UPDATE OF kodu_cron_plugin SKIP LOCKED  -- the daemon would wait for the others with this one
    ), noted AS (
        INSERT INTO kodu_host_moving (cron_id, source, target, next_exec, is_told, is_lent, mover,
                                      mover_began)
        SELECT cron_id, kodu_host_park.source, host, cron_next_exec, is_told, kodu_host_park.is_lent,
               pid, backend_start
        FROM chosen, pg_stat_activity WHERE pid = pg_backend_pid()
        RETURNING *
    ), parking AS (
        UPDATE kodu_cron_plugin AS task SET cron_next_exec = kodu_pause_time()
        FROM noted WHERE task.cron_id = noted.cron_id AND noted.next_exec < kodu_pause_time()
        RETURNING task.cron_id
    )
    SELECT count(*), count(CASE WHEN is_told THEN kodu_tell_update(noted.cron_id) END)
    INTO parked FROM noted LEFT JOIN parking USING (cron_id);
    RETURN parked;
END
$$;

-- The second half, after two answered pings of which the second was answered by `heard`: gives away what
-- the source surely holds parked, and returns the number. That is a task that it was told of and whose time
-- had not come by then, and one whose run has ended since.
CREATE OR REPLACE FUNCTION kodu_host_hand_over(source text, heard timestamp) RETURNS bigint
LANGUAGE plpgsql SECURITY DEFINER
SET search_path = pg_catalog, public, pg_temp SET kodu.reason = 'moved'
SET enable_nestloop = off  -- the planner expects a few tasks, and gets thousands
AS $$
DECLARE
    given bigint;
BEGIN
    WITH ready AS (
        SELECT moving.*
        FROM kodu_host_moving AS moving JOIN kodu_cron_plugin AS task USING (cron_id)
        WHERE moving.source = kodu_host_hand_over.source AND task.cron_host = moving.source
          AND task.cron_next_exec >= kodu_pause_time() AND task.cron_status IS DISTINCT FROM 'PROCESS'
          AND (moving.is_told AND moving.next_exec > heard + interval '2 seconds'
               OR task.cron_last_exec >= kodu_pause_time())
          -- Paused meanwhile: it stays, and keeps its pause.
          AND (moving.next_exec >= kodu_pause_time()
               OR NOT EXISTS (SELECT FROM kodu_cron_pause AS pause
                              WHERE pause.cron_id = moving.cron_id
                                AND (resumes_at > kodu_host_utc()) IS NOT FALSE))
        ORDER BY cron_id FOR NO KEY UPDATE OF task SKIP LOCKED
    ), moved AS (
        UPDATE kodu_cron_plugin AS task
        SET cron_host = ready.target, cron_next_exec = kodu_host_due(task, ready.next_exec),
            cron_home = CASE WHEN ready.is_lent THEN NULLIF(COALESCE(cron_home, ready.source), ready.target)
                        END,
            cron_moved_from = ready.source, cron_moved_at = kodu_host_utc(),
            cron_last_exec = CASE WHEN task.cron_last_exec >= kodu_pause_time()
                                       AND ready.next_exec < kodu_pause_time() THEN ready.next_exec
                                  ELSE task.cron_last_exec END
        FROM ready WHERE task.cron_id = ready.cron_id
        RETURNING task.cron_id
    ), done AS (
        DELETE FROM kodu_host_moving WHERE cron_id IN (SELECT cron_id FROM moved)
    )
    SELECT count(pg_notify('koducronchannel',
                           format('{"TYPE":"SERVICE","COMMAND":"ADD","ID":%s}', cron_id)))
    INTO given FROM moved;
    RETURN given;
END
$$;

-- Moves up to `how_many` tasks to another host. No daemon ends, nothing runs twice, and each next time stays
-- one of the task's own. Call it outside a transaction: CALL kodu_host_move('kodu', 'kodu_b', 1000). It
-- takes some ten seconds, and waits for runs of tasks that are due within seconds, `patience` at most; tasks
-- whose runs take longer stay. moved: how many have been moved.
--
-- A call that is interrupted leaves tasks parked: kodu_host_watch and kodu_host_give_back put them back. A
-- procedure that commits can have no SET clause; hence the full names.
--
-- With `tasks` and `targets`, as kodu_host_park has them, these move: CALL kodu_host_move('kodu', NULL, NULL,
-- tasks => '{7,8}', targets => '{kodu_b,kodu_c}'). is_lent: kodu_host_lent_tasks lists them from then on.
DROP PROCEDURE IF EXISTS kodu_host_move(text, text, bigint, bigint, interval);
CREATE OR REPLACE PROCEDURE kodu_host_move(source text, target text, how_many bigint,
                                           INOUT moved bigint DEFAULT NULL,
                                           patience interval DEFAULT '60 seconds',
                                           tasks integer[] DEFAULT NULL, targets text[] DEFAULT NULL,
                                           is_lent boolean DEFAULT FALSE)
LANGUAGE plpgsql AS $$
DECLARE
    until timestamptz := pg_catalog.clock_timestamp() + patience;
    asked text;
    answer_until timestamptz;
    hosts text[] := ARRAY(SELECT DISTINCT host FROM pg_catalog.unnest(
                              source || COALESCE(targets, ARRAY[target])) AS host);
    sessions integer[];
    heard timestamp;
    parked bigint;
    given bigint;
BEGIN
    IF source = ANY (COALESCE(targets, ARRAY[target])) THEN
        RAISE EXCEPTION 'the tasks of the host % are there already', pg_catalog.quote_literal(source) USING
            ERRCODE = 'invalid_parameter_value', HINT = 'Name two hosts.';
    END IF;
    moved := 0;
    FOREACH asked IN ARRAY hosts LOOP
        answer_until := pg_catalog.clock_timestamp() + interval '10 seconds';
        WHILE NOT public.kodu_host_hear(asked) LOOP
            IF pg_catalog.clock_timestamp() > answer_until THEN
                RAISE EXCEPTION 'the daemon of the host % does not answer', asked USING
                    ERRCODE = 'object_not_in_prerequisite_state',
                    HINT = 'kodu_host_takeover takes the tasks of a host that is down.';
            END IF;
            COMMIT;
            PERFORM pg_catalog.pg_sleep(0.3);
        END LOOP;
        COMMIT;
    END LOOP;
    sessions := public.kodu_host_sessions_of(hosts);
    LOOP
        parked := public.kodu_host_park(source, target, how_many - moved, tasks, targets, is_lent);
        COMMIT;
        EXIT WHEN parked = 0 AND (moved >= how_many OR pg_catalog.clock_timestamp() > until
                                  OR NOT public.kodu_host_is_at_work(source, tasks => tasks));
        FOR turn IN 1..2 LOOP
            PERFORM public.kodu_host_ping(source);
            COMMIT;
            answer_until := pg_catalog.clock_timestamp() + interval '10 seconds';
            WHILE NOT public.kodu_host_answered(source)
                  AND pg_catalog.clock_timestamp() < answer_until LOOP
                COMMIT;
                PERFORM pg_catalog.pg_sleep(0.1);
            END LOOP;
        END LOOP;
        heard := public.kodu_host_utc();
        LOOP
            -- The listener of another session may have missed something.
            IF sessions <> public.kodu_host_sessions_of(hosts)
               OR NOT public.kodu_host_answered(source) OR pg_catalog.clock_timestamp() > until THEN
                PERFORM public.kodu_host_give_back(source);
                COMMIT;
                RETURN;
            END IF;
            given := public.kodu_host_hand_over(source, heard);
            IF public.kodu_host_sessions_of(hosts) <> sessions THEN
                ROLLBACK;  -- the new session has loaded its tasks, and may not listen yet
                CONTINUE;
            END IF;
            moved := moved + given;
            COMMIT;
            EXIT WHEN NOT public.kodu_host_is_at_work(source, TRUE);
            PERFORM pg_catalog.pg_sleep(0.2);
        END LOOP;
    END LOOP;
END
$$;

-- Whether the host has runs in progress, of these tasks or of any; with is_parked, whether some of its
-- tasks are on their way.
DROP FUNCTION IF EXISTS kodu_host_is_at_work(text, boolean);
CREATE OR REPLACE FUNCTION kodu_host_is_at_work(host text, is_parked boolean DEFAULT FALSE,
                                                tasks integer[] DEFAULT NULL)
RETURNS boolean
LANGUAGE sql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT CASE WHEN is_parked THEN EXISTS (SELECT FROM kodu_host_moving WHERE source = host)
                WHEN tasks IS NULL THEN
                    EXISTS (SELECT FROM kodu_cron_plugin WHERE cron_host = host AND cron_status = 'PROCESS')
                ELSE EXISTS (SELECT FROM unnest(tasks) AS task JOIN kodu_cron_plugin ON cron_id = task
                             WHERE cron_host = host AND cron_status = 'PROCESS')
           END
$$;

-- Maintenance ------------------------------------------------------------------------------------

-- Keeps new tasks from a host that is to be emptied, and those of others while there are other hosts.
-- Returns the host that gets new tasks instead.
CREATE OR REPLACE FUNCTION kodu_host_drain(host text) RETURNS text
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
#variable_conflict use_column
DECLARE
    drained text := (kodu_host_lock(host)).host;
    other text := (SELECT known.host
                   FROM unnest(kodu_host_listening(drained)) WITH ORDINALITY AS able (host, place)
                   JOIN kodu_host AS known USING (host) WHERE instead IS NULL ORDER BY place LIMIT 1);
BEGIN
    IF other IS NULL THEN
        RAISE EXCEPTION 'no other host than % listens and is open for tasks', drained USING
            ERRCODE = 'object_not_in_prerequisite_state',
            HINT = 'Start the daemon of another host, or open one with kodu_host_reopen.';
    END IF;
    UPDATE kodu_host SET instead = other WHERE host = drained OR instead = drained;
    RETURN other;
END
$$;

-- The opposite: the host gets new tasks again.
CREATE OR REPLACE FUNCTION kodu_host_reopen(host text) RETURNS void
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
#variable_conflict use_column
DECLARE
    drained text := (kodu_host_lock(host)).host;
BEGIN
    UPDATE kodu_host SET instead = NULL WHERE host = drained;
END
$$;

-- The tasks that the host has lent to others, by a takeover or as it was drained.
CREATE OR REPLACE FUNCTION kodu_host_lent_tasks(host text)
RETURNS TABLE (source text, tasks integer[])
LANGUAGE sql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT cron_host, array_agg(cron_id ORDER BY cron_id) FROM kodu_cron_plugin
    WHERE cron_home = host AND cron_home IS NOT NULL AND cron_host <> host
    GROUP BY cron_host ORDER BY cron_host
$$;

-- New tasks of a drained host go to another one. Once a statement: a look at each row would slow down the
-- insertion of many.
CREATE OR REPLACE FUNCTION kodu_host_redirect() RETURNS trigger
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF EXISTS (SELECT FROM kodu_host WHERE instead IS NOT NULL) THEN
        UPDATE kodu_cron_plugin AS task SET cron_host = instead
        FROM added JOIN kodu_host ON host = added.cron_host
        WHERE task.cron_id = added.cron_id AND instead IS NOT NULL
          AND task.cron_plugin_id NOT IN (SELECT plugin_id FROM kodu_plugins
                                          WHERE plugin_name = 'kodu_host_ping');
    END IF;
    RETURN NULL;
END
$$;

CREATE OR REPLACE TRIGGER kodu_host_redirect AFTER INSERT ON kodu_cron_plugin
    REFERENCING NEW TABLE AS added FOR EACH STATEMENT EXECUTE FUNCTION kodu_host_redirect();

-- Makes a host that of new tasks that name none.
CREATE OR REPLACE FUNCTION kodu_host_set_default(host text) RETURNS void
LANGUAGE plpgsql SECURITY DEFINER
SET search_path = pg_catalog, public, pg_temp SET lock_timeout = '100ms' AS $$
DECLARE
    role text := known.host FROM kodu_host AS known WHERE known.host = kodu_host_set_default.host;
BEGIN
    IF role IS NULL THEN
        PERFORM kodu_host_lock(host);  -- says that there is none
    END IF;
    -- The daemon queues behind the wait for the lock, so it is short.
    FOR attempt IN 1..20 LOOP
        BEGIN
            EXECUTE format('ALTER TABLE kodu_cron_plugin ALTER COLUMN cron_host SET DEFAULT'
                           ' COALESCE(NULLIF(current_setting(''kodu.host'', TRUE), ''''), %L)', role);
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

-- Looking ----------------------------------------------------------------------------------------

-- One row a host. sessions: of its daemon. listens: it can take tasks. silent_seconds: since the last sign
-- of life, as the last kodu_host_watch saw it. late_seconds: of its task that has waited longest. instead:
-- who gets new tasks of a drained host. lent: tasks that kodu_host_lent_tasks names.
CREATE OR REPLACE VIEW kodu_host_status AS
SELECT known.host, known.host = kodu_host_default() AS is_default,
       tasks, running, late_seconds,
       (SELECT count(*) FROM kodu_host_moving WHERE source = known.host) AS leaving,
       (SELECT count(*) FROM kodu_host_sessions() AS session WHERE session.host = known.host) AS sessions,
       kodu_host_listens(known) AS listens,
       greatest(0, floor(EXTRACT(EPOCH FROM now() AT TIME ZONE 'UTC' - seen)))::bigint AS silent_seconds,
       instead,
       (SELECT count(*) FROM kodu_cron_plugin WHERE cron_home = known.host) AS lent
FROM kodu_host AS known
CROSS JOIN LATERAL (
    SELECT count(*) AS tasks, count(*) FILTER (WHERE cron_status = 'PROCESS') AS running,
           COALESCE(max(greatest(0, floor(EXTRACT(EPOCH FROM now() AT TIME ZONE 'UTC' - cron_next_exec))))
                        FILTER (WHERE cron_status IS DISTINCT FROM 'PROCESS' AND NOT cron_delete), 0)::bigint
               AS late_seconds
    FROM kodu_cron_plugin
    WHERE cron_host = known.host AND cron_id IS DISTINCT FROM ping_task
) AS own;

-- Where each task is: hosts see no other's rows of the table.
CREATE OR REPLACE VIEW kodu_task_host AS
SELECT cron_id AS id, cron_host AS host, cron_home AS home, cron_moved_from AS moved_from,
       cron_moved_at AS moved_at
FROM kodu_cron_plugin;

COMMENT ON VIEW kodu_task_host IS 'One row a task: its host, and the one that it came from; times are UTC';
COMMENT ON VIEW kodu_host_status IS 'One row a host: its tasks and its daemon';

-- Rights, and the first host -----------------------------------------------------------------------

-- kodu_host_add and kodu_host_remove have the rights of their caller, who must be allowed to create roles.
DO $$
DECLARE
    routine regprocedure;
BEGIN
    FOR routine IN
        SELECT oid FROM pg_proc
        WHERE pronamespace = 'public'::regnamespace AND proname LIKE 'kodu\_host\_%'
    LOOP
        EXECUTE format('REVOKE EXECUTE ON ROUTINE %s FROM PUBLIC', routine);
    END LOOP;
END
$$;
-- What the view calls, and what people call.
GRANT EXECUTE ON FUNCTION kodu_host_default, kodu_host_sessions, kodu_host_listens, kodu_host_utc
    TO kodu, kodu_admin;
GRANT SELECT ON kodu_host, kodu_host_status, kodu_task_host TO kodu, kodu_admin;
GRANT EXECUTE ON FUNCTION kodu_host_takeover, kodu_host_drain, kodu_host_reopen, kodu_host_set_default
    TO kodu_admin;
-- A host may fetch what it has lent, see kodu_host_park.
GRANT EXECUTE ON FUNCTION kodu_host_session, kodu_host_sessions_of, kodu_host_ping, kodu_host_answered,
                          kodu_host_hear, kodu_host_give_back, kodu_host_park, kodu_host_hand_over,
                          kodu_host_is_at_work, kodu_host_lent_tasks TO kodu, kodu_admin;
GRANT EXECUTE ON PROCEDURE kodu_host_move TO kodu, kodu_admin;
GRANT EXECUTE ON FUNCTION kodu_host_watch, kodu_host_watch_pause TO kodu, kodu_admin;

DO $$
BEGIN
    -- A copy of the database has the hosts, but not the settings of their roles.
    PERFORM kodu_host_add(host) FROM kodu_host
    WHERE ping_task IS NULL
       OR NOT EXISTS (SELECT FROM pg_db_role_setting AS setting JOIN pg_roles ON pg_roles.oid = setrole
                      JOIN pg_database ON pg_database.oid = setdatabase
                      WHERE rolname = host AND datname = current_database());
    PERFORM kodu_host_grant();
END
$$;

COMMIT;
