-- Calendars: the next time of "at 03:00 in Paris on weekdays" and the like. docs/calendars.md describes
-- the texts and shows examples.
--
-- Load it as the owner of the database's other objects; loading it again changes nothing. It needs no
-- table and no other file. Only the roles kodu and kodu_admin may use it, where they exist.
--
-- kodu_calendar_parse turns a text into an array, with six numbers for each expression of the text:
--     1  minutes   bits 0 to 59
--     2  hours     bits 0 to 23
--     3  days      bits 1 to 31; bit 0 is the last day of the month
--     4  months    bits 1 to 12
--     5  weekdays  bits 0 (Sunday) to 6 for each one, 7 n to 7 n + 6 for the nth of the month,
--                  42 to 48 for the last of the month
--     6  rules     1: times of the wall clock; 2: a matching day or a matching weekday is enough
--
-- A `timestamp` is what the zone's clock shows, or a clock in UTC where its name ends in _utc. A day
-- added to it is 24 hours in every session, which is not so with a `timestamptz`.
--
-- Callers use kodu_calendar_parse, kodu_calendar_count and the last three functions, which set the
-- search_path for the others.

BEGIN;
SET LOCAL client_min_messages = warning;  -- nothing about what exists already
SET LOCAL search_path = public;

-- Parsing ----------------------------------------------------------------------------------------

-- Positions are counted in characters of the whole text, from 1.
CREATE OR REPLACE FUNCTION kodu_calendar_refuse(place integer, problem text, hint text)
RETURNS void LANGUAGE plpgsql PARALLEL SAFE AS $$
BEGIN
    RAISE EXCEPTION 'the calendar is invalid at character %: %', place, problem USING
        ERRCODE = 'invalid_parameter_value', HINT = hint;
END
$$;

-- A part of a text for a message: without control sequences, and not all of it when it is long.
CREATE OR REPLACE FUNCTION kodu_calendar_quoted(part text) RETURNS text
LANGUAGE sql IMMUTABLE PARALLEL SAFE
RETURN '"' || regexp_replace(left(part, 20), '[^ -~]', '?', 'g')
       || CASE WHEN length(part) > 20 THEN '..."' ELSE '"' END;

CREATE OR REPLACE FUNCTION kodu_calendar_allowed(field integer) RETURNS text
LANGUAGE sql IMMUTABLE PARALLEL SAFE
RETURN (ARRAY[
    'A minute is a number from 0 to 59.',
    'An hour is a number from 0 to 23.',
    'A day of the month is a number from 1 to 31, or L for the last day.',
    'A month is a number from 1 to 12 or a name from jan to dec.',
    'A weekday is a number from 0 to 7 (0 and 7 are Sunday) or a name from sun to sat;'
    ' 5L is the last Friday of the month, fri#2 the second one.'])[field];

-- The value of a number or a name in a field, 1 to 5, at `place` of the text.
CREATE OR REPLACE FUNCTION kodu_calendar_value(word text, field integer, place integer)
RETURNS integer LANGUAGE plpgsql IMMUTABLE PARALLEL SAFE AS $$
DECLARE
    value integer := CASE
        WHEN word ~ '^[0-9]{1,4}$' THEN word::integer
        WHEN field = 4 THEN
            array_position('{jan,feb,mar,apr,may,jun,jul,aug,sep,oct,nov,dec}'::text[], word)
        WHEN field = 5 THEN array_position('{sun,mon,tue,wed,thu,fri,sat}'::text[], word) - 1
    END;
BEGIN
    IF value BETWEEN ('{0,0,1,1,0}'::integer[])[field] AND ('{59,23,31,12,7}'::integer[])[field] THEN
        RETURN value;
    END IF;
    PERFORM kodu_calendar_refuse(
        place,
        kodu_calendar_quoted(word) || ' is not '
        || ('{a minute,an hour,a day of the month,a month,a weekday}'::text[])[field],
        kodu_calendar_allowed(field));
END
$$;

