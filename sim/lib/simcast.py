"""The simulated cast receivers of a root (make-root --cast-receiver), for avahi-browse.

DIR/var/sim/cast.json names the node program, the receiver script (sim/cast/receiver.js of the
source tree) and the receivers to list; each runs on demand with its state (port, pid, TLS
certificate, received.log, switches.json) in DIR/var/sim/cast/ID/ and ends by itself once that
directory is removed.
"""

import json
import os
import subprocess
import time


def config(root):
    try:
        with open(os.path.join(root, "var/sim/cast.json"), encoding="utf-8") as f:
            return json.load(f)
    except (OSError, ValueError):
        return None


def state_dir(root, receiver_id):
    return os.path.join(root, "var/sim/cast", receiver_id)


def _read_int(path):
    with open(path) as f:
        return int(f.read())


def ensure_running(root, cfg, receiver, wait=15.0):
    """The port of RECEIVER, started (detached, in a session of its own) when it does not run;
    None when it does not come up in time."""
    d = state_dir(root, receiver["id"])
    os.makedirs(d, exist_ok=True)
    try:
        os.kill(_read_int(os.path.join(d, "pid")), 0)
        return _read_int(os.path.join(d, "port"))
    except (OSError, ValueError):
        pass
    for name in ("port", "pid"):
        try:
            os.unlink(os.path.join(d, name))
        except OSError:
            pass
    argv = [cfg["node"], cfg["receiver"], "--state-dir", d, "--exit-with-dir",
            "--durations", os.path.join(root, "var/sim/cast/durations.json")]
    with open(os.path.join(d, "stderr"), "ab") as err:
        subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err,
                         start_new_session=True, close_fds=True)
    deadline = time.monotonic() + wait  # the first start also makes the TLS certificate
    while time.monotonic() < deadline:
        try:
            return _read_int(os.path.join(d, "port"))
        except (OSError, ValueError):
            time.sleep(0.02)
    return None


def avahi_lines(root):
    """avahi-browse's lines for _googlecast._tcp: the simulated receivers on loopback."""
    cfg = config(root)
    if cfg is None:
        return []
    lines = []
    for r in cfg.get("receivers", []):
        port = ensure_running(root, cfg, r)
        if port is None:
            continue
        name = "Chromecast-" + r["id"]
        txt = ('"id=%s" "cd=%s" "rm=" "ve=05" "md=%s" "ic=/setup/icon.png" "fn=%s" "ca=4101" "st=0" "bs=%s" '
               '"nf=1" "rs="' % (r["id"], r["id"][:16].upper(), r["model"], r["name"], r["id"][:12].upper()))
        lines.append("+;lo;IPv4;%s;_googlecast._tcp;local" % name)
        lines.append("=;lo;IPv4;%s;_googlecast._tcp;local;%s.local;127.0.0.1;%d;%s" % (name, name, port, txt))
    return lines
