"""What the tests of stores behind URLs share: the command, run in a world of its own, and what it should do.

    SOME_test.py BUILD SCRATCH
"""
import os
import shutil
import subprocess
import sys
from pathlib import Path

build, scratch = (Path(argument).resolve() for argument in sys.argv[1:])
shutil.rmtree(scratch, ignore_errors=True)
cache = scratch / "cache"
cache.mkdir(parents=True)
environment = {**{name: value for name, value in os.environ.items() if not name.startswith("AWS_")},
               "XDG_CACHE_HOME": str(cache), "HOME": str(scratch), "no_proxy": "127.0.0.1,localhost", "LC_ALL": "C"}
failures = []


def run(*words, command=build / "hxcrate", **more):
    done = subprocess.run([command, *words], capture_output=True, env={**environment, **more}, timeout=120)
    return done.returncode, done.stdout, done.stderr.decode()


def expect(is_so, what):
    if not is_so:
        failures.append(what)
        print(f"{Path(sys.argv[0]).stem}: {what}", file=sys.stderr)
