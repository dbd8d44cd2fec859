"""What stores and views can do that is said in Python: items as files, pickles, mappings."""

import collections.abc
import io
from typing import Any, Iterator, Optional, Tuple, Union

from . import _native
from ._native import Store, View, WritableStore, Writer
from .paths import StorePath


class ItemReader(io.RawIOBase):
    """An item as a raw file for reading; what `Store.open` gives, without its buffer."""

    def __init__(self, view: View):
        self._view = view
        self._position = 0

    def readable(self) -> bool:
        return True

    def seekable(self) -> bool:
        return True

    def readinto(self, buffer: Any) -> int:
        self._require_open()
        count = self._view.read_into(buffer, self._position)
        self._position += count
        return count

    def readall(self) -> bytes:
        self._require_open()
        data = self._view.read(-1, self._position)
        self._position += len(data)
        return data

    def seek(self, offset: int, whence: int = io.SEEK_SET) -> int:
        self._require_open()
        if whence not in (io.SEEK_SET, io.SEEK_CUR, io.SEEK_END):
            raise ValueError(f"whence is 0, 1 or 2, not {whence}")
        start = (0, self._position, self._view.size if whence == io.SEEK_END else 0)[whence]
        if start + offset < 0:
            raise ValueError("a position is not below 0")
        self._position = start + offset
        return self._position

    def tell(self) -> int:
        self._require_open()
        return self._position

    def close(self) -> None:
        if not self.closed:
            self._view.close()
        super().close()

    def _require_open(self) -> None:
        if self.closed:
            raise ValueError("I/O operation on closed file.")


class ItemWriter(io.RawIOBase):
    """The end of an item as a raw file for writing."""

    def __init__(self, writer: Writer):
        self._writer = writer

    def writable(self) -> bool:
        return True

    def write(self, data: Any) -> int:
        return self._writer.write(data)

    def tell(self) -> int:
        return self._writer.size

    def close(self) -> None:
        if not self.closed:
            self._writer.close()
        super().close()


def _open_raw(store: Store, path: Union[str, bytes], kind: str) -> io.RawIOBase:
    if kind == "r":
        return ItemReader(store.view(path))
    if not isinstance(store, WritableStore):
        raise io.UnsupportedOperation("the store is open for reading only")
    return ItemWriter(store.writer(path, exclusive=kind == "x"))


def open_item(self: Store, path: Union[str, bytes], mode: str = "r", buffering: int = -1,
              encoding: Optional[str] = None, errors: Optional[str] = None,
              newline: Optional[str] = None) -> Any:
    """Open an item as the built-in open does: "r", "x" or "a", for text or, with a "b", for bytes.

    >>> with hxcrate.open("open_item.st", "w") as store:
    ...     with store.open("lines", "x") as file:
    ...         print("one", "two", sep="\\n", file=file)
    ...     list(store.open("lines"))
    ['one\\n', 'two\\n']
    """
    kind = mode.replace("b", "").replace("t", "")
    if kind not in ("r", "x", "a") or len(mode) - len(kind) > 1:
        raise ValueError(f"a mode is r, x or a with b or t, not {mode!r}")
    raw = _open_raw(self, path, kind)
    if buffering == 0:
        if "b" not in mode:
            raise ValueError("text is not unbuffered")
        return raw
    size = buffering if buffering > 1 else io.DEFAULT_BUFFER_SIZE
    buffered = io.BufferedReader(raw, size) if kind == "r" else io.BufferedWriter(raw, size)
    if "b" in mode:
        return buffered
    return io.TextIOWrapper(buffered, encoding, errors, newline, buffering == 1)


def view_array(self: View, dtype: Any = "u1") -> Any:
    """The item as a numpy array: without a copy where it lies in memory in one piece.

    >>> import numpy
    >>> with hxcrate.create_in_memory() as store:
    ...     store["samples"] = numpy.arange(4, dtype="<f8")
    ...     store.view("samples").array("<f8")
    array([0., 1., 2., 3.])
    """
    import numpy

    piece = self.contiguous()
    if piece is not None:
        return numpy.frombuffer(piece, dtype)
    bytes_ = numpy.empty(self.size, "u1")
    if self.read_into(bytes_) != bytes_.size:
        raise OSError(f"the item has no {bytes_.size} bytes")
    return bytes_.view(dtype)


def _reopen(path: str, mapped: bool, accept_damaged: bool, place: str) -> Store:
    import hxcrate

    store = hxcrate.open(path, mapped=mapped, accept_damaged=accept_damaged)
    return store.open_store(place) if place else store


def _reopen_view(path: str, mapped: bool, accept_damaged: bool, place: str) -> View:
    return _reopen(path, mapped, accept_damaged, "").view(place)


def _reduce(self: Union[Store, View]) -> Tuple[Any, ...]:
    known = self._reopening()
    if known is None:
        raise TypeError("only what is open for reading from a file can be pickled")
    return (_reopen_view if isinstance(self, View) else _reopen), known


def _files(self: Store) -> StorePath:
    """The store as a path, as importlib.resources.files gives it of a package."""
    return StorePath(self)


def _divide(self: Store, name: str) -> StorePath:
    return StorePath(self, name)


def _represent(self: Store) -> str:
    kind = type(self).__name__
    if self.closed:
        return f"<closed hxcrate.{kind}>"
    return f"<hxcrate.{kind} {self.filename!r}{f' {self.place!r}' if self.place else ''}>"


def _refuse(self: WritableStore, *arguments: Any) -> Any:
    """Nothing is ever removed from a store."""
    raise io.UnsupportedOperation("nothing is ever removed from a store")


def add_methods() -> None:
    """Make the classes of _native what their stubs say."""
    for kind, methods in ((Store, (("open", open_item), ("files", _files), ("__truediv__", _divide),
                                   ("__reduce__", _reduce), ("__repr__", _represent))),
                          (View, (("array", view_array), ("__reduce__", _reduce))),
                          (WritableStore, (("pop", _refuse), ("popitem", _refuse),
                                           ("clear", _refuse)))):
        for name, method in methods:
            setattr(kind, name, method)
    for name in ("keys", "items", "values", "__eq__"):
        setattr(Store, name, getattr(collections.abc.Mapping, name))
    setattr(Store, "__hash__", None)
    for name in ("update", "setdefault"):
        setattr(WritableStore, name, getattr(collections.abc.MutableMapping, name))
    collections.abc.Mapping.register(Store)
    collections.abc.MutableMapping.register(WritableStore)
