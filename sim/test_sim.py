"""Checks of the simulated appliance: make-root, the yarrow INI reader, the media
agent and the media library's tools, the local sound outputs (private mpd
servers through the mpd/mpc wrappers, the shared instance's output list,
/proc/asound), the network discovery fakes and the simulated DLNA renderers.

Run from sim/:  python3 -m unittest test_sim
"""

import json
import math
import os
import re
import shutil
import struct
import subprocess
import tempfile
import time
import unittest
import sys
import wave
import xml.etree.ElementTree as ET
from concurrent.futures import ThreadPoolExecutor

SIM_DIR = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(SIM_DIR, "lib"))
import simrender  # noqa: E402
MAKE_ROOT = os.path.join(SIM_DIR, "make-root")

SAMPLE_INI = """\
top = before any section
; comment = not a key
[Net]
  Host Name   =   box one  
url = http://x/?a=b
# Host Name = commented out
[net]
Host Name = lower-case section
[Case]
Mode = upper
"""


class SimRootTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.root = os.path.join(cls.tmp.name, "root")
        subprocess.run([MAKE_ROOT, cls.root], check=True)
        cls.ini = os.path.join(cls.root, "etc/sample.conf")
        with open(cls.ini, "w") as f:
            f.write(SAMPLE_INI)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def yarrow(self, *args):
        p = subprocess.run([os.path.join(self.root, "sbin/yarrow"), *args],
                           capture_output=True, text=True)
        return p.returncode, p.stdout

    def calls(self):
        with open(os.path.join(self.root, "var/sim/calls.log")) as f:
            return f.read().splitlines()


class YarrowLookupTest(SimRootTest):
    def test_option_forms_find_the_same_value(self):
        ini = self.ini
        for args in (["-f", ini, "Net", "Host Name"],
                     ["-f", ini, "-d", "x", "Net", "Host Name"],
                     ["-f", ini, "-d", "x", "-c", "Net", "host name"],
                     ["Net", "Host Name", "-d", "x", "-f", ini],
                     ["Net", "-f", ini, "Host Name"]):
            with self.subTest(args=args):
                self.assertEqual(self.yarrow(*args), (0, "box one\n"))

    def test_values_and_sections(self):
        ini = self.ini
        self.assertEqual(self.yarrow("-f", ini, "Net", "url"), (0, "http://x/?a=b\n"))
        self.assertEqual(self.yarrow("-f", ini, "", "top"), (0, "before any section\n"))
        self.assertEqual(self.yarrow("-f", ini, "net", "Host Name"), (0, "lower-case section\n"))
        # Keys of another section and commented lines are not found.
        self.assertEqual(self.yarrow("-f", ini, "", "Host Name"), (1, ""))
        self.assertEqual(self.yarrow("-f", ini, "Case", "comment"), (1, ""))

    def test_case_matters_unless_c(self):
        self.assertEqual(self.yarrow("-f", self.ini, "Case", "mode"), (1, ""))
        self.assertEqual(self.yarrow("-f", self.ini, "-c", "Case", "MODE"), (0, "upper\n"))

    def test_missing_key_or_file_gives_default_or_failure(self):
        missing = os.path.join(self.root, "etc/none.conf")
        self.assertEqual(self.yarrow("-f", self.ini, "Net", "nope"), (1, ""))
        self.assertEqual(self.yarrow("-f", missing, "Net", "url"), (1, ""))
        self.assertEqual(self.yarrow("-f", missing, "-d", "FALSE", "Net", "url"), (0, "FALSE\n"))
        self.assertEqual(self.yarrow("-f", self.ini, "-d", "", "Net", "nope"), (0, "\n"))
        self.assertEqual(self.yarrow("-f", self.ini, "Net")[0], 1)

    def test_appliance_configuration(self):
        conf = os.path.join(self.root, "etc/config")
        self.assertEqual(self.yarrow("-f", conf + "/modl.conf", "XUMA", "Install_Path"),
                         (0, self.root + "/opt/XUMA\n"))
        self.assertTrue(os.path.isdir(self.root + "/opt/XUMA"))
        self.assertEqual(self.yarrow("-f", conf + "/tarvik.conf", "System", "Build Number"),
                         (0, "20261101\n"))
        vantrel = self.root + "/mnt/ext/opt/XUMA/etc/config/Vantrel.conf"
        self.assertEqual(self.yarrow("-f", vantrel, "-d", "0", "", "default_subtitle_lang"),
                         (0, "eng\n"))


