"""Checks of the simulated appliance: make-root, the yarrow INI reader, the media
agent and the media library's tools.

Run from sim/:  python3 -m unittest test_sim
"""

import json
import os
import shutil
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree as ET
from concurrent.futures import ThreadPoolExecutor

SIM_DIR = os.path.dirname(os.path.abspath(__file__))
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
