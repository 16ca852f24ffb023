"""What tests of programs have alike."""
import json
import os
import subprocess


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
