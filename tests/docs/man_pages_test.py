"""The pages about the C interface and the recordings: man_pages_test.py. Everything that the header offers is there."""

import glob
import gzip
import os
import re
import subprocess
import sys
import tempfile
import unittest

TREE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")


def plain(text):
    return " ".join(text.split())


class ManPages(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="borven-man-")
        cls.addClassCleanup(folder.cleanup)
        subprocess.run([sys.executable, "-B", f"{TREE}/scripts/write_man_pages", folder.name, "1.2.3"], check=True)
        cls.pages = {os.path.basename(path).removesuffix(".gz"): gzip.open(path, "rt").read()
                     for path in glob.glob(f"{folder.name}/man*/*")}
        with open(f"{TREE}/client/include/msgbus/msgbus_c.h", encoding="utf-8") as header:
            cls.header = header.read()

    def shown(self, name):
        done = subprocess.run(["mandoc", "-Tutf8", "-O", "width=1000"], input=self.pages[name], capture_output=True, text=True,
                              check=True)
        return plain(re.sub(r".\x08", "", done.stdout).replace("‐", "-"))

    def test_they_have_no_mistakes(self):
        for name in ("msgbus.3", "msgbus-recording.5"):
            found = subprocess.run(["mandoc", "-Tlint", "-W", "warning"], input=self.pages[name], capture_output=True, text=True,
                                   check=False)
            self.assertEqual((found.returncode, found.stdout), (0, ""), name)

    def test_every_function_is_there_and_has_a_page_of_its_name(self):
        names = re.findall(r"^(?:MSGBUS_API|static inline) [^(]*?(\w+)\(", self.header, re.MULTILINE)
        self.assertGreater(len(names), 25)
        page = self.shown("msgbus.3")
        for name in names:
            self.assertTrue(f"{name}(" in page, name)
            self.assertEqual(self.pages[f"{name}.3"], ".so man3/msgbus.3\n")

    def test_every_constant_and_member_is_there_with_its_comment(self):
        page = self.shown("msgbus.3")
        found = re.findall(r"^ +(.*?);?,? *///< (.*)$", self.header, re.MULTILINE)
        self.assertGreater(len(found), 30)
        for name, meaning in found:
            self.assertTrue(plain(f"{name.rstrip(',;')} {meaning.replace('`', '')}") in page, name)

    def test_every_comment_of_the_header_is_there(self):
        page = self.shown("msgbus.3")
        for comment in re.findall(r"(?m)((?:^ *///(?!<).*\n)+)", self.header):
            text = plain(re.sub(r"(?m)^ *///", "", comment).replace("`", ""))
            self.assertTrue(text in page, text)

    def test_the_format_of_recordings_is_there(self):
        page = self.shown("msgbus-recording.5")
        for text in ("THE FORMAT", "message encoding cdr, schema std_msgs/msg/Int64", "log time when the value was received",
                     "msgbus 1.2.3"):
            self.assertTrue(text in page, text)
        self.assertNotIn("system.dynamic", page)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
