"""The simulated media agent (DIR/usr/bin/tessaly). The script only finds the
root, records the run and calls main(); the commands live here so that their
compiled form is cached (make-root precompiles var/sim/lib), which keeps a run
near the interpreter's own start-up time.

Library: DIR/var/sim/library.tsv (written by make-root), one tab-separated line
per entry:

  objectID dbID mediaType path-under-root title duration [start length audio subtitles external]

Renderers: DIR/var/sim/renderers.json (the listing) and
DIR/var/sim/renderers/ID.state (playback, see simrender).
"""

import os
import sys

import simcommon

ROOT = None  # set by main()


def escape(text):
    return (text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")
            .replace('"', "&quot;").replace("'", "&apos;"))


def answer(status, **fields):
    out = ["<root>", "<status>%s</status>" % status]
    for name, value in fields.items():
        out.append("<%s>%s</%s>" % (name, escape(str(value)), name))
    out.append("</root>")
    sys.stdout.write("".join(out) + "\n")
    return 0


EXTRA_COLUMNS = ("start", "length", "audio", "subtitles", "external")


def library():
    entries = []
    try:
        with open(os.path.join(ROOT, "var/sim/library.tsv"), encoding="utf-8") as f:
            for line in f:
                parts = line.rstrip("\n").split("\t")
                if len(parts) >= 6 and not line.startswith("#"):
                    e = {"objectID": parts[0], "dbID": parts[1], "mediaType": parts[2],
                         "path": os.path.join(ROOT, parts[3]), "title": parts[4],
                         "duration": parts[5]}
                    for name, value in zip(EXTRA_COLUMNS, parts[6:]):
                        e[name] = value
                    entries.append(e)
    except OSError:
        pass
    return entries


def by_object_id(opts):
    for e in library():
        if e["objectID"] == opts.get("--objectID"):
            return e
    return None


def langs(e, column):
    return [x for x in e.get(column, "").split(",") if x]


def external_subtitles(e):
    """[(lang, absolute path, automatic)] of the entry's external subtitle files."""
    out = []
    for item in e.get("external", "").split("|"):
        parts = item.split(":")
        if len(parts) == 3:
            out.append((parts[0], os.path.join(ROOT, parts[1]), parts[2] == "1"))
    return out


def options(args):
    opts = {}
    i = 0
    while i < len(args):
        if args[i].startswith("-") and i + 1 < len(args):
            opts[args[i]] = args[i + 1]
            i += 2
        else:
            i += 1
    return opts


def same_file(a, b):
    try:
        return os.path.realpath(a) == os.path.realpath(b)
    except OSError:
        return False


def get_object_id(opts):
    if "--filePath" in opts:
        for e in library():
            if same_file(e["path"], opts["--filePath"]):
                return answer("success", objectID=e["objectID"])
        return answer("fail")
    if "--dbID" in opts:
        for e in library():
            if e["dbID"] == opts["--dbID"] and e["mediaType"] == opts.get("--mediaType", e["mediaType"]):
                return answer("success", objectID=e["objectID"])
        return answer("fail")
    return answer("fail")


def get_file_path(opts):
    e = by_object_id(opts)
    if e is None:
        return answer("fail")
    if e.get("start"):
        # A slice of a larger file: where it starts and how long it lasts, in seconds.
        return answer("success", filePath=e["path"], startTime=e["start"], duration=e["length"])
    return answer("success", filePath=e["path"])


def media_url(e):
    ext = os.path.splitext(e["path"])[1]
    return "http://127.0.0.1:8200/media/%s%s" % (e["objectID"], ext)


def get_content_url(opts):
    if "--objectID" in opts:
        e = by_object_id(opts)
    elif "--filePath" in opts:
        e = next((x for x in library() if same_file(x["path"], opts["--filePath"])), None)
    else:
        e = None
    if e is None:
        return answer("fail")
    return answer("success", url=media_url(e))


UPNP_CLASS = {"0": "object.item.audioItem.musicTrack", "1": "object.item.imageItem.photo",
              "2": "object.item.videoItem"}
MIME = {".mp3": "audio/mpeg", ".mp4": "video/mp4", ".jpg": "image/jpeg"}


