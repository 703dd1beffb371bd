"""Playback state of the simulated DLNA renderers.

One file per renderer, DIR/var/sim/renderers/ID.state (ID: the deviceId without
"uuid:"), of "key=value" lines; the media agent reads it on every poll, so the
format is parsed by hand (json costs more than the rest of a run).

Nothing runs in the background. While the stored transport is PLAYING the
position is

    pos(t) = position + (t - since) * speed       (speed 0 under "stall")

capped at the track's duration; before `since` the renderer shows TRANSITIONING,
and once pos reaches the duration it shows STOPPED at the end. settle() writes
that end into the stored state so later changes start from what was shown.
"""

import os

STATE_DIR = "var/sim/renderers"

NO_MEDIA = "NO_MEDIA_PRESENT"
STOPPED = "STOPPED"
PLAYING = "PLAYING"
PAUSED = "PAUSED_PLAYBACK"
TRANSITIONING = "TRANSITIONING"

PICTURE_EXTENSIONS = (".jpg", ".jpeg", ".png", ".gif", ".bmp")

# Stored fields in file order, with their types and the values of a new renderer.
FIELDS = (
    ("deviceId", str, ""),
    ("deviceName", str, ""),
    ("present", bool, True),
    ("transport", str, NO_MEDIA),
    ("position", float, 0.0),
    ("since", float, 0.0),
    ("volume", int, 30),
    ("refuse", bool, False),
    ("refuse_content", str, ""),
    ("busy", int, 0),
    ("stall", bool, False),
    ("fail_position", bool, False),
    ("speed", float, 1.0),
    ("transition", float, 0.15),
    ("xbmc", bool, False),
    ("transcode", bool, False),
)
TRACK_FIELDS = (
    ("objectID", str, ""),
    ("path", str, ""),
    ("duration", float, 0.0),
    ("picture", bool, False),
    ("url", str, ""),
    ("interface", str, ""),
    ("audioTrack", str, ""),
    ("subtitle", str, ""),
    ("externalSubtitle", str, ""),
)

TRUE_WORDS = ("1", "true", "yes", "on")
FALSE_WORDS = ("0", "false", "no", "off")


def bare_id(uuid):
    return uuid[5:] if uuid.startswith("uuid:") else uuid


def state_path(root, uuid):
    name = "".join(c if c.isalnum() or c in "-._" else "_" for c in bare_id(uuid))
    return os.path.join(root, STATE_DIR, (name or "_") + ".state")


def new_renderer(device_id, device_name="", present=True):
    r = {name: default for name, _, default in FIELDS}
    r.update(deviceId=device_id, deviceName=device_name, present=present, track=None)
    return r


def _escape(text):
    return text.replace("\\", "\\\\").replace("\n", "\\n")


def _unescape(text):
    if "\\" not in text:
        return text
    out, i = [], 0
    while i < len(text):
        c = text[i]
        if c == "\\" and i + 1 < len(text):
            i += 1
            c = "\n" if text[i] == "n" else text[i]
        out.append(c)
        i += 1
    return "".join(out)


def _to_text(kind, value):
    if kind is bool:
        return "1" if value else "0"
    if kind is float:
        return repr(float(value))
    return str(value)


def _from_text(kind, text):
    if kind is bool:
        return text in TRUE_WORDS
    try:
        return kind(text)
    except ValueError:
        return kind()


def dump(r):
    lines = ["# simulated DLNA renderer: playback state and switches (see simctl renderer-set)"]
    for name, kind, _ in FIELDS:
        lines.append("%s=%s" % (name, _escape(_to_text(kind, r[name]))))
    if r["track"] is not None:
        for name, kind, _ in TRACK_FIELDS:
            lines.append("track.%s=%s" % (name, _escape(_to_text(kind, r["track"][name]))))
    return "\n".join(lines) + "\n"


def load(root, uuid):
    """The renderer's state, or None when it has no state file."""
    try:
        with open(state_path(root, uuid), encoding="utf-8", errors="surrogateescape") as f:
            text = f.read()
    except OSError:
        return None
    raw = {}
    for line in text.split("\n"):
        if line and not line.startswith("#"):
            key, _, value = line.partition("=")
            raw[key] = _unescape(value)
    r = {name: (_from_text(kind, raw[name]) if name in raw else default) for name, kind, default in FIELDS}
    if "track.path" in raw:
        r["track"] = {name: (_from_text(kind, raw["track." + name]) if "track." + name in raw else default)
                      for name, kind, default in TRACK_FIELDS}
    else:
        r["track"] = None
    return r


def save(root, r):
    import simcommon
    simcommon.write_file_atomic(state_path(root, r["deviceId"]), dump(r))


def position_at(r, t):
    track = r["track"]
    if track is None:
        return 0.0
    pos = r["position"]
    if r["transport"] == PLAYING and t > r["since"] and not track["picture"] and not r["stall"]:
        pos += (t - r["since"]) * r["speed"]
    if track["duration"] > 0 and pos > track["duration"]:
        pos = track["duration"]
    return pos


def _ended(r, t):
    track = r["track"]
    return (r["transport"] == PLAYING and t >= r["since"] and not track["picture"]
            and track["duration"] > 0 and position_at(r, t) >= track["duration"])


def state_at(r, t):
    if r["track"] is None:
        return NO_MEDIA
    if r["transport"] == PLAYING:
        if t < r["since"]:
            return TRANSITIONING
        if _ended(r, t):
            return STOPPED
    return r["transport"]


def settle(r, t):
    """Stores the end of the track once it has been reached while playing."""
    if r["track"] is not None and _ended(r, t):
        r["transport"] = STOPPED
        r["position"] = r["track"]["duration"]
        r["since"] = 0.0


def rebase(r, t):
    """Folds the time played so far into `position`, so that a change of speed
    or a jump applies from t on."""
    if r["track"] is not None and r["transport"] == PLAYING and t > r["since"]:
        r["position"] = position_at(r, t)
        r["since"] = t


def start(r, t, delay):
    """PLAYING from the held position, advancing from t + delay; a track stopped
    at its end starts again from 0."""
    track = r["track"]
    if r["transport"] == STOPPED and track["duration"] > 0 and r["position"] >= track["duration"]:
        r["position"] = 0.0
    r["transport"] = PLAYING
    r["since"] = t + delay


def freeze(r, t, transport):
    """PAUSED_PLAYBACK or STOPPED at the position reached."""
    r["position"] = position_at(r, t)
    r["transport"] = transport
    r["since"] = 0.0


def parse_time(text):
    """Seconds of "H:MM:SS[.fff]" or "SS[.fff]"; None when it does not parse."""
    parts = text.strip().split(":")
    if not 1 <= len(parts) <= 3:
        return None
    try:
        seconds = 0.0
        for p in parts[:-1]:
            if not p.isdigit():
                return None
            seconds = seconds * 60 + int(p)
        last = float(parts[-1])
    except ValueError:
        return None
    if last < 0 or last != last or last == float("inf") or (len(parts) > 1 and last >= 60):
        return None
    return seconds * 60 + last if len(parts) > 1 else last


def format_rel_time(seconds):
    ms = int(seconds * 1000)
    s, ms = divmod(ms, 1000)
    return "%d:%02d:%02d.%03d" % (s // 3600, s // 60 % 60, s % 60, ms)


def format_duration(seconds):
    s = int(seconds)
    return "%d:%02d:%02d" % (s // 3600, s // 60 % 60, s % 60)