-- Refuses an item that does not have the form of one, at the first character that cannot be there.
CREATE OR REPLACE FUNCTION kodu_calendar_refuse_item(item text, field integer, place integer)
RETURNS void LANGUAGE plpgsql PARALLEL SAFE AS $$
DECLARE
    beginning text := substring(item, CASE
        WHEN field = 5 AND item ~ '^[0-9a-z]+#' THEN '^(?:[0-9]+|[a-z]+)(?:#[0-9]*)?'
        ELSE '^(?:(?:[*]|(?:[0-9]+|[a-z]+)(?:-(?:[0-9]+|[a-z]+)?)?)(?:/[0-9]*)?)?' END);
    unexpected text := substr(item, length(beginning) + 1, 1);
BEGIN
    PERFORM kodu_calendar_refuse(
        place + length(beginning),
        CASE WHEN unexpected = '' THEN 'a value is missing'
             WHEN unexpected ~ '[!-~]' THEN format('unexpected "%s"', unexpected)
             ELSE 'unexpected character U+' || lpad(upper(to_hex(ascii(unexpected))), 4, '0') END,
        kodu_calendar_allowed(field));
END
$$;

-- fri#2 or 5L: the nth or the last such day of the month.
CREATE OR REPLACE FUNCTION kodu_calendar_nth_weekday(item text, place integer) RETURNS bigint
LANGUAGE plpgsql IMMUTABLE PARALLEL SAFE AS $$
DECLARE
    parts text[] := regexp_match(item, '^([0-9]+|[a-z]{3})(?:l|#([0-9]+))$');
BEGIN
    IF parts IS NULL THEN
        PERFORM kodu_calendar_refuse_item(item, 5, place);
    ELSIF parts[2] !~ '^[1-5]$' THEN
        PERFORM kodu_calendar_refuse(
            place + length(parts[1]) + 1,
            kodu_calendar_quoted(parts[2]) || ' is not a number from 1 to 5',
            'A month has each weekday four or five times: fri#1 to fri#5.');
    END IF;
    RETURN 1::bigint << kodu_calendar_value(parts[1], 5, place) % 7
                        + 7 * COALESCE(parts[2], '6')::integer;
END
$$;

-- A range or *, with or without a step, or a single value.
CREATE OR REPLACE FUNCTION kodu_calendar_range(item text, field integer, place integer)
RETURNS bigint LANGUAGE plpgsql IMMUTABLE PARALLEL SAFE AS $$
DECLARE
    lowest integer := ('{0,0,1,1,0}'::integer[])[field];
    highest integer := ('{59,23,31,12,7}'::integer[])[field];
    parts text[];
    step integer := 1;
    bits bigint := 0;
BEGIN
    IF item <> '*' THEN  -- the expression takes its time
        parts := regexp_match(item, '^(?:[*]|([0-9]+|[a-z]+)(?:-([0-9]+|[a-z]+))?)(?:/([0-9]+))?$');
        IF parts IS NULL THEN
            PERFORM kodu_calendar_refuse_item(item, field, place);
        END IF;
        IF parts[1] IS NOT NULL THEN
            lowest := kodu_calendar_value(parts[1], field, place);
        END IF;
        IF parts[2] IS NOT NULL THEN
            highest := kodu_calendar_value(parts[2], field, place + length(parts[1]) + 1);
        ELSIF parts[1] IS NOT NULL AND parts[3] IS NULL THEN
            highest := lowest;
        END IF;
        IF parts[2] = 'sun' AND lowest > 0 THEN
            highest := 7;
        ELSIF highest < lowest THEN
            PERFORM kodu_calendar_refuse(place, kodu_calendar_quoted(item) || ' ends before it begins',
                                         'Write two ranges, for example 22-23,0-5.');
        END IF;
        IF parts[3] IS NOT NULL THEN
            step := kodu_calendar_step(parts[3], field, place + length(item) - length(parts[3]));
        END IF;
    END IF;
    IF step = 1 THEN
        RETURN (2::bigint << highest) - (1::bigint << lowest);
    END IF;
    FOR value IN lowest..highest BY step LOOP
        bits := bits | (1::bigint << value);
    END LOOP;
    RETURN bits;
END
$$;

-- A step that is longer than the field would not do what it says: */90 would be each hour.
CREATE OR REPLACE FUNCTION kodu_calendar_step(word text, field integer, place integer)
RETURNS integer LANGUAGE plpgsql IMMUTABLE PARALLEL SAFE AS $$
DECLARE
    most integer := ('{60,24,31,12,7}'::integer[])[field];
