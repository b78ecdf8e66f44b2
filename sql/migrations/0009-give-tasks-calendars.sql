-- Rewrites nothing.
ALTER TABLE kodu_cron_plugin
    ADD COLUMN IF NOT EXISTS cron_calendar text,
    ADD COLUMN IF NOT EXISTS cron_zone text,
    ADD COLUMN IF NOT EXISTS cron_slots bigint[];
