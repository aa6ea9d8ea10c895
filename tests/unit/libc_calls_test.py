#!/usr/bin/env python3
"""Every libc symbol that the product needs is either wrapped, so that the tests can make the call fail, or stands
below with the reason why not.

usage: libc_calls_test.py NM "WRAPPED SYMBOLS" OBJECT_OR_ARCHIVE...
"""
import subprocess
import sys

EXCEPTIONS = {
    "works on memory and strings alone (fnmatch and strcasecmp by the locale, as the headers say)":
        "memccpy memcpy memmove memset strcasecmp strchr strcmp strcpy strlen strncmp strrchr strstr strtol "
        "snprintf __isoc99_sscanf fnmatch gnu_dev_makedev",
    "prints to standard output or the log; the result decides nothing":
        "printf puts vprintf fprintf vfprintf fflush stdout",
    "reads what the wrapped fopen opened; NodeFromSysfs gives it bad, empty and unreadable files":
        "__isoc99_fscanf",
    "cannot fail": "__errno_location",
    "is the compiler's": "_GLOBAL_OFFSET_TABLE_",
}


def symbols(nm, which, files):
    result = subprocess.run([nm, "--format=posix", which, *files], capture_output=True, text=True, check=True)
    return {line.split()[0] for line in result.stdout.splitlines() if line and not line.endswith(":")}


def main():
    if len(sys.argv) < 4 or "--help" in sys.argv:
        print(__doc__)
        return 0 if "--help" in sys.argv else 2
    nm, wrapped, *files = sys.argv[1:]
    called = symbols(nm, "--undefined-only", files) - symbols(nm, "--defined-only", files)
    if not called:
        print("error: nm found no symbols; are these the product's objects?", *files)
        return 1
    unwrapped = called - set(wrapped.split())
    excepted = set(" ".join(EXCEPTIONS.values()).split())
    for name in sorted(unwrapped - excepted):
        print(f"error: the product needs {name}: wrap it (tests/CMakeLists.txt), or give the reason here why not")
    for name in sorted(excepted - unwrapped):
        print(f"error: {name} is wrapped or no longer needed: take it out of the exceptions here")
    return int(unwrapped != excepted)


sys.exit(main())