BEGIN
    IF word ~ '^[0-9]{1,4}$' AND word::integer BETWEEN 1 AND most THEN
        RETURN word;
    END IF;
    PERFORM kodu_calendar_refuse(
        place, kodu_calendar_quoted(word) || ' is not a step of this field',
        format('A step here is a number from 1 to %s. Every %s begins with the first value again.',
               most, ('{hour,day,month,year,week}'::text[])[field]));
END
$$;

-- The bits of a field, 1 to 5, as the head of this file describes them.
CREATE OR REPLACE FUNCTION kodu_calendar_field(list text, field integer, place integer)
RETURNS bigint LANGUAGE plpgsql IMMUTABLE PARALLEL SAFE AS $$
DECLARE
    item text;
    bits bigint := 0;
    range bigint;
BEGIN
    FOREACH item IN ARRAY string_to_array(list, ',') LOOP
        IF field = 3 AND item = 'l' THEN
            bits := bits | 1;
        ELSIF field = 5 AND item ~ '.l$|#' THEN
            bits := bits | kodu_calendar_nth_weekday(item, place);
        ELSE
            range := kodu_calendar_range(item, field, place);
            bits := bits | CASE field WHEN 5 THEN (range & 127) | (range >> 7) ELSE range END;
        END IF;
        place := place + length(item) + 1;
    END LOOP;
    RETURN bits;
END
$$;

-- The fields that @daily and the like stand for.
CREATE OR REPLACE FUNCTION kodu_calendar_shorthand(word text, place integer) RETURNS text
LANGUAGE plpgsql IMMUTABLE PARALLEL SAFE AS $$
DECLARE
    fields text := CASE word
        WHEN '@hourly' THEN '0 * * * *'
        WHEN '@daily' THEN '0 0 * * *'
        WHEN '@midnight' THEN '0 0 * * *'
        WHEN '@weekly' THEN '0 0 * * 0'
        WHEN '@monthly' THEN '0 0 1 * *'
        WHEN '@yearly' THEN '0 0 1 1 *'
        WHEN '@annually' THEN '0 0 1 1 *'
    END;
BEGIN
    IF word = '@reboot' THEN
        PERFORM kodu_calendar_refuse(
            place, '@reboot is not a time',
            'A calendar says when a task is due, which the start of a machine does not.');
    ELSIF fields IS NULL THEN
        PERFORM kodu_calendar_refuse(
            place, kodu_calendar_quoted(word) || ' is unknown',
            'Use @hourly, @daily, @midnight, @weekly, @monthly, @yearly or @annually.');
    END IF;
    RETURN fields;
END
$$;

-- The six numbers of an expression of five fields, which begins at `start` of the text.
CREATE OR REPLACE FUNCTION kodu_calendar_expression(expression text, start integer)
RETURNS bigint[] LANGUAGE plpgsql IMMUTABLE PARALLEL SAFE AS $$
DECLARE
    word text;
    place integer := start;
    fields text[] := '{}';
    numbers bigint[] := '{}';
BEGIN
    FOREACH word IN ARRAY string_to_array(expression, ' ') LOOP
        IF word <> '' THEN
            IF cardinality(fields) = 5 THEN
                PERFORM kodu_calendar_refuse(
                    place, 'there are more than five fields',
                    'The fields are minute, hour, day of the month, month and weekday. A ";" joins two'
                    ' expressions.');
            END IF;
            fields := fields || word;
            numbers := numbers || kodu_calendar_field(word, cardinality(fields), place);
        END IF;
        place := place + length(word) + 1;
    END LOOP;
    IF cardinality(fields) < 5 THEN
        PERFORM kodu_calendar_refuse(
            start + length(expression),
            CASE WHEN fields = '{}' THEN 'an expression is missing'
                 ELSE format('there are only %s of five fields', cardinality(fields)) END,
            'Write minute, hour, day of the month, month and weekday, for example 0 3 * * mon-fri.');
    END IF;
    RETURN numbers
           || (CASE WHEN '*' IN (left(fields[1], 1), left(fields[2], 1)) THEN 0 ELSE 1 END
               + CASE WHEN '*' IN (left(fields[3], 1), left(fields[5], 1)) THEN 0 ELSE 2 END)::bigint;
END
$$;

