-- The console's role, the roles that may use it, and what they have changed with it.
--
-- Load it after sql/ledger.sql, as the same owner; loading it again changes nothing. docs/console.md
-- describes the console. Then give kodu_web a password, and allow people:
--     ALTER ROLE kodu_web PASSWORD '...';
--     SELECT kodu_web_allow('alice');

BEGIN;
SET LOCAL client_min_messages = warning;  -- nothing about what exists already
SET LOCAL search_path = public;
SET LOCAL lock_timeout = '10s';

-- Roles ------------------------------------------------------------------------------------------

-- kodu_web: of the program. It inherits no right from the people whose roles it may take.
-- kodu_viewer: of people who read everything and change nothing.
DO $$
BEGIN
    IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = 'kodu_web') THEN
        BEGIN
            CREATE ROLE kodu_web LOGIN NOINHERIT;
        EXCEPTION
            -- Roles belong to the whole cluster: a session of another database may have created it.
            WHEN duplicate_object OR unique_violation THEN NULL;
        END;
    END IF;
    IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = 'kodu_viewer') THEN
        BEGIN
            CREATE ROLE kodu_viewer NOLOGIN;
        EXCEPTION
            WHEN duplicate_object OR unique_violation THEN NULL;
        END;
    END IF;
    EXECUTE format('GRANT CONNECT ON DATABASE %I TO kodu_web, kodu_viewer', current_database());
    EXECUTE format('ALTER ROLE kodu_web IN DATABASE %I SET search_path = public', current_database());
END
$$;

-- Why the console must not take a role; NULL when it may. An intruder in the console can do what all of
-- these roles can do.
-- By the oid, of which a role that is being dropped does no harm here.
CREATE OR REPLACE FUNCTION kodu_web_problem(person oid) RETURNS text
LANGUAGE sql STABLE SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT pg_get_userbyid(person) || CASE WHEN oid = person THEN '' ELSE ' can become ' || rolname || ', which'
           END || CASE
        WHEN rolsuper THEN ' is a superuser'
        WHEN rolname IN ('kodu', 'kodu_hosts') THEN ' is a daemon''s role'
        WHEN rolname = 'kodu_web' THEN ' is the console''s own role'
        WHEN rolname = 'pg_database_owner' OR oid = (SELECT relowner FROM pg_class
                                                     WHERE oid = to_regclass('public.kodu_cron_plugin'))
            THEN ' is the owner of the tables'
        ELSE ' may do more than the console needs' END
    FROM pg_roles
    -- pg_read_all_data reads the passwords of all roles in pg_authid.
    WHERE (rolsuper OR rolcreaterole OR rolcreatedb OR rolreplication OR rolbypassrls
           OR rolname IN ('kodu', 'kodu_hosts', 'kodu_web', 'pg_execute_server_program',
                          'pg_read_server_files', 'pg_write_server_files', 'pg_read_all_data',
                          'pg_write_all_data', 'pg_signal_backend', 'pg_database_owner')
           OR oid = (SELECT relowner FROM pg_class WHERE oid = to_regclass('public.kodu_cron_plugin')))
      AND pg_has_role(person, oid, 'MEMBER')
    ORDER BY rolsuper DESC, oid <> person, rolname
    LIMIT 1
$$;

-- Allows a role to log in at the console, which then acts with this role's rights. A role that may not read
-- the tasks yet becomes a member of kodu_viewer.
CREATE OR REPLACE FUNCTION kodu_web_allow(person name) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    id oid;
    problem text;
BEGIN
    SELECT oid INTO id FROM pg_roles WHERE rolname = person AND rolcanlogin;
    IF id IS NULL THEN
        RAISE EXCEPTION 'there is no role % that can log in', COALESCE(quote_ident(person), 'NULL') USING
            ERRCODE = 'undefined_object',
            HINT = 'CREATE ROLE ... LOGIN PASSWORD ''...'' makes one.';
    END IF;
    problem := kodu_web_problem(id);
    IF problem IS NOT NULL THEN
        RAISE EXCEPTION 'the console must not act as this role: %', problem USING
            ERRCODE = 'invalid_grant_operation',
            HINT = 'Make a role for this person that is a member of kodu_admin or kodu_viewer.';
    END IF;
    EXECUTE format('GRANT %I TO kodu_web', person);
    IF NOT has_table_privilege(person, 'public.kodu_task_state', 'SELECT') THEN
        EXECUTE format('GRANT kodu_viewer TO %I', person);
    END IF;
