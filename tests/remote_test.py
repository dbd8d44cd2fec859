#!/usr/bin/env python3
"""Reads stores behind URLs: from nginx, whose log counts the requests, and from a server with faults.

    remote_test.py BUILD SCRATCH
"""
import os
import random
import shutil
import socket
import ssl
import subprocess
import sys
import time
from pathlib import Path

from range_server import Server
from web_checks import build, cache, environment, expect, failures, run, scratch

tree, www = scratch / "tree", scratch / "www"
for folder in (tree / "many", www):
    folder.mkdir(parents=True)


def forget():
    shutil.rmtree(cache / "hxcrate", ignore_errors=True)


numbers = random.Random(5)
contents = {"small": numbers.randbytes(65536), "one": numbers.randbytes(15 << 20),
            "parts": numbers.randbytes(40 << 20), "tail": numbers.randbytes(300)}
for name, content in contents.items():
    (tree / name).write_bytes(content)
for number in range(3000):
    (tree / "many" / f"{number}").write_bytes(b"x" * (number % 50))
run("pack", www / "tree.st", tree)
run("pack", www / "many.st", tree / "many")
listed, listed_many = (run("ls", "-R", www / name)[1] for name in ("tree.st", "many.st"))
large = contents["parts"]


# What goes wrong, whether the listing comes all the same, what is said, and at most how many requests.
FAULTS = [
    ("-", True, "", 2), ("busy", True, "", 6), ("cut", True, "", 99), ("reset", True, "", 99),
    ("whole", True, "", 1), ("elsewhere", True, "", 1), ("expires", True, "", 9), ("stalls", True, "", 9),
    ("later", True, "", 9),
    ("changes", False, "was changed meanwhile", 2), ("shifted", False, "another part of the file", 2),
    ("longer", False, "another part of the file", 2), ("shorter", False, "another part of the file", 2),
    ("encoded", False, "encoded, as nobody asked for", 1),
    ("endless", False, "a length that no file has", 1), ("vast", False, "another part of the file", 3),
    ("nameless", False, "neither ETag nor Last-Modified", 1), ("loop", False, "in circles", 10),
    ("401", False, "wants a user", 1), ("403", False, "does not let it be read", 1),
    ("404", False, "no such file", 1), ("503", False, "not available now (503), 5 times", 5),
    ("patience", False, "3600 seconds of patience", 1), ("silent", False, "imeout was reached, 5 times", 5),
]


