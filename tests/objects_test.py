#!/usr/bin/env python3
"""Reads and makes stores that are objects, at an object store that verifies signatures.

    objects_test.py BUILD SCRATCH
"""
import datetime
import hashlib
import hmac
import random
import socket
import subprocess
import sys
import threading
import urllib.error
import urllib.parse
import urllib.request
from pathlib import Path

from web_checks import build, environment, expect, failures, run, scratch

PYTHON = "/usr/bin/python3"  # the one that Debian's packages are for
ODD = "a folder/ä+b=c&d%20~.st"


class ObjectStore:
    def __init__(self):
        program = Path(__file__).with_name("object_server.py")
        self.folder = scratch / "objects"
        self.process = subprocess.Popen([PYTHON, program, self.folder], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.host = "127.0.0.1:" + self.process.stdout.readline().decode().strip()
        self.url = "http://" + self.host

    def end(self):
        self.process.stdin.close()
        self.process.wait(20)

    # A URL that anybody may use for a while.
    def presign(self, method, path, secret="testing"):
        now = datetime.datetime.now(datetime.timezone.utc).strftime("%Y%m%dT%H%M%SZ")
        scope = f"{now[:8]}/us-east-1/s3/aws4_request"
        query = urllib.parse.urlencode(
            {"X-Amz-Algorithm": "AWS4-HMAC-SHA256", "X-Amz-Credential": "test:tester/" + scope, "X-Amz-Date": now,
             "X-Amz-Expires": "600", "X-Amz-SignedHeaders": "host"}, quote_via=urllib.parse.quote, safe="")
        path, _, wanted = path.partition("?")
        path, query = urllib.parse.quote(path, safe="/~"), f"{query}&{wanted}".rstrip("&")
        asked = f"{method}\n{path}\n{query}\nhost:{self.host}\n\nhost\nUNSIGNED-PAYLOAD"
        signed = f"AWS4-HMAC-SHA256\n{now}\n{scope}\n{hashlib.sha256(asked.encode()).hexdigest()}"
        key = ("AWS4" + secret).encode()
        for part in (*scope.split("/"), signed):
            key = hmac.digest(key, part.encode(), "sha256")
        return f"{self.url}{path}?{query}&X-Amz-Signature={key.hex()}"

    # Status and bytes.
    def ask(self, method, path, data=None):
        request = urllib.request.Request(self.presign(method, path), data=data, method=method)
        try:
            with urllib.request.urlopen(request) as reply:
                return reply.status, reply.read()
        except urllib.error.HTTPError as error:
            return error.code, error.read()

    # Since the last call.
    def methods(self):
        log = self.folder / "methods"
        methods = log.read_text().split()
        log.write_text("")
        return methods


# What there is to open, what is different in the environment, the exit code, and what is said.
OPENINGS = [
    ("bucket/tree.st", {}, 0, ""), ("bucket/" + ODD, {}, 0, ""),
    ("bucket/tree.st", {"AWS_ENDPOINT_URL": "http://127.0.0.1:9", "AWS_ENDPOINT_URL_S3": "%"}, 0, ""),
    ("bucket/tree.st", {"AWS_SECRET_ACCESS_KEY": "secret"}, 4, "does not let it be read (403)"),
    ("bucket/tree.st", {"AWS_ACCESS_KEY_ID": "secret"}, 4, "does not let it be read (403)"),
    ("bucket/tree.st", {"AWS_REGION": "elsewhere"}, 4, "(400)"),
    ("bucket/tree.st", {"AWS_ACCESS_KEY_ID": ""}, 4, "without keys"),
    ("bucket/none.st", {}, 4, "no such file (404)"), ("none/tree.st", {}, 4, "no such file (404)"),
    ("../key", {}, 4, "s3://bucket/key"), ("b?c/key", {}, 4, "s3://bucket/key"),
    ("bucket/key", {"AWS_REGION": "x.evil.test/#"}, 4, "the region of the object store is no name"),
    ("bucket", {}, 4, "s3://bucket/key"), ("bucket/", {}, 4, "s3://bucket/key"),
    ("user:secret@bucket/tree.st", {}, 4, "s3://bucket/key"),
]


def test_openings(store, listed):
    for path, more, code, said in OPENINGS:
        more = {name: value.replace("%", store.url) for name, value in more.items()}
        got, output, complaint = run("ls", "-R", "--no-cache", "s3://" + path, **more)
        expect(got == code and output == (b"" if code else listed) and said in complaint,
               f"{path} {more}: exit code {got}, {complaint}")
        expect("secret" not in complaint and "testing" not in complaint, f"a key is shown: {complaint}")


def test_signed_in_advance(store, listed):
    store.methods()
    url = store.presign("GET", "/bucket/tree.st")
    expect(run("ls", "-R", url)[1] == listed, "a URL that was signed in advance")
    expect(run("ls", "-R", store.presign("GET", "/bucket/tree.st"))[1] == listed, "and one that is in the cache")
    expect(set(store.methods()) == {"GET"}, "another method than GET")
    code, _, complaint = run("ls", store.presign("GET", "/bucket/tree.st", "wrong"))
    expect(code == 4 and "(403)" in complaint and "X-Amz" not in complaint, f"signed by another: {complaint}")


# Endpoint, region and keys from the user's files alone.
def test_profiles(store, listed):
    folder = scratch / ".aws"
    folder.mkdir()
    keys = "aws_access_key_id = test:tester\naws_secret_access_key=testing\n"
    (folder / "credentials").write_text("[default]\naws_access_key_id = other\naws_secret_access_key = secret\n"
                                        "# those of the work\n[work]\n" + keys)
    (folder / "config").write_text(f"[default]\nendpoint_url = {store.url}\n"
                                   f"[profile work]\nregion = us-east-1\nendpoint_url = {store.url}/\n"
                                   f"[profile one]\nendpoint_url = {store.url}\n{keys}")
    bare = {name: "" for name in environment if name.startswith("AWS_")}
    for profile, expected in (("work", 0), ("one", 0), ("", 4), ("none", 4)):
        code, output, complaint = run("ls", "-R", "--no-cache", "s3://bucket/tree.st",
                                      **{**bare, "AWS_PROFILE": profile})
        expect(code == expected and (code != 0 or output == listed), f"profile {profile}: {code}, {complaint}")
        expect("secret" not in complaint, f"a key is shown: {complaint}")
        expect(profile != "none" or "no profile" in complaint, f"an unknown profile: {complaint}")


# What makes an object, the exit code, what is said, and by which requests; then all is as it should be. This
# object store does not implement If-None-Match: what has it is sent again without.
def test_sending(store, packed):
    tree, parts = scratch / "tree", {"HX_TEST_PART_BYTES": str(5 << 20)}
    large = scratch / "large"
    large.mkdir()
    (large / "bytes").write_bytes(random.Random(3).randbytes(12 << 20))
    sendings = [
        (("pack", "--in-memory", "s3://bucket/new.st", tree), {}, 0, "", ["GET", "PUT", "PUT"]),
        (("pack", "s3://bucket/new.st", tree), {}, 4, "exists already", ["GET"]),
        (("pack", "--replace", "s3://bucket/new.st", tree), {}, 0, "", ["PUT"]),
        (("copy", packed, f"s3://bucket/2/{ODD}"), {}, 0, "", ["GET", "PUT", "PUT"]),
        (("copy", "--encoding", "hxmok1/be/utf-8", "s3://bucket/new.st", "s3://bucket/be.st"), {}, 0, "", None),
        (("pack", "--replace", "--in-memory", "s3://bucket/large.st", large), {}, 0, "", ["PUT"]),
        (("pack", "--replace", "s3://bucket/parts.st", large), parts, 0, "", ["POST", "PUT", "PUT", "PUT", "POST"]),
        (("pack", "s3://bucket/no.st", tree), {"AWS_SECRET_ACCESS_KEY": "secret"}, 4, "(403)", ["GET"]),
        (("pack", "--replace", "s3://bucket/no.st", tree), {"AWS_SECRET_ACCESS_KEY": "secret"}, 3,
         "written (403), SignatureDoesNotMatch", ["PUT"]),
        (("pack", "--replace", "s3://none/no.st", tree), {}, 3, "no such bucket (404), NoSuchBucket", ["PUT"]),
        (("pack", store.url + "/bucket/no.st", tree), {}, 4, "only objects are written", []),
    ]
    store.methods()
    for words, more, code, said, methods in sendings:
        got, _, complaint = run(*words, **more)
        expect(got == code and said in complaint, f"{words}: exit code {got}, {complaint}")
        expect("secret" not in complaint and "testing" not in complaint, f"a key is shown: {complaint}")
        asked = store.methods()
        expect(methods is None or asked == methods, f"{words}: {asked}")
    for name in ("new.st", "be.st", "2/" + ODD):
        expect(run("diff", packed, f"s3://bucket/{name}")[0] == 0, f"{name} is another one")
    for name in ("large.st", "parts.st"):
        expect(run("diff", f"s3://bucket/{name}", large)[0] == 0, f"{name} is another one")
    expect(store.ask("GET", "/bucket/no.st")[0] == 404, "what was refused is there")


# Between the command and the object store: it ends each connection after so many bytes of it.
class Cutter:
    def __init__(self, port, most):
        self.port, self.most, self.cuts = port, most, 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.url = f"http://127.0.0.1:{self.listener.getsockname()[1]}"
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            client, _ = self.listener.accept()
            server = socket.create_connection(("127.0.0.1", self.port))
            threading.Thread(target=self.move, args=(server, client, 1 << 40), daemon=True).start()
            threading.Thread(target=self.move, args=(client, server, self.most), daemon=True).start()

    def move(self, source, target, most):
        with source, target:
            try:
                while most > 0 and (piece := source.recv(min(most, 65536))):
                    target.sendall(piece)
                    most -= len(piece)
                self.cuts += most <= 0
                target.shutdown(socket.SHUT_RDWR)
                source.shutdown(socket.SHUT_RDWR)
            except OSError:
                return  # the other way has ended it


# What breaks off leaves what was there, and no parts.
def test_broken_sending(store):
    before = store.ask("GET", "/bucket/large.st")[1]
    for more in ({}, {"HX_TEST_PART_BYTES": str(5 << 20)}):
        cutter = Cutter(int(store.host.split(":")[1]), 3 << 20)
        for name, there in (("broken.st", (404, None)), ("large.st", (200, before))):
            code, _, complaint = run("pack", "--replace", f"s3://bucket/{name}", scratch / "large",
                                     AWS_ENDPOINT_URL=cutter.url, **more)
            expect(code == 3 and "5 times" in complaint, f"broken off: exit code {code}, {complaint}")
            status, content = store.ask("GET", "/bucket/" + name)
            expect(status == there[0] and there[1] in (None, content), f"half of it is there: {status}")
        expect(cutter.cuts == 10, f"cut {cutter.cuts} times")
    status, uploads = store.ask("GET", "/bucket?uploads=")
    expect(status == 200 and b"<Upload>" not in uploads, f"parts stay: {status} {uploads}")


def main():
    if subprocess.run([PYTHON, "-c", "import swift.common.middleware.s3api"], capture_output=True).returncode != 0:
        return print("objects_test: no Swift (python3-swift): objects are not tested: skipped")
    (scratch / "tree" / "a").mkdir(parents=True)
    (scratch / "tree" / "a" / "tea").write_bytes(bytes(range(256)) * 2000)
    packed = scratch / "tree.st"
    run("pack", packed, scratch / "tree")
    listed = run("ls", "-R", packed)[1]
    store = ObjectStore()
    environment.update(AWS_ENDPOINT_URL=store.url, AWS_ACCESS_KEY_ID="test:tester", AWS_SECRET_ACCESS_KEY="testing")
    try:
        for name in ("", "/tree.st", "/" + ODD):
            status, _ = store.ask("PUT", "/bucket" + name, packed.read_bytes() if name else b"")
            expect(status == 200, f"the object store answers {status}")
        test_openings(store, listed)
        test_signed_in_advance(store, listed)
        test_profiles(store, listed)
        test_sending(store, packed)
        test_broken_sending(store)
    finally:
        store.end()


main()
sys.exit(bool(failures))
