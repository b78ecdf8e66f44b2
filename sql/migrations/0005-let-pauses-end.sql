-- When a pause ends by itself; NULL: never.
ALTER TABLE kodu_cron_pause ADD COLUMN resumes_at timestamp;
