"""Items as files, as buffers and as paths."""
import gc
import importlib.resources
import io

import hxcrate
import numpy
import pytest

TEXT = b"one\ntwo\n" * 4000


@pytest.fixture
def path():
    with hxcrate.open("i.st", "w", page_size=1 << 20) as store:
        store["d/item"] = TEXT
        store["numbers"] = numpy.arange(1000, dtype="<i4")
        store["empty"] = b""
    return "i.st"


def test_an_item_is_a_file_as_others_are(path):
    reference = io.BytesIO(TEXT)
    with hxcrate.open(path) as store, store.open("d/item", "rb") as file:
        assert isinstance(file, io.BufferedReader) and file.seekable() and not file.writable()
        for name, *arguments in [("read", 5), ("seek", -9, 2), ("readline",), ("tell",), ("read",), ("read",),
                                 ("seek", 99999), ("read", 1), ("seek", 3), ("seek", 2, 1), ("readlines",)]:
            assert getattr(file, name)(*arguments) == getattr(reference, name)(*arguments)
        with pytest.raises(ValueError):
            file.seek(-1)
        raw = store.open("d/item", "rb", 0)
        assert isinstance(raw, io.RawIOBase) and raw.readinto(bytearray(9)) == 9
        assert store.open("d/item", newline="").read() == TEXT.decode()
        with pytest.raises(io.UnsupportedOperation):
            store.open("new", "x")
    with pytest.raises(ValueError):
        raw.read(1)


def test_writers_append_and_refuse_others(path):
    with hxcrate.open(path, "r+") as store:
        with store.open("log", "a") as file:
            file.write("first\n")
            with pytest.raises(OSError):
                store.append("log", b"busy")
        assert store.append("log", b"second") == 6 and store["log"] == b"first\nsecond"
        (store / "p" / "q.txt").write_text("text")
        with pytest.raises(FileExistsError):
            store.open("log", "x")
    assert (hxcrate.open(path) / "p/q.txt").read_text() == "text"


def test_pages_outlive_their_store(path):
    store = hxcrate.open(path, mapped=True)
    view = store.view("d/item")
    page = view.contiguous()
    numbers = store.view("numbers").array("<i4")
    assert not numbers.flags.owndata and numbers.sum() == 499500
    with pytest.raises(BufferError):
        view.close()
    store.close()
    with pytest.raises(ValueError):
        view.size
    del store, view
    gc.collect()
    assert bytes(page) == TEXT and numbers[999] == 999 and page.readonly
    with pytest.raises(OSError):
        hxcrate.open(path, "r+")
    del page, numbers
    hxcrate.open(path, "r+").abandon()


def test_a_blob_keeps_the_buffer_that_it_is_read_from(path):
    data = bytearray(open(path, "rb").read())
    pages = hxcrate.open_blob(data).view("d/item").pages()
    with pytest.raises(BufferError):
        data.clear()
    assert b"".join(pages) == TEXT
    del pages
    data.clear()


def test_a_file_has_no_pages_and_is_copied(path):
    with hxcrate.open(path) as store:
        assert store.view("d/item").pages() == [] and store.view("empty").contiguous() is None
        assert store.view("numbers").array("<i4")[7] == 7
        assert store.view("d/item").read(3, len(TEXT) - 2) == b"o\n" and store.view("empty").read() == b""
        buffer = bytearray(6)
        assert store.view("d/item").read_into(buffer, 4) == 6 and buffer == TEXT[4:10]
        assert store.read_into("d/item", buffer) == 6 and buffer == TEXT[:6]


def test_paths_are_resources(path):
    with hxcrate.open(path) as store:
        root = store.files()
        assert isinstance(root, importlib.resources.abc.Traversable)
        assert [p.name for p in root.iterdir()] == ["d", "empty", "numbers"]
        assert [str(p) for p in root.glob("**/i*m")] == ["d/item"] == [str(p) for p in root.rglob("item")]
        assert root.joinpath("d", "item").is_file() and (root / "d").is_dir() and not (root / "x").exists()
        assert (root / "d/item").parent == root / "d" and (root / "a.tar.gz").suffix == ".gz"
        with importlib.resources.as_file(root / "d" / "item") as file:
            assert file.read_bytes() == TEXT


def test_damage_is_told(path):
    open("damaged.st", "wb").write(open(path, "rb").read()[:-200])
    with pytest.raises(hxcrate.Damaged):
        hxcrate.open("damaged.st")
    with hxcrate.open("damaged.st", accept_damaged=True) as store:
        assert store.damaged
