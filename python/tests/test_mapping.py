"""Stores as mappings, against dictionaries of dictionaries."""
import collections.abc
import io
import os

import hxcrate
import pytest
from hypothesis import HealthCheck, given, settings, strategies as st

NAMES = st.one_of(st.sampled_from("abc"), st.text(
    st.characters(blacklist_characters="/\0", blacklist_categories=["Cs"]), min_size=1, max_size=16))
TREES = st.recursive(st.one_of(st.binary(max_size=40), st.integers(4090, 9000).map(bytes)),
                     lambda inner: st.dictionaries(NAMES, inner, max_size=4), max_leaves=12)
STORES = st.dictionaries(NAMES, TREES, max_size=4)


def paths_of(tree, before=""):
    for name, value in tree.items():
        yield before + name, value
        if isinstance(value, dict):
            yield from paths_of(value, before + name + "/")


# HX_EXAMPLES=N: that many that nobody has seen yet.
EXAMPLES = os.environ.get("HX_EXAMPLES")


@settings(max_examples=int(EXAMPLES or 40), derandomize=not EXAMPLES, database=None, deadline=None,
          suppress_health_check=list(HealthCheck))
@given(STORES, STORES, st.sampled_from([{}, {"mapped": True}]))
def test_a_store_is_what_the_dictionaries_are(first, second, options):
    with hxcrate.open("m.st", "w", durable=False) as store:
        store.update(first)
        assert store == first
    with hxcrate.open("m.st", "a", durable=False) as store:
        store.commit()
        store["undone"] = first
        store.abandon()
    with hxcrate.open("m.st", "r+", durable=False) as store:
        new = {name: value for name, value in second.items() if name not in first}
        store.update(new)
        for name in second.keys() - new.keys():
            with pytest.raises(FileExistsError):
                store[name] = second[name]
    model = {**second, **first}
    with hxcrate.open("m.st", **options) as store:
        assert store == model and dict(store.items()) == model and len(store) == len(model)
        assert {path: store.get(path) for path, _ in paths_of(model)} == dict(paths_of(model))
        assert {m.path: m.size for m in store.list(sizes=True)} == {
            path: -1 if isinstance(value, dict) else len(value) for path, value in paths_of(model)}
    with hxcrate.create_in_memory() as store:
        store.update(model)
        blob = store.make_blob()
    assert hxcrate.open_blob(blob) == model == hxcrate.open_blob(bytearray(blob))


@pytest.fixture
def store():
    with hxcrate.open("s.st", "w") as store:
        store["a/b"] = b"bytes"
        yield store


@pytest.mark.parametrize("call, kinds, number", [
    (lambda s: s["x"], (KeyError, FileNotFoundError), 2),
    (lambda s: s["a/b/c"], (hxcrate.MemberNotFound,), 2),
    (lambda s: s["a//b"], (KeyError,), 2),
    (lambda s: s["n" * 65], (KeyError,), 2),
    (lambda s: s.view("a"), (IsADirectoryError,), 21),
    (lambda s: s.open_store("a/b"), (NotADirectoryError,), 20),
    (lambda s: s.__setitem__("a", {}), (FileExistsError,), 17),
    (lambda s: s.__setitem__("n" * 65, b""), (ValueError,), None),
    (lambda s: s.__setitem__("t", "text"), (TypeError,), None),
    (lambda s: s.__setitem__("t", memoryview(b"1234")[::2]), (BufferError,), None),
    (lambda s: s[7], (TypeError,), None),
    (lambda s: s.__delitem__("a"), (io.UnsupportedOperation,), None),
    (lambda s: s.pop("a"), (io.UnsupportedOperation,), None),
    (lambda s: s.read_into("a/b", b"12"), (BufferError,), None),
    (lambda s: s.view("a/b").read(1, -1), (ValueError,), None),
    (lambda s: s.make_blob(), (ValueError,), None),
    (lambda s: type(s).__new__(type(s)), (TypeError,), None),
    (lambda s: type(s.view("a/b")).__new__(type(s.view("a/b"))), (TypeError,), None),
    (lambda s: hxcrate.open("s.st"), (OSError,), 16),
    (lambda s: hxcrate.open("s.st", "q"), (ValueError,), None),
    (lambda s: hxcrate.open("none/s.st", "w"), (FileNotFoundError,), 2),
    (lambda s: hxcrate.open_blob(b"x" * 99), (hxcrate.Damaged, OSError), 117),
    (lambda s: hxcrate.open_blob("text"), (TypeError,), None),
])
def test_what_goes_wrong_is_told_in_python(store, call, kinds, number):
    with pytest.raises(kinds[0]) as raised:
        call(store)
    assert isinstance(raised.value, kinds) and (number is None or raised.value.errno == number)
    assert store.get("x", 7) == 7 and store.get("x") is None and "a/b" in store and "" not in store


def test_classes_and_names(store):
    assert isinstance(store, collections.abc.MutableMapping)
    store[b"\xff"] = b"1"
    assert list(store) == ["a", "\udcff"] or list(store) == ["\udcff", "a"]
    assert store["\udcff"] == b"1" and store.setdefault("new", b"2") == b"2"
    store.close()
    with hxcrate.open("s.st") as reading, pytest.raises(TypeError):
        assert not isinstance(reading, collections.abc.MutableMapping)
        reading["y"] = b""


def test_leaving_commits_or_undoes():
    with hxcrate.open("t.st", "w") as store:
        nested = store.create_store("kept")  # does not keep the file open
        nested["item"] = b""
    with pytest.raises(ValueError, match="closed"):
        nested["item"]
    with pytest.raises(ZeroDivisionError), hxcrate.open("t.st", "r+") as store:
        store["undone"] = b""
        1 / 0
    with pytest.raises(OSError, match="still open"), hxcrate.open("t.st", "r+") as store:
        writer = store.open("undone", "x")  # its buffer would be lost
        writer.write("text")
    with pytest.raises(ValueError):
        writer.close()
    with pytest.warns(ResourceWarning):
        hxcrate.open("t.st", "r+")["undone"] = b""
    assert hxcrate.open("t.st") == {"kept": {"item": b""}}
