#!/usr/bin/env python3
"""./demo and ./check where nobody is root, with and without sudo, and where no namespaces are allowed.

Works on a copy of the two scripts in which packages, sudo and stages only tell that they were called.
"""
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

TREE = pathlib.Path(__file__).resolve().parent.parent.parent
NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
POWERLESS = ["setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin"]
IS_ROOT = os.geteuid() == 0


class Commands(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.folder.chmod(0o755)
        self.tree = self.folder / "tree"
        for name in ("check", "demo", "tools/root.sh", "lab/namespaces"):
            (self.tree / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(TREE / name, self.tree / name)
        self.script("tree/tools/install-packages", 'echo "packages: $*"')
        self.script("tree/tools/tidy", 'echo "tidy as $(id -u)"; echo made >build/made')
        (self.tree / "build").mkdir()
        # The programs of this machine, but for sudo.
        programs = self.folder / "bin"
        programs.mkdir()
        for path in ("/usr/sbin", "/usr/bin", "/sbin", "/bin"):
            for program in pathlib.Path(path).iterdir():
                if program.name != "sudo" and not (programs / program.name).exists():
                    (programs / program.name).symlink_to(program)
        if IS_ROOT:
            self.own(65534)

    def own(self, owner):
        for path in (self.tree, *self.tree.rglob("*")):
            os.chown(path, owner, owner)

    def script(self, name, text):
        path = self.folder / name
        path.write_text(f"#!/bin/sh\n{text}\n")
        path.chmod(0o755)

    def call(self, *command, under=None, **environment):
        if under is None:
            under = NOBODY if IS_ROOT else []
        done = subprocess.run([*under, *command], cwd=self.tree, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False,
                              env={"PATH": str(self.folder / "bin"), "LANG": "C.UTF-8", **environment})
        return done.returncode, done.stdout

    def test_the_demo_says_that_it_needs_root_where_there_is_no_sudo(self):
        self.assertEqual(self.call("./demo"), (1, "The demo makes a private domain, and only root may. "
                                                  "No sudo helps here: run ./demo as root.\n"))

    def test_both_call_sudo(self):
        self.script("bin/sudo", '[ "$2" = true ] || echo "$@"')
        expected = f"-- env http_proxy=http://cache:1 CCACHE_DISABLE= {self.tree}/"
        for command, called in ((["./demo"], "demo"), (["./check", "tidy", "fuzz"], "check tidy fuzz")):
            self.assertEqual(self.call(*command, http_proxy="http://cache:1", CCACHE_DISABLE="", SECRET="x"),
                             (0, expected + called + "\n"))

    def test_a_sudo_that_refuses_is_as_good_as_none(self):
        self.script("bin/sudo", 'echo "not in the sudoers file" >&2; exit 1')
        status, said = self.call("./demo")
        self.assertEqual(status, 1)
        self.assertRegex(said, r"^not in the sudoers file\nThe demo makes a private domain, and only root may\. ")

    def test_the_check_does_without_root_what_it_can(self):
        status, said = self.call("./check", "tidy")
        self.assertEqual(status, 0, said)
        self.assertTrue(said.startswith("Neither root nor sudo: tests that need root or namespaces are left out, and missing "
                                        "packages are not installed.\npackages: build lab check\n"), said)
        self.assertRegex(said, r"tidy as (?!0\n)\d+\n")
        self.assertRegex(said, r"== all checks passed: tidy \(\d+ s\)\n$")

    def test_clang_tidy_beside_the_tests_counts_as_it_does_alone(self):
        for program in ("cmake", "ctest"):
            (self.folder / "bin" / program).unlink(missing_ok=True)
            self.script(f"bin/{program}", f'echo "{program} here"')
        status, said = self.call("./check", "tests", "tidy")
        self.assertEqual(status, 0, said)
        self.assertRegex(said, r"(?s)== tests .*Left out: the tests labelled root and lab, .*ctest here\n.*== tidy .*tidy as ")
        self.assertRegex(said, r"== all checks passed: tests tidy \(\d+ s\)\n$")
        self.script("tree/tools/tidy", "echo 'x.cpp:1: warning: bad'; exit 1")
        status, said = self.call("./check", "tests", "tidy")
        self.assertEqual(status, 1)
        self.assertRegex(said, r"(?s)== tidy failed; .*x.cpp:1: warning: bad\n.*== FAILED: tidy \(\d+ s\)\n$")

    def test_the_check_ends_where_packages_are_missing(self):
        self.script("tree/tools/install-packages", "echo missing: g++; exit 1")
        status, said = self.call("./check", "tidy")
        self.assertEqual(status, 1)
        self.assertTrue(said.endswith("missing: g++\n"), said)

    @unittest.skipUnless(IS_ROOT, "needs root")
    def test_what_root_has_built_belongs_to_the_owner_of_the_tree(self):
        status, said = self.call("./check", "tidy", under=[])
        self.assertEqual((status, "tidy as 0\n" in said), (0, True), said)
        for path in (self.tree / "build", *(self.tree / "build").rglob("*")):
            self.assertEqual((path.stat().st_uid, path.stat().st_gid), (65534, 65534), path)
        self.own(0)
        self.assertEqual(self.call("./check", "tidy", under=[])[0], 0)
        self.assertEqual((self.tree / "build/made").stat().st_uid, 0)

    @unittest.skipUnless(IS_ROOT, "needs root")
    def test_the_demo_looks_for_namespaces_before_it_installs_anything(self):
        for program in ("python3", "cmake"):  # a minimal Debian has neither
            (self.folder / "bin" / program).unlink(missing_ok=True)
        status, said = self.call("./demo", under=POWERLESS)
        self.assertEqual(status, 1)
        self.assertEqual(said, "The demo makes a private domain in namespaces of its own, which cannot be had:\n"
                               "namespaces are not allowed here: unshare: unshare failed: Operation not permitted\n"
                               "In a container it needs the rights to make them (\"privileged\"); a machine of its own "
                               "has them.\n")

    def test_the_documents_name_the_commands_as_they_are(self):
        for name in ("README.md", "HACKING.md", ".ci/run"):
            text = (TREE / name).read_text()
            self.assertTrue("./check" in text, name)
            for wrong in ("sudo ./demo", "sudo ./check"):
                self.assertFalse(wrong in text, f"{wrong} in {name}")


if __name__ == "__main__":
    sys.exit(unittest.main())
