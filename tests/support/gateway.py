#!/usr/bin/env python3
"""nginx as a gateway that calls its own failures 503, as many are set up to do: a 502 or 504 for a
request that the server behind it carried out looks like a refusal. Usage: gateway.py PORT SERVER_PORT
(PORT 0: a free one). Becomes nginx, after a line "READY PORT"; SIGTERM ends it, connections included,
and so does the end of the program that started it. Exits with 77 where there is no nginx."""
import ctypes
import os
import shutil
import signal
import socket
import sys
import tempfile

# Nothing is written outside the folder, and nothing of the system's own nginx is read. The user counts for
# root alone: another one's worker could not enter the folder.
CONFIGURATION = """daemon off;
user root;
worker_processes 1;
pid {folder}/pid;
error_log /dev/null;
events {{}}
http {{
    access_log off;
    client_max_body_size 0;
    client_body_temp_path {folder}/body;
    proxy_temp_path {folder}/proxy;
    fastcgi_temp_path {folder}/fastcgi;
    uwsgi_temp_path {folder}/uwsgi;
    scgi_temp_path {folder}/scgi;
    server {{
        listen 127.0.0.1:{port};
        error_page 502 504 =503 @away;
        location / {{
            proxy_pass http://127.0.0.1:{server};
            proxy_http_version 1.1;
            proxy_buffering off;
            proxy_next_upstream off;
            proxy_read_timeout 500ms;
        }}
        location @away {{
            default_type text/plain;
            return 503 "the server is away\\n";
        }}
    }}
}}
"""


def find():
    return shutil.which("nginx", path=os.environ.get("PATH", "") + ":/usr/sbin:/usr/local/sbin")


if __name__ == "__main__":
    if find() is None:
        print("skipped: there is no nginx")
        sys.exit(77)
    # Named after the one port, so that a gateway that comes back takes the place of the killed one.
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", int(sys.argv[1])))
    listener.listen(511)
    port = listener.getsockname()[1]
    folder = tempfile.mkdtemp()
    with open(folder + "/nginx.conf", "w", encoding="ascii") as file:
        file.write(CONFIGURATION.format(folder=folder, port=port, server=sys.argv[2]))
    # nginx takes a listening socket over that NGINX names: no connection is refused from now on.
    os.set_inheritable(listener.fileno(), True)
    os.environ["NGINX"] = f"{listener.fileno()};"
    ctypes.CDLL(None).prctl(1, signal.SIGTERM)  # PR_SET_PDEATHSIG
    print("READY", port, flush=True)
    os.execv(find(), ["nginx", "-e", "/dev/null", "-c", folder + "/nginx.conf"])
