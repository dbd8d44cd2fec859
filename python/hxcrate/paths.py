"""Members of a store as paths, in the manner of pathlib and importlib.resources."""

from __future__ import annotations

import io
from fnmatch import fnmatchcase
from typing import TYPE_CHECKING, Any, Iterator, Sequence

if TYPE_CHECKING:
    from importlib.abc import Traversable  # where type checkers know it

    from ._native import Status, Store
else:
    from importlib.resources.abc import Traversable


def _matches(parts: Sequence[str], pattern: Sequence[str]) -> bool:
    if not pattern:
        return not parts
    if pattern[0] == "**":
        return _matches(parts, pattern[1:]) or bool(parts) and _matches(parts[1:], pattern)
    return (bool(parts) and fnmatchcase(parts[0], pattern[0])
            and _matches(parts[1:], pattern[1:]))


class StorePath(Traversable):
    """A place in an open store, whether there is a member or not.

    >>> with hxcrate.create_in_memory() as store:
    ...     store["docs"] = {"guide.md": b"# Guide", "img": {"a.svg": b"<svg/>"}}
    ...     docs = store.files() / "docs"
    ...     [str(path) for path in docs.iterdir()], (docs / "guide.md").read_text()
    ...     [str(path) for path in store.files().glob("**/*.svg")]
    (['docs/guide.md', 'docs/img'], '# Guide')
    ['docs/img/a.svg']
    """

    def __init__(self, store: Store, *parts: str):
        self.store = store
        self._place = "/".join(part.strip("/") for part in parts if part.strip("/"))

    @property
    def name(self) -> str:
        return self._place.rpartition("/")[2]

    @property
    def suffix(self) -> str:
        dot = self.name.rfind(".")
        return self.name[dot:] if 0 < dot < len(self.name) - 1 else ""

    @property
    def stem(self) -> str:
        return self.name[:len(self.name) - len(self.suffix)]

    @property
    def parts(self) -> tuple[str, ...]:
        return tuple(self._place.split("/")) if self._place else ()

    @property
    def parent(self) -> StorePath:
        return StorePath(self.store, self._place.rpartition("/")[0])

    def joinpath(self, *descendants: Any) -> StorePath:
        return StorePath(self.store, self._place, *map(str, descendants))

    def __truediv__(self, child: Any) -> StorePath:
        return self.joinpath(child)

    def exists(self) -> bool:
        return not self._place or self._place in self.store

    def is_dir(self) -> bool:
        return not self._place or self.exists() and self.stat().is_store

    def is_file(self) -> bool:
        return bool(self._place) and self.exists() and not self.stat().is_store

    def stat(self) -> Status:
        return self.store.stat(self._place)

    def iterdir(self) -> Iterator[StorePath]:
        """What lies in the store, by the bytes of the names."""
        return self._below(False, ["*"])

    def glob(self, pattern: str) -> Iterator[StorePath]:
        """The members whose path from here matches; "**" stands for any number of stores."""
        parts = pattern.split("/")
        return self._below(len(parts) > 1 or parts[0] == "**", parts)

    def rglob(self, pattern: str) -> Iterator[StorePath]:
        return self.glob("**/" + pattern)

    def _below(self, recursive: bool, pattern: Sequence[str]) -> Iterator[StorePath]:
        for member in self.store.list(self._place, recursive=recursive, sorted=True):
            if _matches(member.path.split("/"), pattern):
                yield self.joinpath(member.path)

    def open(self, mode: str = "r", *args: Any, **kwargs: Any) -> Any:
        """As Store.open."""
        return self.store.open(self._place, mode, *args, **kwargs)

    def read_bytes(self) -> bytes:
        return self.store.view(self._place).read()

    def read_text(self, encoding: str | None = None, errors: str | None = None) -> str:
        with self.open("r", encoding=encoding, errors=errors) as file:
            return str(file.read())

    def write_bytes(self, data: Any) -> int:
        """Makes the item; nothing is overwritten."""
        with self.open("xb") as file:
            return int(file.write(data))

    def write_text(self, text: str, encoding: str | None = None, errors: str | None = None,
                   newline: str | None = None) -> int:
        with self.open("x", encoding=encoding, errors=errors, newline=newline) as file:
            return int(file.write(text))

    def mkdir(self, exist_ok: bool = False) -> None:
        """Makes a nested store, with those that lead to it."""
        from ._native import WritableStore

        if not isinstance(self.store, WritableStore):
            raise io.UnsupportedOperation("the store is open for reading only")
        self.store.create_store(self._place, exist_ok=exist_ok).close()

    def __str__(self) -> str:
        return self._place

    def __repr__(self) -> str:
        return f"StorePath({self.store!r}, {self._place!r})"

    def __eq__(self, other: object) -> bool:
        return (isinstance(other, StorePath) and self.store is other.store
                and self._place == other._place)

    def __hash__(self) -> int:
        return hash((id(self.store), self._place))

    def __reduce__(self) -> tuple[Any, ...]:
        return StorePath, (self.store, self._place)
