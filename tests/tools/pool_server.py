"""A pool server for tests of the tools, in a folder of its own."""
import atexit
import json
import os
import socket
import subprocess
import urllib.request


class PoolServer:
    """Made with a free port, so that it can come back under the same URL. The environment is that of
    a user of the pool; starting it is the test's."""

    def __init__(self, program, folder):
        with socket.socket() as free:  # a port that was free a moment ago
            free.bind(("127.0.0.1", 0))
            self.url = f"http://127.0.0.1:{free.getsockname()[1]}"
        self.program, self.folder, self.process = program, folder, None
        subprocess.run([program, "init", folder, "--url", self.url], check=True, capture_output=True)
        with open(folder + "/agent.password", encoding="ascii") as file:
            self.password = file.read().strip()
        os.environ.update(KSPOOL_AGENT_CONFIG=folder + "/agent.cfg", KSPOOL_LOGIN="agent",
                          KSPOOL_PASSWORD=self.password)

    def start(self):
        self.process = subprocess.Popen([self.program, "serve", self.folder], stdout=subprocess.PIPE, text=True)
        atexit.register(self.process.kill)  # however the test ends
        assert self.process.stdout.readline().startswith("READY ")

    def stop(self):
        self.process.terminate()
        assert self.process.wait() == 0

    def kill(self):
        self.process.kill()
        self.process.wait()

    def admin(self, function, body):
        request = urllib.request.Request(f"{self.url}/__admin/{function}", json.dumps(body).encode())
        return json.load(urllib.request.urlopen(request))
