"""The store of the bindings, as another process that uses it."""

import contextlib
import subprocess
import sys

from harness import sandbox

STORE = f"{sandbox.WORKDIR}/ip_user_cache/bindings.mdb"

# Holds the writer lock of the store named in its arguments from "held" until the end of its input.
_HOLDER = """
import ctypes, sys
lmdb = ctypes.CDLL("liblmdb.so.0")
environment, transaction = ctypes.c_void_p(), ctypes.c_void_p()
NO_FOLDER, NO_SYNC = 0x4000, 0x10000
assert lmdb.mdb_env_create(ctypes.byref(environment)) == 0
assert lmdb.mdb_env_open(environment, sys.argv[1].encode(), NO_FOLDER | NO_SYNC, 0o600) == 0
assert lmdb.mdb_txn_begin(environment, None, 0, ctypes.byref(transaction)) == 0
print("held", flush=True)
sys.stdin.read()
"""


@contextlib.contextmanager
def another_writer():
    """A process that is in the middle of a change until its `stdin` is closed."""
    with subprocess.Popen([sys.executable, "-c", _HOLDER, STORE], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as holder:
        assert holder.stdout.readline() == b"held\n"
        yield holder
