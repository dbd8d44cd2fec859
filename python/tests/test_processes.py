"""Threads, forks and pickles."""
import pickle
import threading

import hxcrate
import pytest

ITEMS = {f"item {n}": bytes([n]) * 50_000 for n in range(20)}


@pytest.fixture
def store():
    with hxcrate.open("p.st", "w") as store:
        store["d"] = ITEMS
    return hxcrate.open("p.st")


def in_threads(count, work):
    failures = []

    def run(number):
        try:
            work(number)
        except Exception as failure:
            failures.append(failure)
    threads = [threading.Thread(target=run, args=(n,)) for n in range(count)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return failures


def test_threads_read_while_one_closes(store):
    view = store.view("d/item 3")
    ready = threading.Barrier(5)

    def read(number):
        assert store["d"] == ITEMS
        ready.wait()
        if number == 0:
            store.close()
        while True:
            assert store["d/item 7"] == ITEMS["item 7"] and view.read(3, 40_000) == b"\3\3\3"
    failures = in_threads(5, read)
    assert {str(failure) for failure in failures if type(failure) is ValueError} == {"closed already"}
    assert len(failures) == 5 and all(type(failure) is ValueError for failure in failures)


def test_threads_write_into_one_update():
    with hxcrate.open("w.st", "w", durable=False) as store:
        assert in_threads(4, lambda number: store.update({f"{number}/{n}": b"x" * n for n in range(50)})) == []
    assert hxcrate.open("w.st") == {str(n): {str(m): b"x" * m for m in range(50)} for n in range(4)}


def test_a_fork_has_to_open_anew(store, child):
    view, page = store.view("d/item 1"), hxcrate.open("p.st", mapped=True).view("d/item 2").pages()[0]
    raw = store.open("d/item 1", "rb", 0)
    for use in (lambda: store["d"], lambda: len(store), store.close, lambda: view.size, lambda: raw.read(1),
                lambda: pickle.dumps(store)):
        assert child(use).startswith("RuntimeError: it was opened before the fork")
    assert child(lambda: bytes(page[:2])) == r"b'\x02\x02'"  # memory is the child's own
    assert child(lambda: hxcrate.open("p.st")["d/item 1"] == ITEMS["item 1"]) == "True"


def test_a_fork_leaves_an_update_alone(child):
    store = hxcrate.open("u.st", "w")
    store["before"] = b"1"

    def drop():
        nonlocal store
        store = None
        return "dropped"
    assert child(drop) == "dropped"
    store["after"] = b"2"
    store.close()
    assert hxcrate.open("u.st") == {"before": b"1", "after": b"2"}


def test_pickles_open_by_path(store, tmp_path, monkeypatch):
    mapped = hxcrate.open("p.st", mapped=True)
    monkeypatch.chdir("/")
    store_, nested, view, path = pickle.loads(pickle.dumps(
        (store, store["d"], mapped.view("d/item 2"), store / "d" / "item 1")))
    assert store_ == {"d": ITEMS} and nested == ITEMS and path.read_bytes() == ITEMS["item 1"]
    assert view.read() == ITEMS["item 2"] and view.pages() != []
    for unknown in (hxcrate.create_in_memory(), hxcrate.open_blob((tmp_path / "p.st").read_bytes())):
        with pytest.raises(TypeError):
            pickle.dumps(unknown)