def test_faults():
    server = Server(www)
    for fault, is_listed, said, most in FAULTS:
        forget()
        secret = server.url.replace("//", "//user:secret@") + f"/{fault}/many.st?signature=secret"
        began = time.monotonic()
        code, output, complaint = run("ls", "-R", "--patience", "1", secret)
        expect(fault not in ("later", "stalls") or time.monotonic() - began >= 1, f"{fault}: not waited for")
        expect((code == 0) == is_listed and (not is_listed or output == listed_many),
               f"{fault}: exit code {code}, {complaint}")
        expect(said in complaint and "secret" not in complaint, f"{fault} says: {complaint}")
        expect(server.counts[fault] <= most, f"{fault}: {server.counts[fault]} requests")
    began = time.monotonic()
    run("-s", "INT", "1", build / "hxcrate", "unpack", f"{server.url}/silent/many.st", scratch / "no", command="timeout")
    expect(time.monotonic() - began < 15, "a signal does not end the waiting for a server")
    code, _, complaint = run("cat", server.url + "/whole/tree.st", "one")
    expect(code == 4 and "too long to be read whole" in complaint, f"a long file as a whole: {complaint}")
    for command in ("copy", "salvage", "export"):  # which have no file's rights to take over
        code, _, complaint = run(command, server.url + "/-/many.st", scratch / f"{command}.tar")
        expect(code == 0, f"{command}: {complaint}")
    (www / "page").write_bytes(b" " * 2000)
    code, _, complaint = run("ls", server.url + "/-/page")
    expect(code == 4 and "not a store" in complaint, f"what is no store: {complaint}")
    for path, code in (("/-/many.st", 4), ("/404/many.st", 4)):
        expect(run("put", server.url + path, "x")[0] == code, "put to a URL")
    secret = server.url.replace("//", "//user:secret@") + "/-/many.st?signature=secret"
    for count in (2, 3, 5):  # of eight requests that were good, some of them at once
        code, output, complaint = run("cat", "--no-cache", f"{server.url}/changes{count}/tree.st", "parts")
        expect(code == 3 and output == large[:len(output)] and "was changed meanwhile" in complaint,
               f"changed after {count} requests: exit code {code}, {len(output)} bytes, {complaint}")
    for status, code, said in ((200, 0, ""), (412, 4, "exists already"), (307, 3, "sends elsewhere (307)"),
                               (503, 3, "not available now (503), 5 times")):
        got, _, complaint = run("pack", f"s3://put{status}/x", tree / "many", AWS_ENDPOINT_URL=server.url,
                                AWS_ACCESS_KEY_ID="id", AWS_SECRET_ACCESS_KEY="secret")
        expect(got == code and said in complaint, f"sent, and answered {status}: exit code {got}, {complaint}")
    for words in (("diff", secret, tree), ("tree", secret), ("stat", "--json", secret), ("mount", secret, www / "no")):
        _, output, complaint = run(*words)
        expect(b"secret" not in output and "secret" not in complaint, f"{words[0]} shows a secret")
    server.ended.set()


def test_mount():
    program, place = build / "hxcrate-mount", scratch / "mounted"
    if not program.exists() or not Path("/dev/fuse").exists():
        return print("remote_test: no hxcrate-mount or no /dev/fuse: no URL is mounted: skipped")
    place.mkdir()
    code, _, complaint = run("mount", Server(www).url.replace("//", "//user:secret@") + "/-/tree.st", place)
    if code != 0 and ("ermitted" in complaint or "ermission denied" in complaint):
        return print(f"remote_test: {complaint.strip()}: no URL is mounted: skipped")
    try:
        expect(code == 0 and (place / "parts").read_bytes() == large, f"a mounted URL: {complaint}")
        expect("secret" not in Path("/proc/mounts").read_text(), "the mount's name shows a secret")
    finally:
        subprocess.run(["fusermount3", "-u", place], check=code == 0)


def test_python():
    if not list((build / "python" / "hxcrate").glob("_native.*.so")):
        return print("remote_test: the Python package is not built: it opens no URL: skipped")
    code = "import hxcrate, sys; sys.stdout.buffer.write(bytes(hxcrate.open(sys.argv[1])['many/49']))"
    got = run("-c", code, Server(www).url + "/-/tree.st", command="/usr/bin/python3", PYTHONPATH=str(build / "python"))
    expect(got[:2] == (0, b"x" * 49), f"Python: {got}")


def test_encryption():
    if not shutil.which("openssl"):
        return print("remote_test: no openssl: certificates are not tested")
    key, certificate = scratch / "key.pem", scratch / "certificate.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=x",
                    "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", key, "-out", certificate],
                   check=True, capture_output=True)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate, key)
    server, plain = Server(www, context), Server(www)
    server.plain_url = plain.url
    plain.plain_url = server.url
    trusted = {"SSL_CERT_FILE": str(certificate)}
    expect(run("ls", "-R", server.url + "/-/many.st", **trusted)[1] == listed_many, "an encrypted store")
    expect(run("ls", "-R", plain.url + "/plain/many.st", **trusted)[1] == listed_many, "sent to https")
    code, _, complaint = run("ls", server.url + "/-/many.st", SSL_CERT_FILE="/dev/null")
    expect(code == 4 and "ertificate" in complaint.replace("SSL", "certificate"), f"unknown: {complaint}")
    code, _, complaint = run("ls", server.url.replace("127.0.0.1", "localhost") + "/-/many.st", **trusted)
    expect(code == 4 and "certificate" in complaint, f"the certificate of another host: {complaint}")
    code, _, complaint = run("ls", server.url + "/plain/many.st", **trusted)
    expect(code == 4 and "nothing is encrypted" in complaint, f"sent to http: {complaint}")
    expect(plain.counts == {"plain": 1}, "https was left")


