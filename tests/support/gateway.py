#!/usr/bin/env python3
"""nginx as a gateway that calls its own failures 503, as many are set up to do: a 502 or 504 for a
request that the server behind it carried out looks like a refusal. Usage: gateway.py FOLDER PORT
SERVER_PORT (PORT 0: a free one). Becomes nginx, after a line "READY PORT"; SIGTERM ends it, connections included,
and so does the end of the program that started it. Exits with 77 where there is no nginx."""
import ctypes
import os
import shutil
import signal
import socket
import sys


def find():
    return shutil.which("nginx", path=os.environ.get("PATH", "") + ":/usr/sbin:/usr/local/sbin")


if __name__ == "__main__":
    if find() is None:
        print("skipped: there is no nginx")
        sys.exit(77)
    # Named after the one port, so that a gateway that comes back takes the place of the killed one.
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", int(sys.argv[2])))
    listener.listen(511)
    port = listener.getsockname()[1]
    folder = os.path.abspath(sys.argv[1])
    os.makedirs(folder, exist_ok=True)
    with open(folder + "/nginx.conf", "w", encoding="utf-8") as file:
        with open(os.path.splitext(__file__)[0] + ".conf", encoding="utf-8") as configuration:
            file.write(configuration.read() % {"folder": folder, "port": port, "server": sys.argv[3]})
    # nginx takes a listening socket over that NGINX names: no connection is refused from now on.
    os.set_inheritable(listener.fileno(), True)
    os.environ["NGINX"] = f"{listener.fileno()};"
    ctypes.CDLL(None).prctl(1, signal.SIGTERM)  # PR_SET_PDEATHSIG
    os.write(1, f"READY {port}\n".encode())  # at once: who waits for it reads no further
    os.execv(find(), ["nginx", "-e", "/dev/null", "-c", folder + "/nginx.conf"])