class CallsLogTest(SimRootTest):
    def test_every_run_logs_its_argv(self):
        before = len(self.calls())
        args = ["-f", self.ini, "-d", 'q"uo\\te', "", "gone"]
        self.yarrow(*args)
        self.yarrow("bad usage")
        lines = self.calls()[before:]
        self.assertEqual(len(lines), 2)
        name, _, encoded = lines[0].partition(" ")
        self.assertEqual(name, "yarrow")
        self.assertEqual(json.loads(encoded), args)
        self.assertEqual(lines[1], 'yarrow ["bad usage"]')

    def test_concurrent_runs_keep_lines_whole(self):
        before = len(self.calls())
        long_arg = "k" * 5000
        with ThreadPoolExecutor(8) as pool:
            list(pool.map(lambda i: self.yarrow("-f", self.ini, str(i), long_arg), range(24)))
        lines = self.calls()[before:]
        self.assertEqual(len(lines), 24)
        got = sorted(int(json.loads(line.partition(" ")[2])[2]) for line in lines)
        self.assertEqual(got, list(range(24)))


class MediaAgentTest(SimRootTest):
    def run_fake(self, rel, *args):
        p = subprocess.run([os.path.join(self.root, rel), *args], capture_output=True, text=True)
        return p.returncode, p.stdout

    def agent(self, *args):
        code, out = self.run_fake("usr/bin/tessaly", *args)
        self.assertEqual(code, 0)
        return ET.fromstring(out)

    def test_file_paths_and_slices(self):
        root = self.agent("-c", "getFilePath", "--objectID", "mu_105")
        self.assertEqual(root.findtext("filePath"), self.root + "/share/Public/Music/01 Morning.mp3")
        self.assertEqual((root.findtext("startTime"), root.findtext("duration")), ("1", "1"))
        root = self.agent("-c", "getFilePath", "--objectID", "mu_101")
        self.assertIsNone(root.find("startTime"))
        odd = self.root + "/share/Public/Music/04 $(echo pwned).mp3"
        self.assertEqual(self.agent("-c", "getObjectID", "--filePath", odd).findtext("objectID"), "mu_104")

    def test_content_urls(self):
        root = self.agent("-c", "getContentUrl", "--objectID", "vi_201", "--clientType", "DLNA", "--interface", "eth0")
        self.assertEqual(root.findtext("url"), "http://127.0.0.1:8200/media/vi_201.mp4")
        path = self.root + "/share/Public/Music/02 Rain & Thunder.mp3"
        self.assertEqual(self.agent("-c", "getContentUrl", "--filePath", path).findtext("url"),
                         "http://127.0.0.1:8200/media/mu_102.mp3")

    def test_unknown_ids_fail(self):
        for args in (["-c", "getContentUrl", "--objectID", "nope"],
                     ["-c", "getFilePath", "--objectID", "nope"],
                     ["-c", "browse", "--objectID", "nope", "--browseFlag", "BrowseMetadata"],
                     ["-c", "browse", "--objectID", "mu_101", "--browseFlag", "BrowseDirectChildren"],
                     ["-c", "getExternalSubtitle", "--objectID", "nope"]):
            with self.subTest(args=args):
                self.assertEqual(self.agent(*args).findtext("status"), "fail")

    def test_tracks_are_elements(self):
        def tracks(command, response, element, field="TrackLang"):
            # The prefix is undeclared XML-wise; the daemon's parser takes it as part of the name.
            _, out = self.run_fake("usr/bin/tessaly", "-c", command, "--objectID", "vi_201")
            root = ET.fromstring(out.replace("u:", "u_"))
            return [t.findtext(field) for t in root.findall("%s/Result/DIDL-Lite/%s" % (response, element))]
        self.assertEqual(tracks("getAudioTrack", "u_GetAudioTrackResponse", "AudioTrack"), ["eng", "fra"])
        self.assertEqual(tracks("getSubtitle", "u_GetSubtitleTrackResponse", "SubtitleTrack"), ["eng", "fra"])
        ext = ("getExternalSubtitle", "u_GetExternalSubtitleResponse", "ExternalSubtitleTrack")
        self.assertEqual(tracks(*ext, field="Automatic"), ["0", "1"])
        paths = tracks(*ext, field="TrackPath")
        self.assertEqual(paths[1], self.root + "/share/Public/Video/holiday.srt")
        self.assertTrue(all(os.path.isfile(p) for p in paths))

    def test_ardith_measures_the_real_media(self):
        music = self.root + "/share/Public/Music/03 L'été <live>.mp3"
        ardith = "usr/local/medialibrary/bin/ardith"
        self.assertEqual(self.run_fake(ardith, "getDuration", "--filePath", music), (0, "00:00:03\n"))
        video = self.root + "/share/Public/Video/holiday.mp4"
        self.assertEqual(self.run_fake(ardith, "getDuration", "--filePath", video), (0, "00:00:05\n"))
        self.assertEqual(self.run_fake(ardith, "getDuration", "--filePath", self.root + "/nope.mp3"), (1, ""))
        self.assertEqual(self.run_fake(ardith, "getDuration")[0], 1)

    def test_history_and_shares(self):
        ebonry = "usr/local/medialibrary/bin/ebonry"
        args = ["savePlayHistory", "/a b.mp3", "-p", "12", "-m", "1", "-s", "30", "-o", "0"]
        self.assertEqual(self.run_fake(ebonry, *args), (0, ""))
        self.assertEqual(self.run_fake(ebonry, "savePlayHistory", "-p", "soon")[0], 1)
        with open(os.path.join(self.root, "var/sim/history.log")) as f:
            self.assertEqual(json.loads(f.read().splitlines()[-1]), args[1:])
        code, out = self.run_fake("sbin/pimbrel", "-sv", "-a", "admin")
        self.assertEqual(code, 0)
        self.assertIn("Public\t%s/share/Public\n" % self.root, out)
        self.assertEqual(self.run_fake("sbin/pimbrel", "-x")[0], 1)