class Nginx:
    def __init__(self, program):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
        paths = "".join(f"{kind}_temp_path {scratch}/temporary;"
                        for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        (scratch / "nginx.conf").write_text(
            f"daemon off; pid {scratch}/nginx.pid; error_log {scratch}/error.log; events {{}}\n"
            f"http {{ access_log {scratch}/access.log; {paths}\n"
            f"server {{ listen 127.0.0.1:{port}; root {www}; }} }}\n")
        (scratch / "nginx.conf").chmod(0o644)
        self.process = subprocess.Popen([program, "-c", scratch / "nginx.conf"], stderr=subprocess.DEVNULL)
        self.url = f"http://127.0.0.1:{port}"
        self.seen = 0
        for _ in range(200):
            try:
                socket.create_connection(("127.0.0.1", port)).close()
                return
            except OSError:
                time.sleep(0.05)

    # The replies since the last call: status and bytes.
    def replies(self):
        time.sleep(0.1)  # a line may follow its reply
        lines = (scratch / "access.log").read_text().splitlines()
        new, self.seen = lines[self.seen:], len(lines)
        expect(all('"GET ' in line for line in new), "another method than GET")
        return [tuple(map(int, line.split('"')[2].split())) for line in new]


def count_requests(nginx, words, output, most, least_bytes=0, most_bytes=1 << 40):
    code, printed, complaint = run(*words)
    expect(code == 0 and printed == output, f"{words}: {code}, {complaint}")
    replies = nginx.replies()
    expect(len(replies) <= most, f"{words}: {len(replies)} requests: {replies}")
    total = sum(size for status, size in replies)
    expect(least_bytes <= total <= most_bytes, f"{words}: {total} bytes")


def test_requests(nginx):
    url = nginx.url + "/tree.st"
    count_requests(nginx, ("ls", "-R", url), listed, 2, 280000)
    count_requests(nginx, ("ls", "-R", url), listed, 1, 0, 0)
    count_requests(nginx, ("cat", url, "small"), contents["small"], 2, 65536)
    count_requests(nginx, ("cat", url, "one"), contents["one"], 2, 15 << 20)
    count_requests(nginx, ("cat", url, "one"), contents["one"], 1, 0, 0)
    count_requests(nginx, ("cat", "--no-cache", url, "parts"), large, 2 + 6, 40 << 20, 42 << 20)
    count_requests(nginx, ("ls", "-R", "--no-cache", url), listed, 2)
    few = ("--exclude", "many/????", "--exclude", "many/[6-9]??")  # 58 KB of directory
    run("copy", "--for", "reading", "--page-size", "65536", *few, www / "tree.st", www / "front.st")
    url = nginx.url + "/front.st"
    for words in (("ls", "-R"), ("ls", "-lR")):
        count_requests(nginx, (*words, "--no-cache", url), run(*words, www / "front.st")[1], 1)
    count_requests(nginx, ("cat", "--no-cache", url, "small"), contents["small"], 2, 0, 300000)
    count_requests(nginx, ("cat", "--no-cache", url, "one"), contents["one"], 2, 15 << 20, 16 << 20)
    count_requests(nginx, ("cat", "--no-cache", url, "parts"), large, 1 + 6, 40 << 20, 41 << 20)
    code, printed, _ = run("stat", "--no-cache", "--json", nginx.url + "/many.st")
    replies = nginx.replies()
    expect(f'"requests":{len(replies)},"bytes":{sum(r[1] for r in replies)},'.encode() in
           printed.replace(b" ", b"").replace(b"\n", b""), f"stat tells {printed[-200:]}, not {replies}")
    code, _, complaint = run("cat", "--no-cache", "--max-transfer", "1000000", url, "one")
    expect(code == 3 and "more than 1000000 bytes" in complaint, f"--max-transfer: {complaint}")
    expect(sum(r[1] for r in nginx.replies()) <= 1000000, "--max-transfer")


def test_cache(nginx):
    url = nginx.url + "/tree.st"
    folder = cache / "hxcrate"
    kept = list(folder.iterdir())
    expect(folder.stat().st_mode & 0o777 == 0o700 and kept, "a folder for all to see")
    expect(all(file.stat().st_mode & 0o777 == 0o600 for file in kept), "files for all to see")
    for file in kept:  # spoilt, past what tells whose it is
        with open(file, "r+b") as spoilt:
            spoilt.seek(4096 + (file.stat().st_size - 4096) // 2)
            spoilt.write(b"nonsense" * 40000)
    count_requests(nginx, ("cat", url, "one"), contents["one"], 99)
    folder.chmod(0o777)  # anybody might have put something there
    nginx.replies()
    count_requests(nginx, ("ls", "-R", url), listed, 2, 65536)
    folder.chmod(0o700)
    victim = scratch / "victim"
    victim.mkdir(mode=0o700)
    (victim / "file").write_bytes(b"precious")
    for file in folder.iterdir():  # the user's own links, to what is not of the cache
        file.unlink()
        file.symlink_to(victim / "file")
    count_requests(nginx, ("cat", url, "small"), contents["small"], 3, 65536)
    forget()
    folder.symlink_to(victim)
    count_requests(nginx, ("cat", url, "small"), contents["small"], 3, 65536)
    expect([file.read_bytes() for file in victim.iterdir()] == [b"precious"], "what is not of the cache was changed")
    folder.unlink()
    run("ls", url)
    large_file, other = folder / ("f" * 32), folder / "other"
    if subprocess.run(["fallocate", "-l", "1025M", large_file], capture_output=True).returncode == 0:
        os.utime(large_file, (1, 1))
        other.write_bytes(b"precious")
        run("ls", url)
        expect(not large_file.exists() and other.exists(), "the cache has no bound")
    else:
        print("remote_test: no room for 1 GiB: the bound of the cache is not tested: skipped")
    forget()
    readers = [subprocess.Popen([build / "hxcrate", "cat", url, "one", "parts"], env=environment,
                                stdout=subprocess.PIPE) for _ in range(4)]
    expect(all(reader.communicate()[0] == contents["one"] + large for reader in readers), "four at once")
    shutil.copy(www / "many.st", www / "new.st")
    (www / "new.st").replace(www / "tree.st")
    expect(run("ls", "-R", url)[1] == listed_many, "what was replaced is read from the cache")


def test_without_library():
    bare = scratch / "bare"
    bare.mkdir()
    for name in ("hxcrate", "libhxhost.so.1", "libhxcrate.so.1"):
        shutil.copy(build / name, bare / name)
    code, _, complaint = run("ls", "http://127.0.0.1:9/a.st", command=bare / "hxcrate")
    expect(code == 4 and "hxcrate-remote" in complaint, f"without the library: {complaint}")


test_faults()
test_mount()
test_python()
test_encryption()
test_without_library()
program = shutil.which("nginx") or shutil.which("nginx", path="/usr/sbin")
if program:
    nginx = Nginx(program)
    try:
        forget()
        test_requests(nginx)
        test_cache(nginx)
    finally:
        nginx.process.terminate()
        nginx.process.wait()
else:
    print("remote_test: no nginx (nginx-light): requests are not counted by a server's log: skipped")
sys.exit(bool(failures))
