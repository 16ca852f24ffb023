"""A pool server for tests."""
import contextlib
import subprocess
from typing import Iterator, NamedTuple

from ._session import Session


class Sandbox(NamedTuple):
    """A running server, and what a user of its pool needs."""

    url: str
    config: str
    login: str
    password: str

    def session(self, **options: str | int) -> Session:
        """A session of its user."""
        return Session(self.config, login=self.login, password=self.password, **options)


# kspool-sandbox runs as long as this command, which ends at the end of its input: the server ends even if
# this process is killed.
SCRIPT = 'printf "%s\\n" "$KSPOOL_SANDBOX_URL" "$KSPOOL_AGENT_CONFIG" "$KSPOOL_LOGIN" "$KSPOOL_PASSWORD"; cat'


@contextlib.contextmanager
def sandbox(*options: str, program: str = "kspool-sandbox") -> Iterator[Sandbox]:
    """Starts the installed kspool-sandbox on a free port, with a new pool in a temporary folder; the end of the block
    removes both. `options` are those of `kspool-sandbox run`, such as "--tls"."""
    with subprocess.Popen([program, "run", *options, "--", "sh", "-c", SCRIPT], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, encoding="utf-8", start_new_session=True) as server:
        try:
            assert server.stdout is not None
            lines = [server.stdout.readline().rstrip("\n") for _ in Sandbox._fields]
            if not lines[-1]:
                raise RuntimeError(f"{program} run {' '.join(options)} did not start")
            yield Sandbox(*lines)
        finally:
            server.terminate()  # a forked process may hold the input open
            try:
                server.wait(10)
            finally:
                server.kill()