def browse(opts):
    e = by_object_id(opts)
    if e is None or opts.get("--browseFlag") != "BrowseMetadata":
        return answer("fail")
    for name in ("--startingIndex", "--requestedCount"):
        if name in opts and not opts[name].lstrip("-").isdigit():
            return answer("fail")
    mime = MIME.get(os.path.splitext(e["path"])[1], "application/octet-stream")
    item = ('<item id="%s" parentID="0" restricted="1"><dc:title>%s</dc:title>'
            "<upnp:class>%s</upnp:class>%s"
            '<res protocolInfo="http-get:*:%s:*" duration="%s.000">%s</res></item>'
            % (escape(e["objectID"]), escape(e["title"]), UPNP_CLASS.get(e["mediaType"], "object.item"),
               # Music has its album's cover.
               "<upnp:albumArtURI>http://127.0.0.1:8200/art/%s.jpg</upnp:albumArtURI>" % escape(e["objectID"])
               if e["mediaType"] == "0" else "", mime, e["duration"], escape(media_url(e))))
    sys.stdout.write("<root><status>success</status><Result>"
                     '<DIDL-Lite xmlns="urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/" '
                     'xmlns:dc="http://purl.org/dc/elements/1.1/" '
                     'xmlns:upnp="urn:schemas-upnp-org:metadata-1-0/upnp/">'
                     "%s</DIDL-Lite></Result><NumberReturned>1</NumberReturned>"
                     "<TotalMatches>1</TotalMatches></root>\n" % item)
    return 0


def track_answer(response, tracks):
    """<root><RESPONSE><Result><DIDL-Lite>TRACKS</DIDL-Lite></Result></RESPONSE></root>; the
    Result holds elements, not escaped text."""
    sys.stdout.write("<root><%s><Result><DIDL-Lite>%s</DIDL-Lite></Result></%s></root>\n"
                     % (response, "".join(tracks), response))
    return 0


def simple_tracks(element, languages):
    return ["<%s><TrackId>%d</TrackId><TrackLang>%s</TrackLang></%s>" % (element, i, escape(lang), element)
            for i, lang in enumerate(languages)]


def get_audio_track(opts):
    e = by_object_id(opts)
    if e is None:
        return answer("fail")
    return track_answer("u:GetAudioTrackResponse", simple_tracks("AudioTrack", langs(e, "audio")))


def get_subtitle(opts):
    e = by_object_id(opts)
    if e is None:
        return answer("fail")
    return track_answer("u:GetSubtitleTrackResponse", simple_tracks("SubtitleTrack", langs(e, "subtitles")))


def get_external_subtitle(opts):
    e = by_object_id(opts)
    if e is None:
        return answer("fail")
    tracks = ["<ExternalSubtitleTrack><TrackId>%d</TrackId><TrackLang>%s</TrackLang>"
              "<TrackPath>%s</TrackPath><Automatic>%d</Automatic></ExternalSubtitleTrack>"
              % (i, escape(lang), escape(path), 1 if auto else 0)
              for i, (lang, path, auto) in enumerate(external_subtitles(e))]
    return track_answer("u:GetExternalSubtitleResponse", tracks)


# The elements of a renderer in the listing, in order; the other fields of
# renderers.json are the simulation's own.
RENDERER_FIELDS = ("deviceName", "deviceId", "ip", "type", "modelName")


def list_renderers(opts):
    import json
    try:
        with open(os.path.join(ROOT, "var/sim/renderers.json"), encoding="utf-8") as f:
            renderers = json.load(f)["renderers"]
    except (OSError, ValueError, KeyError):
        renderers = []
    devices = []
    for r in renderers:
        if r.get("present", True):
            devices.append("<device>%s</device>" % "".join(
                "<%s>%s</%s>" % (name, escape(str(r[name])), name) for name in RENDERER_FIELDS if name in r))
    sys.stdout.write("<root><status>success</status>%s</root>\n" % "".join(devices))
    return 0


# Playback on the simulated renderers: state in DIR/var/sim/renderers/ID.state
# (see simrender). Replies of the transport commands use <Status>, those of
# getContentUrlByMAC <status>, as the player reads them.

def status_answer(status, *elements):
    sys.stdout.write("<root>%s<Status>%s</Status></root>\n" % ("".join(elements), status))
    return 0


def element(name, value):
    return "<%s>%s</%s>" % (name, escape(str(value)), name)


def existing_file(path):
    """The file named by an agent argument: as given, else inside the root."""
    if os.path.isfile(path):
        return path
    if path.startswith("/"):
        inside = simcommon.root_path(ROOT, path)
        if os.path.isfile(inside):
            return inside
    return None


def library_entry_of_file(path):
    return next((e for e in library() if same_file(e["path"], path)), None)


