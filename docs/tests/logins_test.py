#!/usr/bin/env python3
"""docs/logins.md says what the headers say, and its pictures can be drawn. usage: logins_test.py ROOT [TEST...]"""
import pathlib
import re
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "testsupport"))
import tree_facts as tree

PAGE = "docs/logins.md"
HEADER = "cloud/include/cloud_auth.h"
# The lines of a Mermaid sequence picture that the page uses.
NAME = r"[A-Z]"
LINE = re.compile(rf"participant {NAME} as \w+|{NAME}-?->>{NAME}: [^;#]+|Note over {NAME}(,{NAME})?: [^;#]+")
OPENING = re.compile(r"(opt|alt|loop) [^;#]+")


def enumeration(name):
    """{value: name} of an enum of the header."""
    body = re.search(rf"enum {name} : std::int32_t {{(.*?)}};", tree.text(HEADER), re.S).group(1)
    names = re.findall(r"([A-Z_]+)(?: = (\d+))?", re.sub(r"//.*", "", body))
    return {int(value or place): text for place, (text, value) in enumerate(names)}


def rows(heading):
    """The first two columns of the table with that heading in its second column."""
    table = re.search(rf"^\| value \| `{heading}` \|.*?\n\n", tree.text(PAGE), re.S | re.M).group(0)
    return {int(value): name for value, name in re.findall(r"^\| (\d+) \| `(\w+)` \|", table, re.M)}


def literals(*patterns):
    """The texts of string literals in the sources; those that stand side by side are one."""
    whole = r'"(?:[^"\\\n]|\\.)*"(?:\s*"(?:[^"\\\n]|\\.)*")*'
    code = re.sub(r"^\s*(?:#include|//).*$", "", tree.sources(*patterns), flags=re.M)
    return {"".join(re.findall(r'"((?:[^"\\\n]|\\.)*)"', group)) for group in re.findall(whole, code)}


class Logins(unittest.TestCase):
    def test_values_are_those_of_the_header(self):
        for name in ("CloudAuthStatus", "CloudAuthAction", "CloudAnswerType"):
            self.assertEqual(rows(name), enumeration(name), name)

    def test_names_in_capitals_are_known_to_the_header(self):
        known = set(re.findall(r"\b[A-Z]+_[A-Z_]+\b", tree.text(HEADER)))
        telephone_lines = {"PF_HOME", "PF_OFFICE", "PF_MOBILE"}
        self.assertEqual(set(re.findall(r"\b[A-Z]+_[A-Z_]+\b", tree.text(PAGE))) - known, telephone_lines)

    def test_parameters_are_known(self):
        named = set(re.findall(r"`((?:ferrod|ferrosec|lumod)\.[a-z.]+)`", tree.text(PAGE)))
        self.assertIn("ferrod.cloud.rest.version", named)
        self.assertLessEqual(named, tree.parameters())

    def test_requests_are_those_of_the_code(self):
        path = r"\b(?:security|qrsintegration|iwa)/\w+"
        code = "\n".join(literals("cloud/login/cloud_auth*.cpp", "cloud/rest/*.cpp", "cloud/rest/machine_sign_in.h"))
        self.assertEqual(set(re.findall(path, tree.text(PAGE))), set(re.findall(path, code)))

    def test_values_of_replies_are_those_of_the_code(self):
        summaries = re.search(r"^\| `Summary` .*?\n\n", tree.text(PAGE), re.S | re.M).group(0)
        named = set(re.findall(r"`(\w+)`", re.sub(r"\|[^|]*\|\n", "|\n", summaries))) - {"Summary", "Failure"}
        self.assertEqual(len(named), 5)
        self.assertLessEqual(named | {"ChallengeRequired", "NotConfigured"}, literals("cloud/login/cloud_auth_v1*.cpp"))

    def test_words_of_failures_are_those_of_the_code(self):
        table = re.search(r"^\| exception and words .*?\n\n", tree.text(PAGE), re.S | re.M).group(0)
        code = "\n".join(literals("cloud/**/*.cpp"))
        declared = tree.text("cloud/include/cloud_exceptions.h") + tree.text("base/include/exceptions.h")
        declared += tree.text("cloud/include/curl_object.h")
        for row in table.strip().splitlines()[2:]:
            failure, advice = row.strip("| ").split(" | ")
            words = re.findall(r'"([^"]+)"', failure)
            self.assertTrue(words, row)
            for text in words + re.findall(r'"([^"]+)"', advice):
                self.assertTrue(text.removesuffix("...").rstrip() in code, text)
            for name in re.findall(r"`(\w+Exception)`", failure):
                self.assertIn(f"LUMO_DECLARE_EXCEPTION({name}, ", declared)

    def test_links_lead_somewhere(self):
        links = re.findall(r"\]\(([^)#]+)\)", tree.text(PAGE))
        self.assertTrue(links)
        for link in links:
            self.assertTrue((tree.ROOT / "docs" / link).exists(), link)

    def test_each_version_has_a_picture_that_can_be_drawn(self):
        pictures = re.findall(r"^## ([^\n]*)\n(?:(?!^## ).)*?```mermaid\n(.*?)```", tree.text(PAGE), re.S | re.M)
        self.assertEqual([heading for heading, _ in pictures], ["Version 0", "Version 1.0", "The newest version"])
        for heading, picture in pictures:
            lines = [line.strip() for line in picture.strip().splitlines()]
            self.assertEqual(lines[0], "sequenceDiagram")
            present, opened = set(re.findall(r"participant (\w)", picture)), []
            for line in lines[1:]:
                if line == "end":
                    self.assertTrue(opened, heading)
                    opened.pop()
                elif line.startswith("else "):
                    self.assertEqual(opened[-1:], ["alt"], f"{heading}: {line}")
                elif OPENING.fullmatch(line):
                    opened.append(line.split()[0])
                else:
                    self.assertRegex(line, rf"\A(?:{LINE.pattern})\Z")
                    actors = re.match(rf"(?:Note over )?({NAME})(?:-?->>|,)({NAME})", line)
                    self.assertLessEqual(set(actors.groups() if actors else ()), present, line)
            self.assertEqual(opened, [], heading)


if __name__ == "__main__":
    tree.main()
