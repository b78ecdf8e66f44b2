-- Rewrites nothing.
ALTER TABLE kodu_cron_plugin
    ADD COLUMN IF NOT EXISTS cron_windows integer[],
    ADD COLUMN IF NOT EXISTS cron_held timestamp;