-- The numbers of all expressions of a text, to be stored beside it.
CREATE OR REPLACE FUNCTION kodu_calendar_parse(expression text) RETURNS bigint[]
LANGUAGE plpgsql IMMUTABLE STRICT PARALLEL SAFE SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    -- In some collations the lower case of I, as in FRI, is another letter than i.
    plain text COLLATE "C" := translate(left(expression, 1001), E'\t', ' ');
    part text COLLATE "C";
    place integer := 1;
    calendar bigint[] := '{}';
BEGIN
    IF length(plain) > 1000 THEN
        PERFORM kodu_calendar_refuse(1001, 'the text is too long',
                                     'A calendar has at most 1000 characters.');
    END IF;
    IF plain = '' THEN
        RETURN kodu_calendar_expression('', 1);  -- refuses it; its array of parts would be empty
    END IF;
    FOREACH part IN ARRAY string_to_array(lower(plain), ';') LOOP
        IF ltrim(part) LIKE '@%' THEN
            calendar := calendar || kodu_calendar_expression(
                kodu_calendar_shorthand(btrim(part), place + length(part) - length(ltrim(part))), place);
        ELSE
            calendar := calendar || kodu_calendar_expression(part, place);
        END IF;
        place := place + length(part) + 1;
    END LOOP;
    RETURN calendar;
END
$$;

-- Times of the zone's clock ----------------------------------------------------------------------

CREATE OR REPLACE FUNCTION kodu_calendar_lowest_bit(bits bigint) RETURNS integer
LANGUAGE sql IMMUTABLE PARALLEL SAFE
RETURN bit_count(((bits & -bits) - 1)::bit(64))::integer;

-- The days of a month that an expression allows, bits 1 to 31.
CREATE OR REPLACE FUNCTION kodu_calendar_days(days bigint, weekdays bigint, rules bigint, month date)
RETURNS bigint LANGUAGE plpgsql IMMUTABLE PARALLEL SAFE AS $$
DECLARE
    length integer := (month + interval '1 month')::date - month;
    first_weekday integer := date_part('dow', month);
    -- The product of this number and the seven bits of a week are the bits of six weeks.
    weeks CONSTANT bigint := 34630287489;
    by_day bigint := ((days >> 1) << 1) | ((days & 1) << length);
    by_weekday bigint := ((weekdays & 127) * weeks >> first_weekday) << 1;
    by_nth bigint;
BEGIN
    IF weekdays > 127 THEN
        FOR nth IN 1..6 LOOP
            by_nth := (((weekdays >> 7 * nth) & 127) * weeks >> first_weekday) << 1;
            by_weekday := by_weekday
                | (by_nth & (127::bigint << CASE nth WHEN 6 THEN length - 6 ELSE 7 * nth - 6 END));
        END LOOP;
    END IF;
    RETURN CASE WHEN rules & 2 = 0 THEN by_day & by_weekday ELSE by_day | by_weekday END
           & ((2::bigint << length) - 2);
END
$$;

-- The first day from `first` on that the expression behind `place` allows; NULL if the months up to
-- `until` have none.
CREATE OR REPLACE FUNCTION kodu_calendar_day(calendar bigint[], place integer, first date,
                                             until timestamp)
RETURNS date LANGUAGE plpgsql IMMUTABLE PARALLEL SAFE AS $$
DECLARE
    month date := first - (date_part('day', first)::integer - 1);
    wanted bigint := -1::bigint << date_part('day', first)::integer;
    days bigint;
BEGIN
    WHILE month <= until LOOP
        IF (calendar[place + 4] >> date_part('month', month)::integer) & 1 = 1 THEN
            days := wanted & kodu_calendar_days(calendar[place + 3], calendar[place + 5],
                                                calendar[place + 6], month);
            IF days <> 0 THEN
                RETURN month + (kodu_calendar_lowest_bit(days) - 1);
            END IF;
        END IF;
        month := month + interval '1 month';
        wanted := -1;
    END LOOP;
    RETURN NULL;
END
$$;

-- The first whole minute from `start` on that the expression behind `place` allows, on the zone's clock;
-- NULL if the months up to `until` have none.
CREATE OR REPLACE FUNCTION kodu_calendar_reading(calendar bigint[], place integer, start timestamp,
                                                 until timestamp)
