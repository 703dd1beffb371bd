"""The simulated cast receivers of a root (make-root --cast-receiver), for avahi-browse.

DIR/var/sim/cast.json names the node program, the receiver script (sim/cast/receiver.js of the
source tree) and the receivers to list; each runs on demand with its state (port, pid, TLS
certificate, received.log, switches.json) in DIR/var/sim/cast/ID/ and ends by itself once that
directory is removed.
"""

import json
import os


def config(root):
    try:
        with open(os.path.join(root, "var/sim/cast.json"), encoding="utf-8") as f:
            return json.load(f)
    except (OSError, ValueError):
        return None


def state_dir(root, receiver_id):
    return os.path.join(root, "var/sim/cast", receiver_id)


def ensure_running(root, cfg, receiver, wait=15.0):
    """The port of RECEIVER, started when it does not run; None when it does not come up in time
    (the first start also makes the TLS certificate)."""
    import simcommon
    d = state_dir(root, receiver["id"])
    argv = [cfg["node"], cfg["receiver"], "--state-dir", d, "--exit-with-dir",
            "--durations", os.path.join(root, "var/sim/cast/durations.json")]
    return simcommon.ensure_server(d, argv, wait, stderr_path=os.path.join(d, "stderr"))


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