def probe_duration(path):
    """Seconds of a file outside the library, measured by the real ffprobe and
    cached by path, size and modification time; 0 when it cannot be measured."""
    try:
        st = os.stat(path)
    except OSError:
        return 0.0
    key = "%d\t%d\t" % (st.st_size, st.st_mtime_ns)
    real = os.path.realpath(path)
    cache = os.path.join(ROOT, "var/sim/renderers/durations.tsv")
    try:
        with open(cache, encoding="utf-8", errors="surrogateescape") as f:
            for line in f:
                size, mtime, seconds, cached = line.rstrip("\n").split("\t", 3)
                if cached == real and key == "%s\t%s\t" % (size, mtime):
                    return float(seconds)
    except (OSError, ValueError):
        pass
    ffprobe = simcommon.root_path(ROOT, "/usr/local/medialibrary/bin/ffprobe")
    if not os.access(ffprobe, os.X_OK):
        ffprobe = simcommon.real_program("ffprobe", "")
    seconds = 0.0
    if ffprobe:
        import subprocess
        try:
            out = subprocess.run([ffprobe, "-v", "error", "-show_entries", "format=duration",
                                  "-of", "default=noprint_wrappers=1:nokey=1", path],
                                 stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                 stderr=subprocess.DEVNULL, timeout=10).stdout
            seconds = max(0.0, float(out.decode().strip()))
        except (OSError, ValueError, subprocess.SubprocessError):
            seconds = 0.0
    if "\n" not in real:
        try:
            with open(cache, "a", encoding="utf-8", errors="surrogateescape") as f:
                f.write("%s%r\t%s\n" % (key, seconds, real))
        except OSError:
            pass
    return seconds


def file_id(path):
    """Content id of a file outside the library: FNV-1a of its real path."""
    h = 0x811C9DC5
    for b in os.path.realpath(path).encode("utf-8", "surrogateescape"):
        h = ((h ^ b) * 0x01000193) & 0xFFFFFFFF
    return "file_%08x" % h


def load_track(opts):
    """The track named by --objectID or --filePath, or None."""
    import simrender
    if "--objectID" in opts:
        e = by_object_id(opts)
        if e is None:
            return None
        path = e["path"]
    elif "--filePath" in opts:
        path = existing_file(opts["--filePath"])
        if path is None:
            return None
        e = library_entry_of_file(path)
    else:
        return None
    if e is not None:
        duration = simrender.parse_time(e["duration"]) or 0.0
        picture = e["mediaType"] == "1"
        object_id, url = e["objectID"], media_url(e)
    else:
        picture = os.path.splitext(path)[1].lower() in simrender.PICTURE_EXTENSIONS
        duration = 0.0 if picture else probe_duration(path)
        object_id = ""
        url = "http://127.0.0.1:8200/media/%s%s" % (file_id(path), os.path.splitext(path)[1])
    return {"objectID": object_id, "path": path, "duration": duration, "picture": picture, "url": url,
            "interface": opts.get("--interface", ""), "audioTrack": opts.get("--audioTrack", ""),
            "subtitle": opts.get("--subtitle", ""), "externalSubtitle": opts.get("--externalSubtitle", "")}


def set_av_transport_url(r, opts, t):
    import simrender
    if r["busy"] > 0:
        r["busy"] -= 1
        return status_answer("Busy"), True
    if r["refuse"]:
        return status_answer("Fail"), False
    track = load_track(opts)
    if track is None:
        return status_answer("Fail"), False
    needle = r["refuse_content"]
    if needle and any(needle in text for text in (opts.get("--objectID", ""), opts.get("--filePath", ""),
                                                  track["path"])):
        return status_answer("Fail"), False
    position = 0.0
    if "--position" in opts:
        position = simrender.parse_time(opts["--position"])
        if position is None:
            return status_answer("Fail"), False
        if track["duration"] > 0:
            position = min(position, track["duration"])
    r["track"] = track
    r["transport"] = simrender.STOPPED
    r["position"] = position
    r["since"] = 0.0
    return status_answer("Success"), True


def play(r, opts, t):
    import simrender
    if r["track"] is None:
        return status_answer("Fail"), False
    if r["transport"] != simrender.PLAYING:
        simrender.start(r, t, r["transition"])
        return status_answer("Success"), True
    return status_answer("Success"), False


