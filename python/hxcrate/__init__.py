"""Trees of named byte streams in single files.

A store is a mapping of names to bytes and to further stores; a path leads deeper.

>>> import hxcrate
>>> with hxcrate.open("orders.st", "w") as store:   # the end of the block is the commit
...     store["2026/orders"] = b"tea, two sugars"
>>> with hxcrate.open("orders.st") as store:
...     store["2026/orders"], list(store), "2026/invoices" in store
(b'tea, two sugars', ['2026'], False)

An exception undoes what the block wrote:

>>> with hxcrate.open("orders.st", "r+") as store:
...     store["2026/invoices"] = b"3.20"
...     store["2026/orders"] = b"coffee"            # nothing is ever overwritten
Traceback (most recent call last):
FileExistsError: [Errno 17] exists already: 'orders.st' -> '2026/orders'
>>> "2026/invoices" in hxcrate.open("orders.st")
False
"""

import os
from typing import Literal, Optional, Union, overload

from ._native import (Blob, Damaged, Member, MemberNotFound, Status, Store, View, WritableStore,
                      Writer, __version__, create_in_memory, open_blob)
from . import _native
from .members import add_methods
from .paths import StorePath

__all__ = ["Blob", "Damaged", "Member", "MemberNotFound", "Status", "Store", "StorePath", "View",
           "WritableStore", "Writer", "create_in_memory", "open", "open_blob"]

add_methods()


_FilePath = Union[str, bytes, "os.PathLike[str]"]


@overload
def open(path: _FilePath, mode: Literal["r"] = "r", *, wait: Optional[float] = 0,
         mapped: bool = False, accept_damaged: bool = False) -> Store: ...
@overload
def open(path: _FilePath, mode: Literal["r+", "a", "x", "w"], *, page_size: int = 0,
         durable: bool = True, wait: Optional[float] = 0) -> WritableStore: ...
@overload
def open(path: _FilePath, mode: str = "r", *, page_size: int = 0, durable: bool = True,
         wait: Optional[float] = 0, mapped: bool = False, accept_damaged: bool = False) -> Store: ...


def open(path: _FilePath, mode: str = "r", *, page_size: int = 0, durable: bool = True,
         wait: Optional[float] = 0, mapped: bool = False, accept_damaged: bool = False) -> Store:
    """Open the store file `path`.

    mode: "r" reads, "r+" updates what is there, "a" makes the file if need be, "x" makes a new one,
    "w" too and removes what was there. What is not "r" is one transaction, a WritableStore.
    page_size: in bytes, of a file that is made now; 0 is the usual size.
    durable: whether a commit waits for the disk; a crash of the program harms neither way.
    wait: seconds to wait for a file that somebody else has open; None is for ever.
    mapped: map the file, so that `View.pages` and `View.array` copy nothing and a get is faster. Who
    cuts such a file shorter, against its lock, ends the program.
    accept_damaged: open for reading what is left of a damaged directory.

    >>> with hxcrate.open("waits.st", "w") as first:
    ...     hxcrate.open("waits.st", wait=0.01)
    Traceback (most recent call last):
    OSError: [Errno 16] the store is in use (open for update in this session): 'waits.st'
    """
    name = os.fspath(path)
    return _native.open(name, _absolute(name), mode, page_size, durable,
                        -1 if wait is None else wait, mapped, accept_damaged)


def _absolute(name: Union[str, bytes]) -> Union[str, bytes]:
    return name if os.fsdecode(name).partition("/")[0].endswith(":") else os.path.abspath(name)