RETURNS timestamp LANGUAGE plpgsql IMMUTABLE PARALLEL SAFE AS $$
DECLARE
    minutes bigint := calendar[place + 1];
    hours bigint := calendar[place + 2];
    whole timestamp := date_trunc('minute', start + interval '59.999999 seconds');
    hour integer := date_part('hour', whole);
    minute integer := date_part('minute', whole);
    today date := whole;
    day date;
    later_today integer;  -- minutes since midnight; NULL: none
BEGIN
    IF (hours >> hour) & 1 = 1 AND minutes >> minute > 0 THEN
        later_today := 60 * hour + minute + kodu_calendar_lowest_bit(minutes >> minute);
    ELSIF hours >> hour + 1 > 0 THEN
        later_today := 60 * (hour + 1 + kodu_calendar_lowest_bit(hours >> hour + 1))
                       + kodu_calendar_lowest_bit(minutes);
    END IF;
    day := kodu_calendar_day(calendar, place,
                             today + CASE WHEN later_today IS NULL THEN 1 ELSE 0 END, until);
    RETURN day + make_interval(mins => CASE
        WHEN day = today THEN later_today
        ELSE 60 * kodu_calendar_lowest_bit(hours) + kodu_calendar_lowest_bit(minutes) END);
END
$$;

-- Times of zones ---------------------------------------------------------------------------------

-- What the zone's clock shows at a moment.
CREATE OR REPLACE FUNCTION kodu_calendar_local(zone text, at_utc timestamp) RETURNS timestamp
LANGUAGE sql STABLE PARALLEL SAFE
RETURN timezone(zone, timezone('UTC', at_utc));

-- The second from which on the zone's clock is no longer in step with what it showed at `start_utc`, a
-- whole second. The clock must have changed once in the `seconds` after it: no zone has ever changed its
-- clock twice within three days.
CREATE OR REPLACE FUNCTION kodu_calendar_change(zone text, start_utc timestamp, seconds integer)
RETURNS timestamp LANGUAGE plpgsql STABLE PARALLEL SAFE AS $$
DECLARE
    shift interval := kodu_calendar_local(zone, start_utc) - start_utc;
    before integer := 0;
    behind integer := seconds;
    middle timestamp;
BEGIN
    WHILE behind - before > 1 LOOP
        middle := start_utc + (before + behind) / 2 * interval '1 second';
        IF kodu_calendar_local(zone, middle) - middle = shift THEN
            before := (before + behind) / 2;
        ELSE
            behind := (before + behind) / 2;
        END IF;
    END LOOP;
    RETURN start_utc + behind * interval '1 second';
END
$$;

-- The moment at which the zone's clock first shows `reading` or, if it skips it, more.
CREATE OR REPLACE FUNCTION kodu_calendar_first_showing(zone text, reading timestamp)
RETURNS timestamp LANGUAGE plpgsql STABLE PARALLEL SAFE AS $$
DECLARE
    -- No clock differs from UTC by a day, so the moment is between these two.
    start_utc timestamp := reading - interval '1 day';
    end_utc timestamp := reading + interval '1 day';
    local_start timestamp := kodu_calendar_local(zone, start_utc);
    local_end timestamp := kodu_calendar_local(zone, end_utc);
    change_utc timestamp;
BEGIN
    IF local_end - local_start <> interval '2 days' THEN
        change_utc := kodu_calendar_change(zone, start_utc, 2 * 86400);
        IF start_utc + (reading - local_start) >= change_utc THEN
            RETURN greatest(change_utc, end_utc - (local_end - reading));
        END IF;
    END IF;
    RETURN start_utc + (reading - local_start);
END
$$;

-- The next moment of an expression whose times are those of the wall clock.
CREATE OR REPLACE FUNCTION kodu_calendar_next_by_clock(calendar bigint[], place integer, zone text,
                                                       after_utc timestamp, until_utc timestamp)
RETURNS timestamp LANGUAGE plpgsql STABLE PARALLEL SAFE AS $$
DECLARE
    shown timestamp := kodu_calendar_local(zone, after_utc);
    day_before timestamp := after_utc - interval '1 day';
    change_utc timestamp;
    reading timestamp;