def pause(r, opts, t):
    import simrender
    if r["transport"] == simrender.PLAYING:
        simrender.freeze(r, t, simrender.PAUSED)
        return status_answer("Success"), True
    return status_answer("Success" if r["transport"] == simrender.PAUSED else "Fail"), False


def stop(r, opts, t):
    import simrender
    if r["track"] is None:
        return status_answer("Success"), False
    r["transport"] = simrender.STOPPED
    r["position"] = 0.0
    r["since"] = 0.0
    return status_answer("Success"), True


def get_transport_info(r, opts, t):
    import simrender
    return status_answer("Success", element("CurrentTransportState", simrender.state_at(r, t))), False


def get_position_info(r, opts, t):
    import simrender
    if r["fail_position"]:
        return status_answer("fail"), False
    duration = r["track"]["duration"] if r["track"] else 0.0
    sys.stdout.write("<root><Status>Success</Status><RelTime>%s</RelTime><TrackDuration>%s</TrackDuration>"
                     "</root>\n" % (simrender.format_rel_time(simrender.position_at(r, t)),
                                    simrender.format_duration(duration)))
    return 0, False


def set_volume(r, opts, t):
    try:
        volume = int(opts.get("--vol", "").strip())
    except ValueError:
        return status_answer("Fail"), False
    r["volume"] = max(0, min(100, volume))
    return status_answer("Success"), True


def get_volume(r, opts, t):
    return status_answer("Success", element("CurrentVolume", r["volume"])), False


def on_renderer(action):
    """Runs ACTION(renderer, opts, now) -> (exit, changed) under the renderers'
    lock; an unknown or absent renderer answers Fail."""
    def run(opts):
        import time
        import simrender
        with simcommon.StateLock(ROOT, "renderers"):
            r = simrender.load(ROOT, opts.get("--uuid", ""))
            if r is None or not r["present"]:
                return status_answer("Fail")
            t = time.time()
            simrender.settle(r, t)
            code, changed = action(r, opts, t)
            if changed:
                simrender.save(ROOT, r)
            return code
    return run


def renderer_flag(opts, name):
    import simrender
    r = simrender.load(ROOT, opts.get("--uuid", ""))
    return r is not None and r["present"] and r[name]


def is_xbmc(opts):
    sys.stdout.write("xbmc\n" if renderer_flag(opts, "xbmc") else "false\n")
    return 0


def get_content_url_by_mac(opts):
    import simrender
    r = simrender.load(ROOT, opts.get("--uuid", ""))
    if r is None or not r["present"]:
        return answer("fail")
    if "--filePath" in opts:
        path = existing_file(opts["--filePath"])
        if path is None:
            return answer("fail")
        e = library_entry_of_file(path)
        name = e["objectID"] if e else file_id(path)
    elif "--dbID" in opts:
        e = next((x for x in library() if x["dbID"] == opts["--dbID"]
                  and x["mediaType"] == opts.get("--mediaType")), None)
        if e is None:
            return answer("fail")
        name, path = e["objectID"], e["path"]
    elif "--objectID" in opts:
        e = by_object_id(opts)
        if e is None:
            return answer("fail")
        name, path = e["objectID"], e["path"]
    else:
        return answer("fail")
    prefix = "http://127.0.0.1:8200/media/" + ("Transcode/" if r["transcode"] else "")
    return answer("success", url=prefix + name + os.path.splitext(path)[1])


COMMANDS = {
    "setAvTransportUrl": on_renderer(set_av_transport_url),
    "Play": on_renderer(play),
    "Pause": on_renderer(pause),
    "Stop": on_renderer(stop),
    "getTransportInfo": on_renderer(get_transport_info),
    "getPositionInfo": on_renderer(get_position_info),
    "setVolume": on_renderer(set_volume),
    "getVolume": on_renderer(get_volume),
    "isXBMC": is_xbmc,
    "getContentUrlByMAC": get_content_url_by_mac,
    "getObjectID": get_object_id,
    "getFilePath": get_file_path,
    "getContentUrl": get_content_url,
    "browse": browse,
    "getAudioTrack": get_audio_track,
    "getSubtitle": get_subtitle,
    "getExternalSubtitle": get_external_subtitle,
    "list": list_renderers,
}


def main(root, args):
    global ROOT
    ROOT = root
    opts = options(args)
    handler = COMMANDS.get(opts.get("-c"))
    if handler is None:
        sys.stderr.write("tessaly: unknown command %r\n" % opts.get("-c"))
        return 1
    return handler(opts)
