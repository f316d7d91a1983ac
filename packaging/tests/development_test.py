#!/usr/bin/env python3
"""The installed tree is enough to build an agent. usage: development_test.py ROOT BUILD CMAKE CXX LDFLAGS [TEST...]"""
import concurrent.futures
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv[1])
BUILD, CMAKE, CXX, LDFLAGS = sys.argv[2:6]
EXAMPLES = [ROOT / "examples" / name for name in ("find_connectors", "login_terminal")]


def run(*command, text=None, **environment):
    done = subprocess.run([str(word) for word in command], input=text, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, env=os.environ | environment, check=False)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


class InstalledTree(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.prefix = pathlib.Path(cls.folder.name) / "installed"
        run(CMAKE, "--install", BUILD, "--prefix", cls.prefix, "--component", "dev")
        cls.headers = cls.prefix / "include" / "ferrogate"
        cls.module = next(cls.prefix.rglob("ferrogate-cloud.pc"))

    def flags(self, *options):
        words = run("pkg-config", *options, "ferrogate-cloud", PKG_CONFIG_PATH=str(self.module.parent))
        return words.split()

    def judge(self, example, program):
        usage = run(program, "--help")
        self.assertTrue(usage.startswith(f"usage: {example.name} "), usage)

    def test_each_example_is_built_here(self):
        self.assertEqual(EXAMPLES, sorted(path.parent for path in ROOT.glob("examples/*/CMakeLists.txt")))

    def test_each_header_compiles_by_itself(self):
        names = sorted(str(path.relative_to(self.headers)) for path in self.headers.rglob("*.h"))
        self.assertIn("cloud/include/cloudconnectorlocator.h", names)
        flags = self.flags("--cflags")

        def compile_alone(name):
            run(CXX, "-std=c++17", "-fsyntax-only", "-Wall", "-Wextra", "-Werror", *flags, "-x", "c++", "-",
                text=f'#include "{name}"\n')

        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            list(pool.map(compile_alone, names))

    def test_examples_build_with_the_cmake_package(self):
        for example in EXAMPLES:
            build = pathlib.Path(self.folder.name) / f"{example.name}-with-cmake"
            run(CMAKE, "-S", example, "-B", build, f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_CXX_COMPILER={CXX}",
                "-DCMAKE_CXX_FLAGS=-O0", "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", "-GNinja", LDFLAGS=LDFLAGS)
            run(CMAKE, "--build", build, "-j2")
            self.judge(example, build / example.name)
            commands = (build / "compile_commands.json").read_text()
            for internal in ("-Werror", "-Wall", "-fmacro-prefix-map", "SPDLOG", f"-I{ROOT}"):
                self.assertNotIn(internal, commands)

    def test_examples_build_with_pkg_config(self):
        for example in EXAMPLES:
            program = pathlib.Path(self.folder.name) / f"{example.name}-with-pkg-config"
            run(CXX, "-O0", *sorted(example.glob("*.cpp")), "-o", program, *LDFLAGS.split(),
                *self.flags("--cflags", "--libs"))
            self.judge(example, program)

    def test_package_has_the_version_of_the_tree(self):
        version = run("pkg-config", "--modversion", "ferrogate-cloud", PKG_CONFIG_PATH=str(self.module.parent)).strip()
        self.assertIn(f"project(ferrogate VERSION {version} ", (ROOT / "CMakeLists.txt").read_text())

    def test_nothing_points_into_the_tree_that_it_was_built_in(self):
        texts = [self.module, *self.prefix.rglob("*.cmake")]
        self.assertGreaterEqual(len(texts), 5)
        for path in texts:
            for elsewhere in (str(ROOT), BUILD, str(self.prefix)):
                self.assertNotIn(elsewhere, path.read_text(), path.name)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[6:])
