-- Run by koductl schema upgrade before it loads schema.sql and functions.sql: drops what these two
-- recreate (views, functions, triggers), so that no old version remains. Changes by an administrator
-- are recorded for after.sql.
--
-- Names that begin with kodu_ are koducron's.

CREATE TEMPORARY TABLE upgrade_keeps (statement text, kind text, object text) ON COMMIT DROP;

CREATE TEMPORARY VIEW upgrade_views AS
SELECT oid, relacl, relowner FROM pg_class
WHERE relnamespace = 'public'::regnamespace AND relkind = 'v' AND starts_with(relname, 'kodu_');

CREATE TEMPORARY VIEW upgrade_functions AS
SELECT oid, proacl, proowner FROM pg_proc
WHERE pronamespace = 'public'::regnamespace AND starts_with(proname, 'kodu_');

-- A view that others have built on ours would have to go, too.
DO $$
DECLARE
    foreign_view regclass;
BEGIN
    SELECT ev_class INTO foreign_view
    FROM pg_depend JOIN pg_rewrite AS rule ON classid = 'pg_rewrite'::regclass AND objid = rule.oid
    WHERE refobjid IN (SELECT oid FROM upgrade_views UNION ALL SELECT oid FROM upgrade_functions)
      AND ev_class NOT IN (SELECT oid FROM upgrade_views)
    LIMIT 1;
    IF FOUND THEN
        RAISE EXCEPTION 'the view % depends on what the upgrade recreates', foreign_view USING
            HINT = 'Drop it, upgrade, and create it again.';
    END IF;
END
$$;

-- Rights that somebody granted, but for those of the roles that the two files know.
INSERT INTO upgrade_keeps
SELECT format('GRANT %s ON %s %s TO %s%s', privilege_type, kind, object,
              CASE grantee WHEN 0 THEN 'PUBLIC' ELSE quote_ident(pg_get_userbyid(grantee)) END,
              CASE WHEN is_grantable THEN ' WITH GRANT OPTION' END), kind, object
FROM (SELECT 'TABLE' AS kind, oid::regclass::text AS object, relowner AS owner, acl.*
      FROM upgrade_views, aclexplode(relacl) AS acl
      UNION ALL
      SELECT 'FUNCTION', oid::regprocedure::text, proowner, acl.*
      FROM upgrade_functions, aclexplode(proacl) AS acl) AS granted
WHERE grantee NOT IN (0, owner) AND pg_get_userbyid(grantee) NOT IN ('kodu', 'kodu_admin');

-- A platform that notifies the daemon by itself has switched our triggers off.
INSERT INTO upgrade_keeps
SELECT format('ALTER TABLE %s %s TRIGGER %I', tgrelid::regclass,
              CASE tgenabled WHEN 'D' THEN 'DISABLE' WHEN 'A' THEN 'ENABLE ALWAYS'
                             ELSE 'ENABLE REPLICA' END, tgname),
       'TRIGGER', format('%s %s', tgrelid, tgname)
FROM pg_trigger
WHERE NOT tgisinternal AND tgenabled <> 'O' AND tgfoid IN (SELECT oid FROM upgrade_functions);

DO $$
DECLARE
    triggers text[] := ARRAY(
        SELECT format('DROP TRIGGER %I ON %s', tgname, tgrelid::regclass) FROM pg_trigger
        WHERE NOT tgisinternal AND tgfoid IN (SELECT oid FROM upgrade_functions));
    -- Views and functions use each other, so one has to take the other with it.
    views text[] := ARRAY(
        SELECT format('DROP VIEW IF EXISTS %s CASCADE', oid::regclass) FROM upgrade_views);
    statement text;
BEGIN
    FOREACH statement IN ARRAY triggers || views LOOP
        EXECUTE statement;
    END LOOP;
    SELECT 'DROP FUNCTION ' || string_agg(oid::regprocedure::text, ', ') INTO statement
    FROM upgrade_functions;
    IF statement IS NOT NULL THEN
        EXECUTE statement;
    END IF;
END
$$;
