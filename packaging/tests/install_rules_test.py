#!/usr/bin/env python3
"""What an installation puts where, with which modes. usage: install_rules_test.py ROOT BUILD CMAKE [TEST...]"""
import os
import pathlib
import re
import stat
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "testsupport"))
import tree_facts as tree

BUILD, CMAKE = sys.argv[2:4]

FOLDER, FILE = "drwxr-xr-x", "-rw-r--r--"
ANY = "any folder"  # what an installation makes on the way, as the umask has it
OUTSIDE = {
    "etc": ANY, "etc/morvand": FOLDER, "etc/morvand/morvand.conf": FILE,
    "var": ANY, "var/morvand": FOLDER, "var/morvand/kset": "drwx------",
}
BELOW = {
    "sbin": ANY, "sbin/ferrogate": "-rwxr-xr-x",
    "share": ANY,
    "share/bash-completion": ANY, "share/bash-completion/completions": ANY,
    "share/bash-completion/completions/ferrogate": FILE,
    "share/doc": ANY, "share/doc/ferrogate": ANY, "share/doc/ferrogate/morvand.conf.default": FILE,
    "share/man": ANY, "share/man/man5": ANY, "share/man/man5/morvand.conf.5": FILE,
    "share/man/man8": ANY, "share/man/man8/ferrogate.8": FILE,
}
# What the programmer of an agent includes, beside all of cloud/include.
AGENT = ["basalt/ad_agent.h", "basalt/kerberos_abandoned.h", "basalt/run_queue.h", "base/include/logger.h",
         "base/include/printable.h"]


def cached(name):
    return re.search(rf"^{name}:\w+=(.*)$", (pathlib.Path(BUILD) / "CMakeCache.txt").read_text(), re.M).group(1)


def public_headers():
    left, found = AGENT + [f"cloud/include/{path.name}" for path in tree.ROOT.glob("cloud/include/*.h")], set()
    while left:
        header = left.pop()
        if header not in found:
            found.add(header)
            left += re.findall(r'^#include "(.*)"', tree.text(header), re.M)
    return found


def development():
    lib = cached("CMAKE_INSTALL_LIBDIR")
    files = {f"include/ferrogate/{header}" for header in public_headers()}
    files |= {f"{lib}/libferro_cloud.a", f"{lib}/libbasalt.a", f"{lib}/libferro_base.a",
              f"{lib}/pkgconfig/ferrogate-cloud.pc"}
    files |= {f"{lib}/cmake/ferrogate/ferrogate{part}.cmake"
              for part in ("Config", "ConfigVersion", "Targets", f"Targets-{cached('CMAKE_BUILD_TYPE').lower()}")}
    folders = {str(folder) for file in files for folder in pathlib.PurePath(file).parents if folder.name}
    return {folder: ANY for folder in folders} | {file: FILE for file in files}


def wanted(prefix, umask):
    parts = prefix.strip("/").split("/")
    folders = {"/".join(parts[:count]): ANY for count in range(1, len(parts) + 1)}
    below = BELOW | development()
    paths = OUTSIDE | folders | {f"{prefix.strip('/')}/{path}": mode for path, mode in below.items()}
    usual = stat.filemode(stat.S_IFDIR | (0o777 & ~umask))
    return {path: usual if mode is ANY else mode for path, mode in paths.items()}


class Installation(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.destination = pathlib.Path(folder.name)

    def install(self, prefix, umask=0o022, component=None):
        only = ["--component", component] if component else []
        done = subprocess.run([CMAKE, "--install", BUILD, "--prefix", prefix, *only], umask=umask, capture_output=True,
                              text=True, env=os.environ | {"DESTDIR": str(self.destination)}, check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout

    def found(self):
        return {str(path.relative_to(self.destination)): stat.filemode(path.lstat().st_mode)
                for path in self.destination.rglob("*")}

    def test_paths_and_modes_whatever_the_prefix_and_the_umask(self):
        for prefix, umask in (("/usr", 0o022), ("/usr/local", 0o077), ("/opt/ferrogate", 0o000)):
            with self.subTest(prefix=prefix):
                self.setUp()
                self.install(prefix, umask)
                self.assertEqual(self.found(), wanted(prefix, umask))

    def test_the_tool_looks_for_libraries_where_the_system_does(self):
        self.install("/usr")
        for tool in (self.destination / "usr/sbin/ferrogate", pathlib.Path(BUILD) / "cli/ferrogate"):
            entries = subprocess.run(["readelf", "-d", tool], capture_output=True, text=True, check=True).stdout
            self.assertIn("(NEEDED)", entries)
            self.assertNotRegex(entries, r"\(R(UN)?PATH\)")

    def test_files_are_those_of_the_tree(self):
        self.install("/usr")
        for installed, source in (("etc/morvand/morvand.conf", "packaging/morvand.conf"),
                                  ("usr/share/doc/ferrogate/morvand.conf.default", "packaging/morvand.conf"),
                                  ("usr/share/bash-completion/completions/ferrogate", "packaging/ferrogate.bash"),
                                  ("usr/share/man/man8/ferrogate.8", "docs/ferrogate.8"),
                                  ("usr/share/man/man5/morvand.conf.5", "docs/morvand.conf.5")):
            self.assertEqual((self.destination / installed).read_text(), tree.text(source), installed)

    def test_the_headers_are_those_of_the_tree(self):
        self.install("/usr")
        folder = self.destination / "usr/include/ferrogate"
        for header in public_headers():
            self.assertEqual((folder / header).read_text(), tree.text(header), header)

    def test_development_files_are_a_component_of_their_own(self):
        self.install("/usr", component="dev")
        self.assertEqual(set(self.found()), {"usr"} | {f"usr/{path}" for path in development()})

    def test_an_existing_configuration_is_left_alone(self):
        self.install("/usr")
        conf = self.destination / "etc/morvand/morvand.conf"
        conf.write_text("log: DEBUG\n")
        conf.chmod(0o600)
        os.utime(conf, (1, 1))
        before = conf.lstat()
        self.assertIn(f"Kept: {conf}", self.install("/usr"))
        after = conf.lstat()
        self.assertEqual(conf.read_text(), "log: DEBUG\n")
        self.assertEqual((after.st_mode, after.st_mtime), (before.st_mode, before.st_mtime))
        self.assertEqual(after.st_ino, before.st_ino)

    def test_a_dangling_link_in_its_place_is_left_alone(self):
        self.install("/usr")
        conf = self.destination / "etc/morvand/morvand.conf"
        conf.unlink()
        conf.symlink_to("elsewhere")
        self.install("/usr")
        self.assertEqual(os.readlink(conf), "elsewhere")
        self.assertEqual(sorted(path.name for path in conf.parent.iterdir()), ["morvand.conf"])

    def test_a_missing_configuration_comes_back(self):
        self.install("/usr")
        conf = self.destination / "etc/morvand/morvand.conf"
        conf.unlink()
        self.install("/usr")
        self.assertEqual(conf.read_text(), tree.text("packaging/morvand.conf"))

    def test_what_the_agent_keeps_stays(self):
        self.install("/usr")
        kept = {"httpproxy.cred": b"\0secret", "kset/domain.name": b"example.com"}
        for name, content in kept.items():
            path = self.destination / "var/morvand" / name
            path.write_bytes(content)
            path.chmod(0o600)
        self.install("/usr")
        for name, content in kept.items():
            path = self.destination / "var/morvand" / name
            self.assertEqual((path.read_bytes(), stat.filemode(path.lstat().st_mode)), (content, "-rw-------"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