END
$$;

-- Takes that back: within a minute the console ends the sessions of the role.
CREATE OR REPLACE FUNCTION kodu_web_forbid(person name) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    EXECUTE format('REVOKE %I FROM kodu_web', person);
END
$$;

-- One row a role that kodu_web_allow was called for, as it is now.
CREATE OR REPLACE VIEW kodu_web_person AS
SELECT rolname::text AS role,
       rolcanlogin AND COALESCE(rolvaliduntil > now(), TRUE) AND kodu_web_problem(oid) IS NULL
           AND has_table_privilege(oid, 'public.kodu_task_state', 'SELECT') AS is_allowed,
       has_function_privilege(oid, 'public.kodu_task_pause(integer, text, timestamptz)', 'EXECUTE')
           AND has_table_privilege(oid, 'public.kodu_cron_pause', 'INSERT') AS may_change
FROM pg_roles
WHERE EXISTS (SELECT FROM pg_auth_members
              WHERE roleid = pg_roles.oid
                AND member = (SELECT oid FROM pg_roles AS console WHERE rolname = 'kodu_web'));

-- Signs of life ----------------------------------------------------------------------------------

-- One row: how many daemons are connected, since when the oldest session is, and when one of them last sent
-- a statement. With the owner's rights, as a role sees nothing of another role's session.
CREATE OR REPLACE FUNCTION kodu_web_daemon(OUT daemons bigint, OUT since timestamptz,
                                           OUT last_sign timestamptz)
LANGUAGE sql STABLE SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT count(*), min(backend_start), max(state_change)
    FROM pg_stat_activity
    WHERE usename = COALESCE(NULLIF(current_setting('kodu.daemon_role', TRUE), ''), 'kodu')
      AND datname = current_database() AND COALESCE(application_name, '') = ''
      AND COALESCE(backend_type, 'client backend') = 'client backend'
$$;

-- The tasks of which rows of the ledger were committed since a snapshot, and the snapshot for the next call.
-- NULL: none, only the snapshot. At most `most` tasks; is_cut: there were more. Of transactions that take
-- long, the last 100,000 are looked at, so that another one that stays open costs nothing.
CREATE OR REPLACE FUNCTION kodu_web_changes(since pg_snapshot, most integer, OUT place pg_snapshot,
                                            OUT tasks integer[], OUT is_cut boolean)
LANGUAGE plpgsql STABLE SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    utc timestamp := now() AT TIME ZONE 'UTC';
    next_one bigint := pg_snapshot_xmax(since)::text::bigint;
    first bigint := greatest(pg_snapshot_xmin(since)::text::bigint, next_one - 100000);
BEGIN
    place := pg_current_snapshot();
    is_cut := FALSE;
    IF since IS NULL OR next_one > pg_snapshot_xmax(place)::text::bigint THEN  -- another server
        RETURN;
    END IF;
    -- One bucket more, for rows at the border of two.
    SELECT array_agg(cron_id) INTO tasks
    FROM (SELECT DISTINCT cron_id FROM kodu_ledger
          WHERE xact >= first AND NOT pg_visible_in_snapshot(xact::text::xid8, since) AND outcome <> 'n'
            AND bucket IN (kodu_ledger_bucket(utc), kodu_ledger_bucket(utc - interval '1 minute'))
          LIMIT most + 1) AS changed;
    is_cut := COALESCE(cardinality(tasks) > most, FALSE);
    tasks := tasks[:most];
END
$$;

-- Audit ------------------------------------------------------------------------------------------

CREATE TABLE IF NOT EXISTS kodu_audit (
    audit_id   bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
    changed_at timestamp NOT NULL DEFAULT (clock_timestamp() AT TIME ZONE 'UTC'),
    role       text NOT NULL,
    action     text NOT NULL,
    cron_id    integer NOT NULL,  -- no foreign key: it outlives its task
    before     jsonb NOT NULL,    -- what the change could affect, as kodu_web_values returns it
    after      jsonb NOT NULL
);
CREATE INDEX IF NOT EXISTS kodu_audit_of_task ON kodu_audit (cron_id, audit_id);
COMMENT ON TABLE kodu_audit IS 'One row a change made with the console; times are UTC';

