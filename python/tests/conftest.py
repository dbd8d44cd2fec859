import os

import hxcrate
import pytest


@pytest.fixture(autouse=True)
def folder(tmp_path, monkeypatch, doctest_namespace):
    """Every test, and every example of a docstring, runs in a folder of its own."""
    monkeypatch.chdir(tmp_path)
    doctest_namespace["hxcrate"] = hxcrate
    return tmp_path


@pytest.fixture
def child():
    """Calls a function in a fork of this process and returns what it returned or raised, as text."""
    def call(function):
        reader, writer = os.pipe()
        pid = os.fork()
        if pid == 0:
            try:
                os.write(writer, str(function()).encode())
            except BaseException as error:
                os.write(writer, f"{type(error).__name__}: {error}".encode())
            os._exit(0)
        os.close(writer)
        with os.fdopen(reader) as said:
            text = said.read()
        os.waitpid(pid, 0)
        return text
    return call