BEGIN
    IF shown - kodu_calendar_local(zone, day_before) <> interval '1 day' THEN
        -- What the clock showed before it was set back has had its turn.
        change_utc := kodu_calendar_change(zone, date_trunc('second', day_before), 86401);
        shown := greatest(shown, kodu_calendar_local(zone, change_utc - interval '1 second'));
    END IF;
    reading := kodu_calendar_reading(calendar, place, shown + interval '1 microsecond',
                                     until_utc + interval '1 day');
    RETURN kodu_calendar_first_showing(zone, reading);
END
$$;

-- The next moment of an expression that means each real minute with such a reading.
CREATE OR REPLACE FUNCTION kodu_calendar_next_by_minute(calendar bigint[], place integer, zone text,
                                                        after_utc timestamp, until_utc timestamp)
RETURNS timestamp LANGUAGE plpgsql STABLE PARALLEL SAFE AS $$
DECLARE
    at_utc timestamp := after_utc + interval '1 microsecond';
    shown timestamp;
    reading timestamp;
    change_utc timestamp;
BEGIN
    WHILE at_utc <= until_utc LOOP
        shown := kodu_calendar_local(zone, at_utc);
        reading := kodu_calendar_reading(calendar, place, shown, until_utc + interval '1 day');
        IF kodu_calendar_local(zone, at_utc + interval '1 day') - shown <> interval '1 day' THEN
            change_utc := kodu_calendar_change(zone, date_trunc('second', at_utc), 86401);
            IF at_utc + (reading - shown) < change_utc THEN
                RETURN at_utc + (reading - shown);
            END IF;
            at_utc := change_utc;
        ELSIF reading <= shown + interval '1 day' THEN
            RETURN at_utc + (reading - shown);
        ELSIF reading IS NULL THEN
            RETURN NULL;
        ELSE
            -- No reading on the way matches. Two days before the time by the present shift, no change of
            -- the clock can have brought it nearer than a day.
            at_utc := at_utc + greatest(interval '1 day', reading - shown - interval '2 days');
        END IF;
    END LOOP;
    RETURN NULL;
END
$$;

-- Counting ---------------------------------------------------------------------------------------

-- How many minutes from `start` on and before `stop`, counted from midnight, one of the expressions behind
-- `places` allows on a day that they allow.
CREATE OR REPLACE FUNCTION kodu_calendar_count_minutes(calendar bigint[], places integer[],
                                                       start integer, stop integer)
RETURNS integer LANGUAGE plpgsql IMMUTABLE PARALLEL SAFE AS $$
DECLARE
    hours bigint := 0;
    minutes bigint;
    hour integer;
    place integer;
    found integer := 0;
BEGIN
    FOREACH place IN ARRAY places LOOP
        hours := hours | calendar[place + 2];
    END LOOP;
    hours := hours & ((1::bigint << (stop + 59) / 60) - (1::bigint << start / 60));
    WHILE hours <> 0 LOOP
        hour := kodu_calendar_lowest_bit(hours);
        hours := hours & (hours - 1);
        minutes := 0;
        FOREACH place IN ARRAY places LOOP
            IF (calendar[place + 2] >> hour) & 1 = 1 THEN
                minutes := minutes | calendar[place + 1];
            END IF;
        END LOOP;
        IF start > 60 * hour OR stop < 60 * hour + 60 THEN
            minutes := minutes & ((1::bigint << least(stop - 60 * hour, 60))
                                  - (1::bigint << greatest(start - 60 * hour, 0)));
        END IF;
        found := found + bit_count(minutes::bit(64));
    END LOOP;
    RETURN found;
END
$$;

-- How many readings of the zone's clock from `start` on and before `stop` the calendar allows: only its
-- expressions whose rules, bit 1, are among `rules`: 0 and 1, or one of them.
CREATE OR REPLACE FUNCTION kodu_calendar_count_readings(calendar bigint[], rules integer[],
                                                        start timestamp, stop timestamp)
RETURNS bigint LANGUAGE plpgsql IMMUTABLE PARALLEL SAFE AS $$
DECLARE
    first timestamp := date_trunc('minute', start + interval '59.999999 seconds');
    -- The first minute that no longer counts.
    behind timestamp := date_trunc('minute', stop + interval '59.999999 seconds');
    day date := first;
    month date;
    days bigint[];  -- of each expression, in this month
    places integer[];
    place integer;
    whole_places integer[];  -- of the last whole day
    whole_day integer;
    found bigint := 0;
