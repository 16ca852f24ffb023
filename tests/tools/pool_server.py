"""A pool server for tests of programs, in a folder of its own, and one that answers as a test wants."""
import atexit
import contextlib
import http.server
import json
import os
import re
import signal
import socket
import subprocess
import threading
import urllib.request

OPENER = urllib.request.build_opener(urllib.request.ProxyHandler({}))


class PoolServer:
    """Made with a free port, so that it can come back under the same URL. The environment is that of
    a user of the pool; starting it is the test's."""

    def __init__(self, program, folder, *options, url="http://127.0.0.1:{}"):
        with socket.socket() as free:  # a port that was free a moment ago
            free.bind(("127.0.0.1", 0))
            self.url = url.format(free.getsockname()[1])
        self.program, self.folder, self.process = program, folder, None
        subprocess.run([program, "init", folder, "--url", self.url, "--no-sync", *options], check=True, capture_output=True)
        self.config = folder + "/agent.cfg"
        with open(folder + "/agent.password", encoding="ascii") as file:
            self.password = file.read().strip()
        os.environ.update(KSPOOL_AGENT_CONFIG=self.config, KSPOOL_LOGIN="agent", KSPOOL_PASSWORD=self.password)

    def start(self, *options, sync=False, **pipes):
        self.process = subprocess.Popen([self.program, "serve", self.folder, *["--no-sync"][sync:], *options],
                                        stdout=subprocess.PIPE, text=True, **pipes)
        atexit.register(self.process.kill)  # however the test ends
        self.url, pid = re.fullmatch(r"READY url=(\S+) pid=(\d+)\n", self.process.stdout.readline()).groups()
        assert int(pid) == self.process.pid

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        assert self.process.wait(20) == 0

    def kill(self):
        self.process.kill()
        self.process.wait()

    def admin(self, function, body=None, method="POST"):
        root = "/".join(self.url.split("/")[:3])
        order = urllib.request.Request(f"{root}/__admin/{function}", json.dumps(body).encode(),
                                       {"Content-Type": "application/json"}, method=method)
        return json.load(OPENER.open(order))


@contextlib.contextmanager
def answering(answer):
    """The URL of a server that answers each POST with a text made from its body. Surrogates of the text stand for bytes."""
    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_POST(self):
            body = answer(self.rfile.read(int(self.headers["Content-Length"]))).encode(errors="surrogateescape")
            self.send_response(200)
            self.send_header("Content-Type", "text/plain")
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, *_):
            pass

    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        yield f"http://127.0.0.1:{server.server_port}"
        server.shutdown()
