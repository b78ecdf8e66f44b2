-- Run by koductl schema upgrade before it loads the other files of sql/ again: drops what these
-- recreate (views, functions, triggers), so that no old version remains. Changes by an administrator
-- are recorded for after.sql.
--
-- Names that begin with kodu_ are koducron's.

CREATE TEMPORARY TABLE upgrade_keeps (statement text, kind text, object text) ON COMMIT DROP;

CREATE TEMPORARY VIEW upgrade_views AS
SELECT oid, relacl, relowner FROM pg_class
WHERE relnamespace = 'public'::regnamespace AND relkind = 'v' AND starts_with(relname, 'kodu_');

CREATE TEMPORARY VIEW upgrade_columns AS
SELECT format('%s.%I', attrelid::regclass, attname) AS name, attname, attacl, view.*
FROM pg_attribute JOIN upgrade_views AS view ON attrelid = oid
WHERE attnum > 0 AND NOT attisdropped;

CREATE TEMPORARY VIEW upgrade_functions AS
SELECT oid, proacl, proowner FROM pg_proc
WHERE pronamespace = 'public'::regnamespace AND starts_with(proname, 'kodu_');

-- What others have built on ours (views, functions, triggers) would have to go, too.
DO $$
DECLARE
    theirs text;
BEGIN
    SELECT CASE WHEN rule.oid IS NULL THEN pg_describe_object(classid, objid, objsubid)
                ELSE 'view ' || ev_class::regclass END INTO theirs
    FROM pg_depend
    LEFT JOIN pg_rewrite AS rule ON classid = 'pg_rewrite'::regclass AND objid = rule.oid
    LEFT JOIN pg_trigger AS trigger ON classid = 'pg_trigger'::regclass AND objid = trigger.oid
    WHERE refobjid IN (SELECT oid FROM upgrade_views UNION ALL SELECT oid FROM upgrade_functions
                       UNION ALL SELECT reltype FROM pg_class WHERE oid IN (SELECT oid FROM upgrade_views))
      AND deptype = 'n'
      AND COALESCE(ev_class, objid) NOT IN (SELECT oid FROM upgrade_views
                                            UNION ALL SELECT oid FROM upgrade_functions)
      AND NOT COALESCE(starts_with(tgname, 'kodu_'), FALSE)
    LIMIT 1;
    IF FOUND THEN
        RAISE EXCEPTION 'the % uses what the upgrade recreates', theirs USING
            HINT = 'Drop it, upgrade, and create it again.';
    END IF;
END
$$;

-- Rights that somebody granted, except those of the roles that these files know.
INSERT INTO upgrade_keeps
SELECT format('GRANT %s ON %s %s TO %s%s', privilege_type || columns,
              CASE kind WHEN 'COLUMN' THEN 'TABLE' WHEN 'FUNCTION' THEN 'ROUTINE' ELSE kind END, relation,
              CASE grantee WHEN 0 THEN 'PUBLIC' ELSE quote_ident(pg_get_userbyid(grantee)) END,
              CASE WHEN is_grantable THEN ' WITH GRANT OPTION' END), kind, object
FROM (SELECT 'TABLE' AS kind, oid::regclass::text AS object, oid::regclass::text AS relation,
             '' AS columns, relowner AS owner, acl.*
      FROM upgrade_views, aclexplode(relacl) AS acl
      UNION ALL
      SELECT 'COLUMN', name, oid::regclass::text, format(' (%I)', attname), relowner, acl.*
      FROM upgrade_columns, aclexplode(attacl) AS acl
      UNION ALL
      SELECT 'FUNCTION', oid::regprocedure::text, oid::regprocedure::text, '', proowner, acl.*
      FROM upgrade_functions, aclexplode(proacl) AS acl) AS granted
WHERE grantee NOT IN (0, owner) AND pg_get_userbyid(grantee) NOT IN ('kodu', 'kodu_admin', 'kodu_reader', 'kodu_monitor', 'kodu_hosts');

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
    SELECT 'DROP ROUTINE ' || string_agg(oid::regprocedure::text, ', ') INTO statement
    FROM upgrade_functions;
    IF statement IS NOT NULL THEN
        EXECUTE statement;
    END IF;
END
$$;