def write_tone(path, seconds, rate=44100):
    """A 16-bit stereo 440 Hz tone as a WAV file."""
    frame = struct.Struct("<hh")
    with wave.open(path, "wb") as w:
        w.setnchannels(2)
        w.setsampwidth(2)
        w.setframerate(rate)
        samples = (int(12000 * math.sin(2 * math.pi * 440 * i / rate)) for i in range(int(seconds * rate)))
        w.writeframes(b"".join(frame.pack(v, v) for v in samples))


# The shared instance's extended output line, fields in the order the daemon reads them.
OUTPUT_LINE = re.compile(r"^Output (\d+) \((.+)\) is (enabled|disabled) uid:(\S+) devType:(\d) "
                         r"sampleRate:(\d+) sampleRateMode:(\d+) dsd:(\d+) dsdMode:(\d+) "
                         r"hwParam:hw:CARD=(\d+),DEV=(\d+)$")
PCM_RATE = 44100 * 2 * 2


@unittest.skipUnless(shutil.which("mpd") and shutil.which("mpc"), "mpd and mpc not installed")
class PrivateMpdTest(SimRootTest):
    PORT = 12351

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.tone = os.path.join(cls.root, "share/Public/Music/tone 1s.wav")
        write_tone(cls.tone, 1.0)

    @classmethod
    def tearDownClass(cls):
        subprocess.run([os.path.join(cls.root, "var/sim/simctl"), "stop-mpd"])
        super().tearDownClass()

    def mpd(self, *args):
        return subprocess.run([os.path.join(self.root, "tmp/larkd/bin/mpd"), *args,
                               os.path.join(self.root, "tmp/larkd/morrat.conf")],
                              capture_output=True, text=True, timeout=10)

    def mpc(self, *args, port=PORT):
        p = subprocess.run([os.path.join(self.root, "tmp/larkd/bin/mpc"), "-p", str(port), *args],
                           capture_output=True, text=True, timeout=10)
        return p.returncode, p.stdout, p.stderr

    def pcm(self, uid):
        try:
            return os.path.getsize(os.path.join(self.root, "var/sim/audio", uid + ".pcm"))
        except OSError:
            return 0

    def wait_for(self, predicate, timeout=3.0):
        deadline = time.monotonic() + timeout
        while not predicate():
            if time.monotonic() > deadline:
                return False
            time.sleep(0.05)
        return True

    def instance_pids(self):
        d = os.path.join(self.root, "var/sim/mpd", str(self.PORT))
        with open(os.path.join(d, "pid")) as f, open(os.path.join(d, "taps")) as g:
            return int(f.read()), int(g.read())

    @staticmethod
    def running(pid):
        try:
            with open("/proc/%d/stat" % pid) as f:
                return f.read().rpartition(")")[2].split()[0] != "Z"
        except OSError:
            return False

    def test_play_pause_volume_and_kill(self):
        started = time.monotonic()
        self.assertEqual(self.mpd("--port", str(self.PORT)).returncode, 0)
        self.assertLess(time.monotonic() - started, 2.5)
        pids = self.instance_pids()
        # A second start of a running port leaves the instance alone.
        self.assertEqual(self.mpd("--port", str(self.PORT)).returncode, 0)
        self.assertEqual(self.instance_pids(), pids)

        self.assertEqual(self.mpc("enable", "only", "USB DAC")[0], 0)
        self.assertEqual(self.mpc("volume", "40")[0], 0)
        self.assertIn("volume: 40%", self.mpc("volume")[1])
        self.assertEqual(self.mpc("clear")[0], 0)
        self.assertEqual(self.mpc("add", "file://" + self.tone)[0], 0)
        before = self.pcm("usb_dac")
        self.assertEqual(self.mpc("play")[0], 0)
        t0 = time.monotonic()
        time.sleep(0.4)
        played, elapsed = self.pcm("usb_dac") - before, time.monotonic() - t0
        # Paced in real time: not the whole second at once, but clearly sound.
        self.assertGreater(played, 0.15 * PCM_RATE)
        self.assertLess(played, (elapsed + 0.3) * PCM_RATE)
        self.assertTrue(self.wait_for(lambda: "[playing]" not in self.mpc("status")[1]))
        self.assertAlmostEqual((self.pcm("usb_dac") - before) / PCM_RATE, 1.0, delta=0.1)

        # Pause holds the sound back, play resumes it. (mpd reopens a fifo
        # output on resume and may deliver buffered audio again, so only growth
        # is checked here.)
        self.assertEqual(self.mpc("play")[0], 0)
        time.sleep(0.3)
        self.assertEqual(self.mpc("pause")[0], 0)
        self.assertIn("[paused]", self.mpc("status")[1])
        paused_at = self.pcm("usb_dac")
        time.sleep(0.3)
        self.assertLess(self.pcm("usb_dac") - paused_at, 0.05 * PCM_RATE)
        self.assertEqual(self.mpc("play")[0], 0)
        self.assertTrue(self.wait_for(lambda: self.pcm("usb_dac") - paused_at > 0.1 * PCM_RATE))
        self.assertEqual(self.mpc("stop")[0], 0)
        # Only the selected output produced sound.
        self.assertEqual(self.pcm("HDMI_hdmi-3") + self.pcm("analog"), 0)

        self.assertEqual(self.mpd("--port", str(self.PORT), "--kill").returncode, 0)
        self.assertFalse(any(self.running(pid) for pid in pids))
        code, _, err = self.mpc("status")
        self.assertEqual((code, err), (1, "MPD error: Connection refused\n"))
        self.assertEqual(self.mpd("--port", str(self.PORT), "--kill").returncode, 0)
        mpd_calls = [line for line in self.calls() if line.startswith("mpd ")]
        self.assertIn('mpd ["--port","%d","%s/tmp/larkd/morrat.conf"]' % (self.PORT, self.root), mpd_calls)

    def test_start_failures_are_reported(self):
        port = self.PORT + 1
        d = os.path.join(self.root, "var/sim/mpd", str(port))
        os.makedirs(d, exist_ok=True)
        with open(os.path.join(d, "analog.fifo"), "w") as f:
            f.write("not a pipe\n")
        p = self.mpd("--port", str(port))
        self.assertEqual(p.returncode, 1)
        self.assertIn("analog.fifo", p.stderr)
        self.assertEqual(self.mpd("--port", "x").returncode, 1)


