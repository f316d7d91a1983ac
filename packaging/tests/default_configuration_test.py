#!/usr/bin/env python3
"""The default configuration holds every parameter of the code, with the default of the manual page.
usage: default_configuration_test.py ROOT [TEST...]"""
import pathlib
import re
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "testsupport"))
import tree_facts as tree

CONF = "packaging/morvand.conf"


class DefaultConfiguration(unittest.TestCase):
    maxDiff = None

    def test_parameters_are_those_of_the_code(self):
        self.assertEqual(set(tree.configuration()), tree.parameters())

    def test_defaults_are_those_of_the_manual_page(self):
        self.assertEqual(tree.configuration(), tree.page_parameters())

    def test_sets_nothing(self):
        self.assertEqual([line for line in tree.text(CONF).splitlines() if line and not line.startswith("#")], [])

    def test_every_parameter_stands_once_behind_its_explanation(self):
        lines = tree.text(CONF).splitlines()
        keys = [(at, line) for at, line in enumerate(lines) if re.match(r"#[^\s#]", line)]
        self.assertEqual(len(keys), len(tree.parameters()))
        for at, line in keys:
            self.assertRegex(line, r"^#[a-zA-Z0-9.]+:( \S+)?$")
            self.assertRegex(lines[at - 1], r"^# .*\S\.?$", line)


if __name__ == "__main__":
    tree.main()