BEGIN
    WHILE day < behind LOOP
        IF month IS NULL OR date_part('day', day) = 1 THEN
            month := day - (date_part('day', day)::integer - 1);
            FOR n IN 0 .. cardinality(calendar) / 6 - 1 LOOP
                days[n] := CASE
                    WHEN calendar[6 * n + 6] & 1 = ANY (rules)
                         AND (calendar[6 * n + 4] >> date_part('month', day)::integer) & 1 = 1
                    THEN kodu_calendar_days(calendar[6 * n + 3], calendar[6 * n + 5],
                                            calendar[6 * n + 6], month)
                    ELSE 0 END;
            END LOOP;
        END IF;
        places := '{}';
        FOR n IN 0 .. cardinality(calendar) / 6 - 1 LOOP
            IF (days[n] >> date_part('day', day)::integer) & 1 = 1 THEN
                places := places || 6 * n;
            END IF;
        END LOOP;
        IF places <> '{}' THEN
            IF first > day OR behind < day + 1 THEN
                found := found + kodu_calendar_count_minutes(
                    calendar, places,
                    greatest(date_part('epoch', first - day)::integer / 60, 0),
                    least(date_part('epoch', behind - day)::integer / 60, 1440));
            ELSE
                IF whole_places IS DISTINCT FROM places THEN
                    whole_places := places;
                    whole_day := kodu_calendar_count_minutes(calendar, places, 0, 1440);
                END IF;
                found := found + whole_day;
            END IF;
        END IF;
        day := day + 1;
    END LOOP;
    RETURN found;
END
$$;

-- How many times a calendar that kodu_calendar_parse has returned has from `first` on and before `until`:
-- the same as a walk with kodu_calendar_next_parsed, but by months, days and hours.
CREATE OR REPLACE FUNCTION kodu_calendar_count(calendar bigint[], zone text, first timestamptz,
                                               until timestamptz)
RETURNS bigint
LANGUAGE plpgsql STABLE STRICT PARALLEL SAFE SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    at_utc timestamp := timezone('UTC', first);
    until_utc timestamp := timezone('UTC', until);
    end_utc timestamp;
    shown timestamp := kodu_calendar_local(zone, at_utc);
    shown_end timestamp;
    change_utc timestamp;
    fresh timestamp := shown;  -- from here on the clock has shown nothing yet
    found bigint := 0;
BEGIN
    IF shown - kodu_calendar_local(zone, at_utc - interval '1 day') <> interval '1 day' THEN
        change_utc := kodu_calendar_change(zone, date_trunc('second', at_utc - interval '1 day'), 86401);
        fresh := kodu_calendar_local(zone, change_utc - interval '1 second') + interval '1 second';
        IF fresh < shown AND change_utc <> at_utc THEN  -- set forward, and before
            fresh := shown;
        END IF;
    END IF;
    -- From one change of the clock to the next. No zone has two within three days.
    WHILE at_utc < until_utc LOOP
        end_utc := least(until_utc, at_utc + interval '2 days');
        shown := kodu_calendar_local(zone, at_utc);
        shown_end := shown + (end_utc - at_utc);
        IF kodu_calendar_local(zone, end_utc) <> shown_end THEN
            change_utc := kodu_calendar_change(zone, date_trunc('second', at_utc), 2 * 86400 + 1);
            end_utc := least(change_utc, until_utc);
            shown_end := shown + (end_utc - at_utc);
        END IF;
        IF shown > fresh THEN
            -- All that was skipped is one time, unless the calendar has the first minute anyway.
            IF kodu_calendar_count_readings(calendar, '{1}', fresh, shown) > 0
               AND (shown > date_trunc('minute', shown)
                    OR kodu_calendar_count_readings(calendar, '{0,1}', shown,
                                                    shown + interval '1 minute') = 0) THEN
                found := found + 1;
            END IF;
        ELSIF shown < fresh THEN
            found := found + kodu_calendar_count_readings(calendar, '{0}', shown,
                                                          least(fresh, shown_end));
            shown := fresh;
        END IF;
        IF shown < shown_end THEN
            found := found + kodu_calendar_count_readings(calendar, '{0,1}', shown, shown_end);
        END IF;
        fresh := greatest(fresh, shown_end);
        at_utc := end_utc;
    END LOOP;
    RETURN found;
END
$$;