class SharedInstanceTest(SimRootTest):
    def mpc(self, *args):
        p = subprocess.run([os.path.join(self.root, "tmp/larkd/bin/mpc"), *args], capture_output=True, text=True)
        return p.returncode, p.stdout, p.stderr

    def outputs(self):
        code, out, _ = self.mpc("-p", "8893", "outputs")
        self.assertEqual(code, 0)
        lines = out.splitlines()
        self.assertTrue(all(OUTPUT_LINE.match(line) for line in lines), lines)
        return {m.group(2): m.groups() for m in map(OUTPUT_LINE.match, lines)}

    def test_output_list_and_attributes(self):
        outputs = self.outputs()
        self.assertEqual(list(outputs), ["USB DAC", "HDMI", "Analog"])
        self.assertEqual(outputs["USB DAC"], ("1", "USB DAC", "enabled", "usb_dac", "1", "96000", "0", "1", "0",
                                              "1", "0"))
        self.assertEqual(self.mpc("-p", "8893", "setoutputattr", "USB DAC", "0", "192000")[0], 0)
        self.assertEqual(self.mpc("-p", "8893", "reloadsettings")[0], 0)
        self.assertEqual(self.outputs()["USB DAC"][5:9], ("192000", "1", "0", "1"))
        # Automatic rate and DSD keep the rate and turn DSD off.
        self.assertEqual(self.mpc("-p", "8893", "setoutputattr", "USB DAC", "-1", "-1")[0], 0)
        self.assertEqual(self.outputs()["USB DAC"][5:9], ("192000", "0", "0", "0"))
        self.assertEqual(self.mpc("-p", "8893", "setoutputattr", "Nope", "1", "44100")[:2], (1, ""))
        self.assertIn('mpc ["-p","8893","setoutputattr","USB DAC","0","192000"]', self.calls())

    def test_other_ports_and_commands(self):
        self.assertEqual(self.mpc("-p", "12999", "status"), (1, "", "MPD error: Connection refused\n"))
        self.assertEqual(self.mpc("-p", "8893", "status")[0], 1)

    def test_sound_devices_and_switches(self):
        simctl = os.path.join(self.root, "var/sim/simctl")
        status = os.path.join(self.root, "proc/asound/card1/pcm0p/sub0/status")
        with open(status) as f:
            self.assertEqual(f.read(), "closed\n")
        subprocess.run([simctl, "busy", "1", "0"], check=True)
        with open(status) as f:
            self.assertNotIn("closed", f.read())
        subprocess.run([simctl, "free", "1", "0"], check=True)
        with open(status) as f:
            self.assertEqual(f.read(), "closed\n")
        self.assertEqual(subprocess.run([simctl, "busy", "7", "0"], capture_output=True).returncode, 1)

        # The HDMI uid names the card id and device whose ELD holds the monitor.
        hdmi = self.outputs()["HDMI"]
        card_id, _, rest = hdmi[3].partition("_")
        device = rest.partition("-")[2][0]
        self.assertEqual(device, hdmi[10])
        with open(os.path.join(self.root, "proc/asound", card_id, "eld#0." + device)) as f:
            self.assertIn("monitor_name\t\tLiving Room TV\n", f.read())

        subprocess.run([simctl, "output", "Analog", "absent"], check=True)
        self.assertEqual(list(self.outputs()), ["USB DAC", "HDMI"])
        subprocess.run([simctl, "output", "Analog", "present"], check=True)
        self.assertIn("Analog", self.outputs())


