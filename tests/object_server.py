"""An object store with signed requests: Swift with its s3api, all of its servers in one process.

    object_server.py FOLDER   keeps its objects there; prints its port, and serves until its standard input ends

The keys are `test:tester` and `testing`. The methods of all requests are kept in FOLDER/methods.
"""
import logging
import os
import sys
from pathlib import Path

import eventlet
import eventlet.hubs
import eventlet.wsgi
import xattr
from swift.common import utils, wsgi
from swift.common.ring import RingBuilder
from swift.obj import diskfile

# In the order in which they see a request, with their settings.
FILTERS = {"catch_errors": "", "gatekeeper": "", "listing_formats": "", "s3api": "",
           "tempauth": "user_test_tester = testing .admin", "bulk": "", "slo": ""}


def listen():
    return eventlet.listen(("127.0.0.1", 0))


def write_ring(folder, kind, port):
    builder = RingBuilder(1, 1, 0)
    builder.add_dev({"id": 0, "region": 1, "zone": 1, "ip": "127.0.0.1", "port": port, "device": "disk",
                     "weight": 1})
    builder.rebalance()
    builder.get_ring().save(str(folder / f"{kind}.ring.gz"))


def serve(folder, kind, socket, text):
    defaults = (f"[DEFAULT]\nswift_dir = {folder}\ndevices = {folder}\nmount_check = false\n"
                "conn_timeout = 30\nnode_timeout = 60\n")
    (folder / f"{kind}.conf").write_text(defaults + text)
    app = wsgi.loadapp(str(folder / f"{kind}.conf"))

    def serve_one(environment, start_response):
        if kind == "proxy":
            with open(folder / "methods", "a") as log:
                print(environment["REQUEST_METHOD"], file=log)
        return app({**environment, "swift.cache": NoCache()}, start_response)
    eventlet.spawn(eventlet.wsgi.server, socket, serve_one, logging.getLogger(kind), log_output=False)


# There has to be one.
class NoCache:
    def get(self, *_, **__):
        return None

    def set(self, *_, **__):
        pass

    delete = set


# Extended attributes, where the file system has none.
class Attributes:
    kept = {}

    @staticmethod
    def place(file, name):
        status = os.fstat(file if isinstance(file, int) else file.fileno())
        return status.st_ino, name

    def setxattr(self, file, name, value):
        self.kept[self.place(file, name)] = value

    def getxattr(self, file, name):
        try:
            return self.kept[self.place(file, name)]
        except KeyError:
            raise OSError(61, "no such attribute") from None


def main(folder):
    (folder / "disk").mkdir(parents=True)
    (folder / "swift.conf").write_text("[swift-hash]\nswift_hash_path_suffix = any\n")
    logging.disable(logging.CRITICAL)
    utils.eventlet_monkey_patch()  # the servers share one thread
    utils.set_swift_dir(str(folder))
    try:
        xattr.setxattr(str(folder / "disk"), "user.try", b"1")
    except OSError:
        diskfile.xattr = Attributes()
    for kind in ("account", "container", "object"):
        socket = listen()
        write_ring(folder, kind, socket.getsockname()[1])
        serve(folder, kind, socket, f"[app:main]\nuse = egg:swift#{kind}\n")
    filters = "".join(f"[filter:{name}]\nuse = egg:swift#{name}\n{more}\n" for name, more in FILTERS.items())
    socket = listen()
    serve(folder, "proxy", socket, f"[pipeline:main]\npipeline = {' '.join(FILTERS)} proxy-server\n{filters}"
          "[app:proxy-server]\nuse = egg:swift#proxy\naccount_autocreate = true\n")
    print(socket.getsockname()[1], flush=True)
    eventlet.hubs.trampoline(sys.stdin, read=True)


if __name__ == "__main__":
    main(Path(sys.argv[1]).resolve())