-- The functions for callers ----------------------------------------------------------------------

-- The same as kodu_calendar_next for a calendar that kodu_calendar_parse has returned.
CREATE OR REPLACE FUNCTION kodu_calendar_next_parsed(calendar bigint[], zone text, after timestamptz)
RETURNS timestamptz
LANGUAGE plpgsql STABLE STRICT PARALLEL SAFE SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    after_utc timestamp := timezone('UTC', after);
    until_utc timestamp;
    moment_utc timestamp;
    next_utc timestamp;
BEGIN
    IF after_utc NOT BETWEEN '0001-01-01' AND '9999-12-31' THEN
        RETURN NULL;
    END IF;
    until_utc := after_utc + interval '8 years';
    FOR place IN 0 .. cardinality(calendar) - 1 BY 6 LOOP
        IF calendar[place + 6] & 1 = 1 THEN
            moment_utc := kodu_calendar_next_by_clock(calendar, place, zone, after_utc, until_utc);
        ELSE
            moment_utc := kodu_calendar_next_by_minute(calendar, place, zone, after_utc, until_utc);
        END IF;
        IF moment_utc <= until_utc THEN
            next_utc := moment_utc;
            until_utc := moment_utc;  -- only an earlier one counts from here on
        END IF;
    END LOOP;
    RETURN timezone('UTC', next_utc);
END
$$;

-- Returns `zone` if it is the name of a time zone. The server takes more as a zone: CET, which is the
-- same in summer, and Europe/Paris3, which is three hours west of Greenwich.
CREATE OR REPLACE FUNCTION kodu_calendar_zone(zone text) RETURNS text
LANGUAGE plpgsql STABLE STRICT PARALLEL SAFE SET search_path = pg_catalog, public, pg_temp AS $$
DECLARE
    plain text COLLATE "C" := lower(left(zone, 65) COLLATE "C");
    with_digits CONSTANT text := '^(posix/)?((etc/)?gmt[+-]?0|etc[/]gmt([+-]([1-9]|1[0-2])|-1[34])'
                                 '|(est5e|cst6c|mst7m|pst8p)dt)$';
BEGIN
    IF plain ~ '^[a-z_+-]+/[a-z_/+-]{1,60}$' AND plain NOT LIKE 'right/%'  -- these count leap seconds
       OR plain IN ('utc', 'gmt', 'uct', 'zulu')
       OR plain ~ with_digits
       OR plain ~ '^[a-z-]{1,64}$'
          AND NOT EXISTS (SELECT FROM pg_timezone_abbrevs WHERE abbrev = upper(plain)) THEN
        BEGIN
            PERFORM timezone(zone, timestamp 'epoch');
            RETURN zone;
        EXCEPTION WHEN invalid_parameter_value THEN NULL;
        END;
    END IF;
    RAISE EXCEPTION '% is not the name of a time zone', kodu_calendar_quoted(zone) USING
        ERRCODE = 'invalid_parameter_value',
        HINT = 'Use a name such as Europe/Paris or UTC. The view pg_timezone_names lists them. '
               'Abbreviations such as CET are refused, since they have no summer time.';
END
$$;

-- The first moment after `after` that the calendar means by the clock of the zone; NULL if there is none
-- within eight years. docs/calendars.md describes what a calendar is.
CREATE OR REPLACE FUNCTION kodu_calendar_next(expression text, zone text, after timestamptz)
RETURNS timestamptz
LANGUAGE sql STABLE PARALLEL SAFE
RETURN kodu_calendar_next_parsed(kodu_calendar_parse(expression), kodu_calendar_zone(zone), after);

-- Rights -----------------------------------------------------------------------------------------

DO $$
DECLARE
    function regprocedure;
    role text;
BEGIN
    FOR function IN
        SELECT oid FROM pg_proc
        WHERE pronamespace = 'public'::regnamespace AND proname LIKE 'kodu\_calendar\_%'
    LOOP
        EXECUTE format('REVOKE EXECUTE ON FUNCTION %s FROM PUBLIC', function);
        FOR role IN SELECT rolname FROM pg_roles WHERE rolname IN ('kodu', 'kodu_admin') LOOP
            EXECUTE format('GRANT EXECUTE ON FUNCTION %s TO %I', function, role);
        END LOOP;
    END LOOP;
END
$$;

COMMIT;