class DiscoveryTest(SimRootTest):
    def run_fake(self, rel, *args):
        p = subprocess.run([os.path.join(self.root, rel), *args], capture_output=True, text=True)
        self.assertEqual(p.returncode, 0, p.stderr)
        return p.stdout

    def test_cast_receivers(self):
        out = self.run_fake("usr/sbin/avahi-browse", "-rkpt", "_googlecast._tcp")
        self.assertEqual(out, self.run_fake("usr/sbin/avahi-browse", "-krpt", "_googlecast._tcp"))
        resolved = [line.split(";") for line in out.splitlines() if line.startswith("=;")]
        self.assertTrue(all(len(f) == 10 and f[4] == "_googlecast._tcp" for f in resolved))
        # One receiver is seen on two interfaces with the same address.
        seen = [(f[3], f[7]) for f in resolved]
        self.assertEqual(len(set(seen)), 2)
        self.assertIn((r"Living\032Room", "192.168.1.20"), seen)
        txt = {f[3]: dict(kv.split("=", 1) for kv in re.findall(r'"([^"]*)"', f[9])) for f in resolved}
        kitchen = txt["Chromecast-Audio-9c2e41d7b0a54f3e"]
        self.assertEqual((kitchen["fn"], kitchen["md"]), ("Kitchen speaker", "Chromecast Audio"))
        self.assertIn('"fn=Kitchen speaker" "ic=', out)
        # Without resolving only the found-service lines come.
        unresolved = self.run_fake("usr/sbin/avahi-browse", "-kpt", "_googlecast._tcp").splitlines()
        self.assertTrue(unresolved and all(line.startswith("+;") for line in unresolved))
        self.assertEqual(self.run_fake("usr/sbin/avahi-browse", "-rkpt", "_raop._tcp"), "")

    def test_dlna_renderers_and_media_dash(self):
        def renderers():
            root = ET.fromstring(self.run_fake("usr/bin/tessaly", "-c", "list"))
            self.assertEqual(root.findtext("status"), "success")
            return {d.findtext("deviceName"): (d.findtext("deviceId"), d.findtext("type"))
                    for d in root.findall("device")}
        listed = renderers()
        self.assertEqual(sorted(t for _, t in listed.values()), ["audio", "video,photo,audio"])
        tv = listed["Living Room TV"][0]
        simctl = os.path.join(self.root, "var/sim/simctl")
        subprocess.run([simctl, "renderer", tv, "absent"], check=True)
        self.assertEqual(list(renderers()), ["Study Speaker"])
        subprocess.run([simctl, "renderer", tv, "present"], check=True)
        self.assertEqual(len(renderers()), 2)

        dash = ET.parse(os.path.join(self.root, "etc/config/mediaDash.conf")).getroot()
        self.assertEqual([d.findtext("deviceId") for d in dash.findall("device")], ["usb_dac"])