CREATE OR REPLACE FUNCTION kodu_web_values(task integer) RETURNS jsonb
LANGUAGE sql SET search_path = pg_catalog, public, pg_temp AS $$
    SELECT jsonb_build_object(
        'due', CASE WHEN cron_next_exec < kodu_pause_time() THEN cron_next_exec END,
        'wanted', CASE WHEN cron_wanted < kodu_pause_time() THEN cron_wanted END,
        'paused', kodu_paused_now(plugin), 'paused_by', paused_by, 'reason', reason,
        'until', resumes_at)
    FROM kodu_cron_plugin AS plugin
    LEFT JOIN kodu_cron_pause AS pause ON pause.cron_id = plugin.cron_id
    WHERE plugin.cron_id = task
$$;

-- Writes a row of the audit. Only the console's own sessions can, so that no row is forged.
CREATE OR REPLACE FUNCTION kodu_web_note(action text, task integer, before jsonb, after jsonb) RETURNS void
LANGUAGE plpgsql SECURITY DEFINER SET search_path = pg_catalog, public, pg_temp AS $$
BEGIN
    IF session_user <> 'kodu_web' THEN
        RAISE EXCEPTION 'only the console writes its audit' USING ERRCODE = 'insufficient_privilege';
    END IF;
    INSERT INTO kodu_audit (role, action, cron_id, before, after)
    VALUES (kodu_person(), action, task, before, after);
END
$$;

-- A change by the person whose role the session has taken, with this role's rights alone.
CREATE OR REPLACE FUNCTION kodu_web_change(action text, task integer, reason text DEFAULT NULL,
                                           until timestamptz DEFAULT NULL) RETURNS void
LANGUAGE plpgsql SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    before jsonb;
BEGIN
    PERFORM kodu_task_lock(task);
    before := kodu_web_values(task);
    CASE action
        WHEN 'pause' THEN PERFORM kodu_task_pause(task, reason, until);
        WHEN 'resume' THEN PERFORM kodu_task_resume(task);
        WHEN 'run' THEN PERFORM kodu_task_run_now(task);
    END CASE;
    PERFORM kodu_web_note(action, task, before, kodu_web_values(task));
END
$$;

-- Rights -----------------------------------------------------------------------------------------

DO $$
DECLARE
    function regprocedure;
BEGIN
    FOR function IN
        SELECT oid FROM pg_proc
        WHERE pronamespace = 'public'::regnamespace AND proname LIKE 'kodu\_web\_%'
    LOOP
        EXECUTE format('REVOKE EXECUTE ON FUNCTION %s FROM PUBLIC', function);
    END LOOP;
    -- What kodu_coming_runs calls, where sql/calendar.sql and sql/windows.sql are loaded.
    FOR function IN
        SELECT oid FROM pg_proc
        WHERE pronamespace = 'public'::regnamespace
          AND (proname LIKE 'kodu\_calendar\_%' OR proname = 'kodu_window_hold')
    LOOP
        EXECUTE format('GRANT EXECUTE ON FUNCTION %s TO kodu_viewer', function);
    END LOOP;
END
$$;

GRANT USAGE ON SCHEMA public TO kodu_web, kodu_viewer;
GRANT SELECT ON kodu_task_state, kodu_daemon_state, kodu_plugin_hour, kodu_schema_version, kodu_web_person
    TO kodu_web;
GRANT EXECUTE ON FUNCTION kodu_web_daemon, kodu_web_changes, kodu_web_problem TO kodu_web;
GRANT SELECT ON kodu_plugins, kodu_cron_plugin, kodu_cron_error, kodu_cron_repair, kodu_cron_pause,
                kodu_cron_key, kodu_daemon_state, kodu_task_state, kodu_task_status, kodu_schema_version,
                kodu_run, kodu_task_run, kodu_plugin_hour, kodu_task_day TO kodu_viewer;
GRANT EXECUTE ON FUNCTION kodu_coming_runs, kodu_slot_after, kodu_held TO kodu_viewer;
GRANT SELECT ON kodu_audit, kodu_web_person TO kodu_admin;
GRANT EXECUTE ON FUNCTION kodu_web_change, kodu_web_note, kodu_web_values, kodu_web_problem TO kodu_admin;

COMMIT;
