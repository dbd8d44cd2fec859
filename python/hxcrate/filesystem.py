"""Stores as a file system of fsspec: hxcrate://PATH::URL-OF-THE-STORE-FILE, for reading."""

from __future__ import annotations

import io
import mmap
import os
import tempfile
from typing import Any

import fsspec
from fsspec.implementations.local import LocalFileSystem

import hxcrate


class HxcrateFileSystem(fsspec.AbstractFileSystem):
    """What is in one store file.

    fo: path or URL of the file.
    target_protocol, target_options: the file system that it lies in, as fsspec says it of a chain.

    A local file is opened for each call and for as long as a file of it is open: an update of it gets
    in between, and is seen. The session keeps what it needs to open it again at once. Of a file behind
    http://, https:// or s3:// what is asked for is read by requests for parts of it (libhxremote.so),
    unless there are target_options, which fsspec alone understands. A file that lies elsewhere is copied
    once into a file without a name, and read where that is mapped.
    """

    protocol = "hxcrate"
    root_marker = ""

    def __init__(self, fo: str = "", mode: str = "r", target_protocol: str | None = None,
                 target_options: dict[str, Any] | None = None, **options: Any):
        super().__init__(**options)
        if mode != "r":
            raise ValueError("a store is read here; hxcrate.open writes")
        self.fo = fo
        self._target, self._path = self._find(fo, target_protocol, target_options or {})
        self._kept: tuple[int, hxcrate.Store] | None = None

    @staticmethod
    def _find(fo: str, protocol: str | None, options: dict[str, Any]) -> tuple[Any, str]:
        known = protocol or fsspec.core.split_protocol(fo)[0]
        if known in ("http", "https", "s3") and not options:
            return None, fo if "://" in fo else f"{known}://{fo}"
        if protocol is None:
            return fsspec.core.url_to_fs(fo, **options)  # type: ignore[no-any-return]
        target = fsspec.filesystem(protocol, **options)
        return target, target._strip_protocol(fo)

    @classmethod
    def _strip_protocol(cls, path: str) -> str:
        return str(super()._strip_protocol(path)).strip("/")

    def _open_store(self) -> hxcrate.Store:
        if isinstance(self._target, LocalFileSystem):
            return hxcrate.open(self._path)
        if self._kept is None or self._kept[0] != os.getpid():
            self._kept = os.getpid(), self._open_copy() if self._target else hxcrate.open(self._path)
        return self._kept[1]

    def _open_copy(self) -> hxcrate.Store:
        with tempfile.TemporaryFile() as file:
            with self._target.open(self._path, "rb") as source:
                while block := source.read(1 << 20):
                    file.write(block)
            file.flush()
            return hxcrate.open_blob(mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ), self.fo)

    def _describe(self, path: str, is_store: bool, size: int) -> dict[str, Any]:
        return {"name": path, "size": size, "type": "directory" if is_store else "file"}

    def info(self, path: str, **kwargs: Any) -> dict[str, Any]:
        path = self._strip_protocol(path)
        if not path:
            return self._describe("", True, 0)
        status = self._open_store().stat(path)
        return self._describe(path, status.is_store, status.size)

    def ls(self, path: str, detail: bool = True, **kwargs: Any) -> list[Any]:
        path = self._strip_protocol(path)
        store = self._open_store()
        if path and not store.stat(path).is_store:
            found = [self.info(path)]
        else:
            before = path + "/" if path else ""
            found = [self._describe(before + member.path, member.is_store, max(member.size, 0))
                     for member in store.list(path, recursive=False, sorted=True, sizes=True)]
        return found if detail else [member["name"] for member in found]

    def cat_file(self, path: str, start: int | None = None, end: int | None = None,
                 **kwargs: Any) -> bytes:
        view = self._open_store().view(self._strip_protocol(path))
        if (start or 0) < 0 or end is None or end < 0:  # counted from the item's end
            start, end, _ = slice(start, end).indices(view.size)
        return view.read(max(end - (start or 0), 0), start or 0)

    def _open(self, path: str, mode: str = "rb", block_size: Any = None, autocommit: bool = True,
              cache_options: Any = None, **kwargs: Any) -> io.BufferedReader:
        if mode != "rb":
            raise ValueError("a store is read here; hxcrate.open writes")
        file = self._open_store().open(self._strip_protocol(path), "rb")
        assert isinstance(file, io.BufferedReader)
        return file

    def ukey(self, path: str) -> str:
        """Changes with the file."""
        file = self._target.ukey(self._path) if self._target else self._path
        return str(fsspec.utils.tokenize(file, path))
