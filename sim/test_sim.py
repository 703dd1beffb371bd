"""Checks of the simulated appliance: make-root and the yarrow INI reader.

Run from sim/:  python3 -m unittest test_sim
"""

import json
import os
import subprocess
import tempfile
import unittest
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


if __name__ == "__main__":
    unittest.main()