TV = "uuid:5f9ec1b3-ed59-49bb-8530-745e1d0a1c01"
SPEAKER = "uuid:0b7d3c22-4a61-4f0e-9d2a-3e5c7b9a8f12"


class RendererTest(SimRootTest):
    """The simulated renderers' playback, as the DLNA player drives them. Times
    are shortened with the speed and transition switches."""

    def setUp(self):
        # Each test starts from the renderers as made.
        for uuid, name in ((TV, "Living Room TV"), (SPEAKER, "Study Speaker")):
            simrender.save(self.root, simrender.new_renderer(uuid, name))

    def agent(self, *args):
        p = subprocess.run([os.path.join(self.root, "usr/bin/tessaly"), *args], capture_output=True, text=True)
        self.assertEqual(p.returncode, 0, p.stderr)
        return p.stdout

    def xml(self, *args):
        return ET.fromstring(self.agent(*args))

    def status(self, command, *args, uuid=TV):
        return self.xml("-c", command, "--uuid", uuid, *args).findtext("Status")

    def load(self, *content, uuid=TV):
        return self.status("setAvTransportUrl", *content, uuid=uuid)

    def state(self, uuid=TV):
        return self.xml("-c", "getTransportInfo", "--uuid", uuid).findtext("CurrentTransportState")

    def position(self, uuid=TV):
        """(RelTime in seconds, TrackDuration text)"""
        root = self.xml("-c", "getPositionInfo", "--uuid", uuid)
        self.assertEqual(root.findtext("Status"), "Success")
        h, m, sec = root.findtext("RelTime").split(":")
        return int(h) * 3600 + int(m) * 60 + float(sec), root.findtext("TrackDuration")

    def simctl(self, *args, ok=True):
        p = subprocess.run([os.path.join(self.root, "var/sim/simctl"), *args], capture_output=True, text=True)
        self.assertEqual(p.returncode == 0, ok, p.stderr)
        return p.stdout

    def show(self, uuid=TV):
        return json.loads(self.simctl("renderer-show", uuid))

    def test_play_advances_and_the_end_stops_at_the_end(self):
        self.assertEqual(self.state(), "NO_MEDIA_PRESENT")
        self.assertEqual(self.status("Play"), "Fail")
        self.assertEqual(self.load("--objectID", "mu_101"), "Success")
        self.assertEqual((self.state(), self.position()), ("STOPPED", (0.0, "0:00:03")))
        self.simctl("renderer-set", TV, "speed=4", "transition=0.3")
        started = time.time()
        self.assertEqual(self.status("Play"), "Success")
        self.assertEqual(self.state(), "TRANSITIONING")
        self.assertEqual(self.position()[0], 0.0)
        time.sleep(max(0, started + 0.45 - time.time()))
        self.assertEqual(self.state(), "PLAYING")
        pos = self.position()[0]
        self.assertTrue(0.5 < pos < 3, pos)
        # A second Play while playing neither restarts nor transitions again.
        self.status("Play")
        self.assertEqual(self.state(), "PLAYING")
        self.assertGreaterEqual(self.position()[0], pos)
        time.sleep(max(0, started + 0.3 + 3 / 4 + 0.1 - time.time()))
        self.assertEqual(self.state(), "STOPPED")
        self.assertEqual(self.xml("-c", "getPositionInfo", "--uuid", TV).findtext("RelTime"), "0:00:03.000")
        # Playing again after the end starts from the beginning; Stop rewinds.
        self.simctl("renderer-set", TV, "speed=1", "transition=0")
        self.status("Play")
        self.assertLess(self.position()[0], 0.5)
        self.assertEqual(self.status("Stop"), "Success")
        self.assertEqual((self.state(), self.position()[0]), ("STOPPED", 0.0))

    def test_load_at_a_position_pause_and_outside_control(self):
        self.simctl("renderer-set", TV, "transition=0")
        self.assertEqual(self.load("--objectID", "vi_201", "--position", "00:00:02"), "Success")
        self.assertEqual(self.position(), (2.0, "0:00:05"))
        self.assertEqual(self.status("Pause"), "Fail")  # nothing plays
        self.status("Play")
        time.sleep(0.1)
        self.assertEqual(self.status("Pause"), "Success")
        self.assertEqual(self.state(), "PAUSED_PLAYBACK")
        frozen = self.position()[0]
        self.assertTrue(2.05 <= frozen < 3, frozen)
        time.sleep(0.1)
        self.assertEqual(self.position()[0], frozen)
        # The renderer's own remote: play resumes, pause freezes, stop keeps the position.
        self.simctl("renderer-set", TV, "outside=play")
        self.assertEqual(self.state(), "PLAYING")
        self.assertGreaterEqual(self.position()[0], frozen)
        self.simctl("renderer-set", TV, "outside=pause")
        self.assertEqual(self.state(), "PAUSED_PLAYBACK")
        self.simctl("renderer-set", TV, "outside=play", "position=1", "outside=stop")
        self.assertEqual(self.state(), "STOPPED")
        self.assertAlmostEqual(self.position()[0], 1.0, delta=0.2)
        # A jump beyond the end is held at the end; a wrong time changes nothing.
        self.simctl("renderer-set", TV, "position=3:00:00")
        self.assertEqual(self.position()[0], 5.0)
        self.simctl("renderer-set", TV, "position=1", "position=soon", ok=False)
        self.assertEqual(self.position()[0], 5.0)
        self.simctl("renderer-set", SPEAKER, "outside=play", ok=False)  # nothing loaded

    def test_refusals_and_busy(self):
        self.simctl("renderer-set", TV, "busy=2")
        self.assertEqual([self.load("--objectID", "mu_101") for _ in range(3)], ["Busy", "Busy", "Success"])
        self.simctl("renderer-set", TV, "refuse=1")
        self.assertEqual(self.load("--objectID", "mu_102"), "Fail")
        self.assertEqual(self.show()["track"]["objectID"], "mu_101")  # the refused track was not loaded
        self.simctl("renderer-set", TV, "refuse=0", "refuse_content=Rain")
        rain = self.root + "/share/Public/Music/02 Rain & Thunder.mp3"
        self.assertEqual(self.load("--objectID", "mu_102"), "Fail")
        self.assertEqual(self.load("--filePath", rain), "Fail")
        self.assertEqual(self.load("--objectID", "mu_103"), "Success")
        self.assertEqual(self.load("--objectID", "mu_102", uuid=SPEAKER), "Success")
        for content in (["--objectID", "nope"], ["--filePath", self.root + "/share/Public/none.mp3"],
                        ["--objectID", "mu_101", "--position", "later"]):
            with self.subTest(content=content):
                self.assertEqual(self.load(*content, uuid=SPEAKER), "Fail")
        self.assertEqual(self.status("getTransportInfo", uuid="uuid:unknown"), "Fail")
        self.simctl("renderer-set", SPEAKER, "present=0")
        self.assertEqual(self.load("--objectID", "mu_101", uuid=SPEAKER), "Fail")
        self.assertNotIn("Study Speaker", self.agent("-c", "list"))
        self.simctl("renderer", SPEAKER, "present")
        self.assertEqual(self.state(uuid=SPEAKER), "STOPPED")
        self.simctl("renderer-set", TV, "busy=1", "colour=red", ok=False)
        self.assertEqual(self.show()["busy"], 0)

    def test_stall_speed_and_failing_positions(self):
        self.simctl("renderer-set", TV, "transition=0", "stall=1", "speed=3")
        self.load("--objectID", "vi_201")
        self.status("Play")
        time.sleep(0.45)
        self.assertEqual((self.state(), self.position()[0]), ("PLAYING", 0.0))
        # Un-stalled at 3x: the stalled time does not count.
        self.simctl("renderer-set", TV, "stall=0")
        time.sleep(0.1)
        pos = self.position()[0]
        self.assertTrue(0.2 < pos < 1.5, pos)
        self.simctl("renderer-set", TV, "fail_position=1")
        self.assertEqual(self.agent("-c", "getPositionInfo", "--uuid", TV), "<root><Status>fail</Status></root>\n")

    def test_volume_kind_content_urls_and_options(self):
        for sent, stored in (("150", "100"), ("-3", "0"), ("42", "42")):
            self.assertEqual(self.status("setVolume", "--vol", sent), "Success")
            self.assertEqual(self.xml("-c", "getVolume", "--uuid", TV).findtext("CurrentVolume"), stored)
        self.assertEqual(self.status("setVolume", "--vol", "loud"), "Fail")
        self.assertEqual(self.agent("-c", "isXBMC", "--uuid", TV), "false\n")
        self.simctl("renderer-set", TV, "xbmc=1")
        self.assertEqual(self.agent("-c", "isXBMC", "--uuid", TV), "xbmc\n")

        def url(*args):
            root = self.xml("-c", "getContentUrlByMAC", "--uuid", TV, *args)
            return root.findtext("status"), root.findtext("url")
        odd = self.root + "/share/Public/Music/04 $(echo pwned).mp3"
        self.assertEqual(url("--filePath", odd), ("success", "http://127.0.0.1:8200/media/mu_104.mp3"))
        self.assertEqual(url("--dbID", "201", "--mediaType", "2")[1], "http://127.0.0.1:8200/media/vi_201.mp4")
        self.assertEqual(url("--dbID", "201", "--mediaType", "0"), ("fail", None))
        self.simctl("renderer-set", TV, "transcode=1")
        self.assertIn("Transcode", url("--objectID", "ph_301")[1])

        # The player's options reach the renderer; a path arrives raw, shell escaping is not undone.
        self.assertEqual(self.load("--filePath", odd, "--interface", "eth0", "--audioTrack", "1",
                                   "--subtitle", "0", "--externalSubtitle", "/x/it's.srt"), "Success")
        track = self.show()["track"]
        self.assertEqual((track["path"], track["objectID"], track["interface"], track["audioTrack"],
                          track["subtitle"], track["externalSubtitle"]),
                         (odd, "mu_104", "eth0", "1", "0", "/x/it's.srt"))
        self.assertEqual(self.load("--filePath", odd.replace(" ", "\\ ")), "Fail")

    @unittest.skipUnless(shutil.which("ffprobe"), "ffprobe not installed")
    def test_files_outside_the_library_are_measured(self):
        with tempfile.TemporaryDirectory() as tmp:
            copy = os.path.join(tmp, "copy.mp4")
            shutil.copy(self.root + "/share/Public/Video/holiday.mp4", copy)
            self.assertEqual(self.load("--filePath", copy), "Success")
            self.assertEqual(self.position()[1], "0:00:05")
            picture = os.path.join(tmp, "p.jpg")
            shutil.copy(self.root + "/share/Public/Photo/beach.jpg", picture)
            self.simctl("renderer-set", TV, "transition=0", "speed=100")
            self.load("--filePath", picture)
            self.status("Play")
            time.sleep(0.05)
            # A picture shows until the player moves on.
            self.assertEqual((self.state(), self.position()[0]), ("PLAYING", 0.0))


