"""What tests of programs have alike."""
import difflib
import json
import os
import pathlib
import re
import subprocess
import tempfile

# Runs a command as one that may not read what its modes forbid, whoever runs the test.
POWERLESS = ["setpriv", "--bounding-set=-all", "--inh-caps=-all"] if os.geteuid() == 0 else []


def run(*command, code=0, **options):
    done = subprocess.run(command, capture_output=True, text=True, **options)
    assert done.returncode == code, (command[:5], done.returncode, done.stdout[:500], done.stderr[:500])
    return done


def found(agent, image, kind="f"):
    """The files, or folders, that the pool has of an image of the client "me"."""
    done = subprocess.run([agent, "find", "--client", "me", "--image", image, "--type", kind, "--json"], capture_output=True, text=True)
    assert done.returncode in (0, 10), done
    return json.loads(done.stdout)


def check_full_disk(code, *command):
    """That output which is lost is told, whether it shows at once or only at the end."""
    bearing = dict(os.environ, ASAN_OPTIONS="verify_asan_link_order=0")  # stdbuf preloads a library
    for buffering in ("-oL", "-o4096"):
        with open("/dev/full", "w") as full:
            lost = subprocess.run(["stdbuf", buffering, *command], stdout=full, stderr=subprocess.PIPE, env=bearing)
        assert lost.returncode == code and b"could not be written" in lost.stderr, lost


def check_usage(program, *calls):
    """That each call is refused with one line."""
    name = os.path.basename(program)
    for call in calls:
        stderr = run(program, *call, code=2).stderr
        assert stderr.count("\n") == 1 and stderr.startswith(name + ": "), (call, stderr)


def replay(name, folder, program, server=None, **names):
    """Replays a transcript of the folder of this file to the letter. Lines with ">" are commands, which bash runs in a
    folder with the programs that lie beside one of them, or orders to a server ("admin FUNCTION BODY"). Behind each
    stands what it says, on standard output first, and its exit code unless that is 0. $URL of the server, $TOP of the
    folder, $NOW for any time from 2025 on and the names that are given stand for what differs from run to run."""
    names.update({"URL": server.url} if server else {}, TOP=folder)
    env = {**os.environ, **names, "TZ": "UTC", "LC_ALL": "C.UTF-8",
           "PATH": os.path.dirname(os.path.abspath(program)) + ":" + os.environ["PATH"]}
    path = pathlib.Path(__file__).parent / (name + ".txt")
    expected, told = path.read_text("utf-8"), ""
    for line in expected.splitlines(keepends=True):
        if line.startswith("> admin "):
            _, _, function, body = line.split(maxsplit=3)
            server.admin(function, json.loads(body))
        elif line.startswith("> "):
            done = subprocess.run(["bash", "-o", "pipefail", "-c", line[2:]], capture_output=True, text=True, timeout=60,
                                  cwd=folder, env=env)
            line += done.stdout + done.stderr + f"= {done.returncode}\n" * (done.returncode != 0)
            for variable, value in names.items():
                line = line.replace(value, "$" + variable)
            line = re.sub(r"20(2[5-9]|[3-9]\d)-\d\d-\d\d[ T]\d\d:\d\d(:\d\d\+00:00)?", "$NOW", line)
        elif line[0] not in "#\n":
            continue  # what an earlier run said
        told += line
    if told != expected:
        heard = pathlib.Path(tempfile.gettempdir(), path.name)
        heard.write_text(told, "utf-8")
        changes = difflib.unified_diff(expected.splitlines(), told.splitlines(), "expected", str(heard), lineterm="")
        raise AssertionError("\n".join(changes))
