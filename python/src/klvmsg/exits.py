"""How the command ends: its exit codes, and the exception that carries one."""

# As of klvmsgcat.
DONE, NO_CONNECTION, USAGE, FILE, PEER_GONE, OUT_OF_STEP, TIMEOUT = range(7)
DIFFERENT = 1  # of commands that make no connection: recordings differ, a statement is broken

EXIT_CODES = """exit codes: 0 done, 1 no connection, 2 usage, 3 a file, 4 the peer has gone,
5 out of step, 6 timeout"""


class Failure(Exception):
    """Ends the command with a word and a code."""

    def __init__(self, code: int, text: str) -> None:
        super().__init__(text)
        self.code = code


def missing(what: str, module: str, error: ImportError) -> Failure:
    """What to raise when a package that only a part of the command needs is not there."""
    return Failure(USAGE, f"{what} needs {module} (apt-get install python3-{module}): {error}")
