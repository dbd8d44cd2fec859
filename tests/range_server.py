"""A small web server that knows ranges, and faults: /FAULT/NAME serves the file NAME of a folder in a
way that goes wrong, /-/NAME as it should be.

    range_server.py FOLDER   serves it on a free port of 127.0.0.1, which it prints, until it is ended
"""
import http.server
import os
import re
import socket
import struct
import sys
import threading
import time


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *_):
        pass

    def answer(self, status, body=b"", length=None, **headers):
        self.send_response(status)
        self.send_header("Content-Length", str(len(body) if length is None else length))
        for name, value in headers.items():
            self.send_header(name.replace("_", "-"), value)
        self.end_headers()
        self.wfile.write(body)

    def do_GET(self):
        server = self.server
        _, fault, name = self.path.split("?")[0].split("/", 2)
        with server.lock:
            count = server.counts[fault] = server.counts.get(fault, 0) + 1
        if fault.isdigit():
            return self.answer(int(fault), b"no", Retry_After="0")
        if fault == "busy" and count % 3:
            return self.answer(503, b"later", Retry_After="0")
        if fault == "patience":
            return self.answer(429, b"later", Retry_After="3600")
        if fault == "silent":
            return server.ended.wait(20)
        if fault in ("loop", "elsewhere"):
            target = self.path if fault == "loop" else self.path.replace("/elsewhere/", "/-/")
            return self.answer(302, Location=target)
        if fault == "later" and count == 1:
            return self.answer(503, b"later", Retry_After="1")
        if fault == "expires":  # each address that it sends to is good for one request
            return self.answer(302, Location=f"/ticket{count}/{name}")
        if fault.startswith("ticket") and count > 1:
            return self.answer(403)
        if fault == "plain":
            return self.answer(302, Location=server.plain_url + "/-/" + name)
        try:
            with open(os.path.join(server.folder, name), "rb") as file:
                content = file.read()
        except OSError:
            return self.answer(404)
        self.serve(fault, content, changed=fault.startswith("changes") and count > int(fault[7:] or 1))

    def told_length(self, fault, content):
        return {"endless": 2**63 - 1, "vast": 10**15}.get(fault, len(content))

    # Of /put503/NAME the answer is 503.
    def do_PUT(self):
        self.rfile.read(int(self.headers["Content-Length"]))
        status = int(self.path[4:7])
        known = status != 412 or self.headers["If-None-Match"] == "*"
        self.answer(status if known else 200, Retry_After="0", Location="/elsewhere/x")

    def serve(self, fault, content, changed):
        tag = '"2"' if changed else '"1"'
        if changed:
            content = bytes(len(content))
        headers = {} if fault == "nameless" else {"ETag": tag}
        if fault == "encoded":
            headers["Content_Encoding"] = "gzip"
        wanted = re.fullmatch(r"bytes=(\d+)-(\d+)", self.headers.get("Range", ""))
        if self.headers.get("If-None-Match") == tag:
            return self.answer(304, **headers)
        if not wanted or fault == "whole":
            return self.answer(200, content, **headers)
        begin, end = int(wanted[1]), min(int(wanted[2]) + 1, len(content))
        body = content[begin:end]
        told = begin + 1 if fault == "shifted" and begin else begin
        headers["Content_Range"] = f"bytes {told}-{end - 1 - begin + told}/{self.told_length(fault, content)}"
        if fault in ("cut", "reset") and begin and len(body) > 20000:
            self.answer(206, body[:20000], len(body), **headers)
            self.wfile.flush()
            if fault == "reset":
                linger = struct.pack("ii", 1, 0)
                self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger)
            self.close_connection = True
            return None
        if fault == "stalls" and begin and self.server.counts[fault] == 2:
            self.answer(206, body[:20000], len(body), **headers)
            return self.server.ended.wait(20)
        if fault == "longer" and begin:
            body += b"more"
        if fault == "shorter" and begin:
            body = body[:-1]
        return self.answer(206, body, **headers)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, folder, context=None):
        super().__init__(("127.0.0.1", 0), Handler)
        if context:
            self.socket = context.wrap_socket(self.socket, server_side=True)
        self.folder, self.counts, self.plain_url = folder, {}, ""
        self.lock, self.ended = threading.Lock(), threading.Event()
        self.url = f"http{'s' if context else ''}://127.0.0.1:{self.server_address[1]}"
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def handle_error(self, *_):
        pass


if __name__ == "__main__":
    print(Server(sys.argv[1]).server_address[1], flush=True)
    while True:
        time.sleep(3600)
