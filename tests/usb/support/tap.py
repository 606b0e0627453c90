"""Results of checks that are made on the host, of files that a guest left; as the guest's own are."""

import os
import sys

count = 0


def result(passed, name, *why):
    """One test; `why` explains a failure. Returns `passed`."""
    global count
    count += 1
    print(f"{'ok' if passed else 'not ok'} {count} - {name}")
    if not passed:
        for text in why:
            for line in str(text).splitlines():
                print(f"#   {line}")
    return passed


def note(*lines):
    for line in lines:
        print(f"# {line}")


def folder():
    """Where the scenario's files are: the only argument of a check."""
    return sys.argv[1]


def path(name):
    return os.path.join(folder(), name)


def plan():
    print(f"1..{count}")
