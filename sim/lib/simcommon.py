"""Shared helpers for the simulated appliance's fake programs.

Fakes are run many times on the daemon's start-up path, so this module imports
nothing beyond os/fcntl and keeps its work to a few system calls.
"""

import fcntl
import os

CALLS_LOG = "var/sim/calls.log"


def root_path(root, path):
    """Maps an appliance path ("/etc/config/x.conf") into the simulated root."""
    return os.path.join(root, path.lstrip("/"))


def _json_str(s):
    out = ['"']
    for ch in s:
        o = ord(ch)
        if ch == '"':
            out.append('\\"')
        elif ch == "\\":
            out.append("\\\\")
        elif o < 0x20 or o == 0x7F or 0xD800 <= o <= 0xDFFF:
            # Control characters, and bytes that were not UTF-8 (Python keeps
            # them as lone surrogates), stay readable as \u escapes.
            out.append("\\u%04x" % o)
        else:
            out.append(ch)
    out.append('"')
    return "".join(out)


def json_list(items):
    """Compact JSON array of strings, as json.dumps(items, separators=(",", ":"),
    ensure_ascii=False) would write it; json itself costs a noticeable part of
    a fake's start-up time."""
    return "[" + ",".join(_json_str(s) for s in items) + "]"


def log_call(root, name, args):
    """Appends 'NAME ["arg1","arg2",...]' to DIR/var/sim/calls.log.

    The lock keeps lines of concurrent runs whole even when they are long."""
    line = (name + " " + json_list(args) + "\n").encode("utf-8", "surrogateescape")
    fd = os.open(os.path.join(root, CALLS_LOG), os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o666)
    try:
        fcntl.flock(fd, fcntl.LOCK_EX)
        view = memoryview(line)
        while view:
            view = view[os.write(fd, view):]
    finally:
        os.close(fd)  # also drops the lock


class StateLock:
    """Exclusive lock on DIR/var/sim/NAME.lock, for fakes that keep state in files
    and may run concurrently:  with StateLock(root, "tessaly"): ..."""

    def __init__(self, root, name):
        self._path = os.path.join(root, "var/sim", name + ".lock")
        self._fd = -1

    def __enter__(self):
        self._fd = os.open(self._path, os.O_RDWR | os.O_CREAT, 0o666)
        fcntl.flock(self._fd, fcntl.LOCK_EX)
        return self

    def __exit__(self, *exc):
        os.close(self._fd)
        self._fd = -1
        return False


def write_file_atomic(path, data):
    """Writes bytes or text so that a concurrent reader sees the old or the new
    contents, never a partial file."""
    if isinstance(data, str):
        data = data.encode("utf-8", "surrogateescape")
    tmp = "%s.tmp%d" % (path, os.getpid())
    with open(tmp, "wb") as f:
        f.write(data)
    os.replace(tmp, path)


def real_program(name, own_path):
    """The installed program NAME on PATH (standard directories when PATH is
    unset), skipping own_path: the fake that wraps it. None when missing."""
    own = os.path.realpath(own_path)
    dirs = os.environ.get("PATH") or "/usr/local/bin:/usr/bin:/bin"
    for d in dirs.split(os.pathsep):
        path = os.path.join(d or ".", name)
        if os.path.isfile(path) and os.access(path, os.X_OK) and os.path.realpath(path) != own:
            return path
    return None


def _read_int(path):
    with open(path) as f:
        return int(f.read())


def ensure_server(state_dir, argv, wait, stderr_path=None):
    """The port of the simulated network server whose pid and port files are in STATE_DIR,
    started from ARGV (detached, in a session of its own) when it does not run; None when it
    does not come up within WAIT seconds."""
    import subprocess
    import time
    os.makedirs(state_dir, exist_ok=True)
    try:
        os.kill(_read_int(os.path.join(state_dir, "pid")), 0)
        return _read_int(os.path.join(state_dir, "port"))
    except (OSError, ValueError):
        pass
    for name in ("port", "pid"):
        try:
            os.unlink(os.path.join(state_dir, name))
        except OSError:
            pass
    err = open(stderr_path, "ab") if stderr_path else subprocess.DEVNULL
    try:
        subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err,
                         start_new_session=True, close_fds=True)
    finally:
        if stderr_path:
            err.close()
    deadline = time.monotonic() + wait
    while time.monotonic() < deadline:
        try:
            return _read_int(os.path.join(state_dir, "port"))
        except (OSError, ValueError):
            time.sleep(0.02)
    return None
