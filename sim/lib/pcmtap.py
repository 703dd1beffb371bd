"""Keeps the fifo outputs of one private MPD server drained into files.

    python3 -S pcmtap.py MPD.CONF MPD-PID FIFO=PCM-FILE...

Appends whatever arrives on each FIFO to its PCM-FILE (so tests can see that
sound was produced, and how much). Ends when the server has closed all its
fifos (it exited), and stops the server itself when its configuration file
disappears (the simulated root was deleted while the server ran).
"""

import fcntl
import os
import select
import signal
import sys
import time


def main(args):
    conf, mpd_pid, pairs = args[0], int(args[1]), args[2:]
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    taps = {}
    for pair in pairs:
        fifo, _, out = pair.partition("=")
        try:
            # Non-blocking open so a server that is already gone cannot hang us;
            # reads block again afterwards.
            fd = os.open(fifo, os.O_RDONLY | os.O_NONBLOCK)
        except OSError:
            continue
        fcntl.fcntl(fd, fcntl.F_SETFL, fcntl.fcntl(fd, fcntl.F_GETFL) & ~os.O_NONBLOCK)
        taps[fd] = out
    checked = time.monotonic()
    while taps:
        ready, _, _ = select.select(list(taps), [], [], 1.0)
        if time.monotonic() - checked >= 1.0:
            checked = time.monotonic()
            if not os.path.exists(conf):
                try:
                    os.kill(mpd_pid, signal.SIGTERM)
                except OSError:
                    pass
                return 0
        for fd in ready:
            data = os.read(fd, 65536)
            if not data:
                # The server closed its end: it has exited.
                os.close(fd)
                del taps[fd]
                continue
            try:
                out = os.open(taps[fd], os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o666)
            except OSError:
                continue
            try:
                os.write(out, data)
            finally:
                os.close(out)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