class MakeRootTest(unittest.TestCase):
    def test_rerun_keeps_edits_and_force_restores(self):
        with tempfile.TemporaryDirectory() as tmp:
            root = os.path.join(tmp, "r")
            subprocess.run([MAKE_ROOT, root], check=True)
            conf = os.path.join(root, "etc/model.conf")
            with open(conf, "w") as f:
                f.write("[System IO]\nVOICE_ALERT_SUPPORT = 1\n")
            with open(os.path.join(root, "var/sim/calls.log"), "w") as f:
                f.write("kept\n")
            subprocess.run([MAKE_ROOT, root], check=True)
            with open(conf) as f:
                self.assertIn("= 1", f.read())
            subprocess.run([MAKE_ROOT, "--force", root], check=True)
            with open(conf) as f:
                self.assertIn("= 0", f.read())
            with open(os.path.join(root, "var/sim/calls.log")) as f:
                self.assertEqual(f.read(), "kept\n")
            self.assertTrue(os.access(os.path.join(root, "sbin/yarrow"), os.X_OK))

    @unittest.skipUnless(shutil.which("ffmpeg"), "ffmpeg not installed")
    def test_media_are_made_once_and_placeholders_replaced(self):
        with tempfile.TemporaryDirectory() as tmp:
            root = os.path.join(tmp, "r")
            subprocess.run([MAKE_ROOT, root], check=True)
            video = os.path.join(root, "share/Public/Video/holiday.mp4")
            music = os.path.join(root, "share/Public/Music/01 Morning.mp3")
            made = os.stat(video).st_mtime_ns
            with open(music, "wb") as f:
                f.write(b"simulated media\n")
            subprocess.run([MAKE_ROOT, root], check=True)
            self.assertEqual(os.stat(video).st_mtime_ns, made)
            self.assertGreater(os.path.getsize(music), 1000)


if __name__ == "__main__":
    unittest.main()
