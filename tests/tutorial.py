#!/usr/bin/env python3
"""Types a tutorial's commands, one after the other, and compares what they print with what it shows.

    tutorial.py FILE [--write] -- SHELL...

SHELL runs one command, given as its last argument, as chroot TREE bash -c does. Digits, runs of blanks
and dashes do not count in the comparison, nor does the output of a command that shows none. With
--write the outputs are put into FILE instead.

A command stands in a console block behind "# ", its further lines behind "> ". A block that says
until=WORD is one whose command is typed again, each second, until it prints WORD.
"""

import re
import subprocess
import sys
import time

LIMIT_SECONDS = 60


def split_block(lines):
    """The command and the output of a console block."""
    command = [lines[0][2:]]
    rest = lines[1:]
    while rest and rest[0].startswith("> "):
        command.append(rest.pop(0)[2:])
    return "\n".join(command), rest


def type_command(shell, command, word):
    """The command's output; ends the program when it fails."""
    begin = time.monotonic()
    while True:
        done = subprocess.run(shell + [command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)
        if done.returncode == 0 and (not word or word in done.stdout):
            return done.stdout
        if not word or time.monotonic() - begin > LIMIT_SECONDS:
            sys.exit(f"{command}\nended with {done.returncode}"
                     + (f", never with {word!r}" if word else "") + f":\n{done.stdout}")
        time.sleep(1)


def essence(lines):
    """Lines without what differs from day to day, and without empty ones."""
    without_distances = (re.sub(r"\((now|in [^)]*|[^)]* ago)\)", "()", line) for line in lines)
    without_digits = (re.sub(r"\d+", "N", line) for line in without_distances)
    normal = (re.sub(r"[\s-]+", " ", line).strip() for line in without_digits)
    return [line for line in normal if line]


def main():
    path, *options = sys.argv[1:]
    place = options.index("--")
    is_written, shell = "--write" in options[:place], options[place + 1:]
    with open(path, encoding="utf-8") as file:
        parts = re.split(r"(^```console.*?^```$)", file.read(), flags=re.MULTILINE | re.DOTALL)
    count = 0
    for i, part in enumerate(parts):
        if not part.startswith("```console"):
            continue
        head, *lines, end = part.split("\n")
        command, shown = split_block(lines)
        word = head.partition("until=")[2].strip('"')
        print(f"tutorial: {command}", flush=True)
        printed = type_command(shell, command, word).rstrip("\n").split("\n")
        count += 1
        if is_written and (shown or word):
            typed = lines[:command.count("\n") + 1]
            parts[i] = "\n".join([head, *typed, *printed, end])
        elif shown and essence(shown) != essence(printed):
            sys.exit("The tutorial shows\n  " + "\n  ".join(shown) + "\nbut it printed\n  "
                     + "\n  ".join(printed))
    if is_written:
        with open(path, "w", encoding="utf-8") as file:
            file.write("".join(parts))
    print(f"tutorial: {count} commands did what it says")


if __name__ == "__main__":
    main()
