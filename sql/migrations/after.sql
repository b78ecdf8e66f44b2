-- Run by koductl schema upgrade after the other files of sql/, see before.sql.

DO $$
DECLARE
    statement text;
    owner name;
BEGIN
    FOR statement IN
        SELECT kept.statement FROM upgrade_keeps AS kept
        WHERE CASE kind
                  WHEN 'TABLE' THEN to_regclass(object) IS NOT NULL
                  WHEN 'COLUMN' THEN object IN (SELECT name FROM upgrade_columns)
                  WHEN 'FUNCTION' THEN to_regprocedure(object) IS NOT NULL
                  ELSE object IN (SELECT format('%s %s', tgrelid, tgname) FROM pg_trigger) END
    LOOP
        EXECUTE statement;
    END LOOP;

    -- A superuser may have run the upgrade. What is new belongs to whom the tables belong to.
    SELECT pg_get_userbyid(relowner) INTO owner FROM pg_class
    WHERE oid = 'public.kodu_cron_plugin'::regclass;
    FOR statement IN
        SELECT format('ALTER %s %s OWNER TO %I', CASE relkind WHEN 'v' THEN 'VIEW' ELSE 'TABLE' END,
                      oid::regclass, owner)
        FROM pg_class
        WHERE relnamespace = 'public'::regnamespace AND relkind IN ('r', 'p', 'v')
          AND starts_with(relname, 'kodu_') AND relowner <> owner::regrole
        UNION ALL
        SELECT format('ALTER ROUTINE %s OWNER TO %I', oid::regprocedure, owner)
        FROM pg_proc
        WHERE pronamespace = 'public'::regnamespace AND starts_with(proname, 'kodu_')
          AND proowner <> owner::regrole
    LOOP
        EXECUTE statement;
    END LOOP;
END
$$;

-- The transaction of a dry run, or one that is tried again, ends without a COMMIT.
DROP VIEW pg_temp.upgrade_views, pg_temp.upgrade_functions, pg_temp.upgrade_columns;
DROP TABLE pg_temp.upgrade_keeps;
