#!/usr/bin/env python3
"""The manual pages say what the code does, and render without warnings. usage: manual_pages_test.py ROOT [TEST...]"""
import pathlib
import re
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "testsupport"))
import tree_facts as tree

TOOL = "docs/ferrogate.8"
FILE = "docs/morvand.conf.5"


class Tool(unittest.TestCase):
    maxDiff = None

    def test_options_are_those_of_the_code(self):
        self.assertEqual(tree.page_commands(), tree.commands())

    def test_synopsis_shows_every_option(self):
        wanted = {command: {option: argument for option, (_, argument) in options.items()}
                  for command, (_, options) in tree.commands().items()}
        self.assertEqual(tree.synopsis(), wanted)

    def test_short_options_agree_with_the_long_ones(self):
        tables = tree.option_tables()
        given = tree.short_strings()
        self.assertEqual({table for table, _ in given}, set(tables))
        for table, letters in given:
            wanted = {letter + ":" * argument for letter, argument in tables[table].values()}
            self.assertEqual(set(re.findall(r"\w:?", letters)), wanted, table)

    def test_examples_use_commands_and_options_of_the_code(self):
        known = tree.commands()
        lines = re.findall(r"\bferrogate (--.*)", re.sub(r"\\e?\n", "", tree.text(TOOL) + tree.text("README.md")))
        self.assertGreater(len(lines), 8)
        for line in lines:
            for call in re.split(r"&& ferrogate ", line):
                command, *options = re.findall(r"--([a-z]+)", call)
                self.assertIn(command, known, line)
                self.assertLessEqual(set(options), set(known[command][1]), line)

    def test_authentication_types_are_those_of_the_code(self):
        for page, section in ((TOOL, "Options"), (FILE, "Web proxy")):
            words = tree.section(page, section)
            listed = re.search(r"How to authenticate.*?:\n(.*?)(?=^in upper|^which)", words, re.S | re.M)
            names = re.findall(r"\b[a-z]+\b", re.sub(r"\.Cm|\bor\b", "", listed.group(1)))
            self.assertEqual(set(names), tree.auth_types(), page)

    def test_exit_statuses_are_those_of_the_code(self):
        texts = tree.result_texts()
        codes = tree.returned_codes() | {code for code in texts if code > 155}
        wanted = {code: texts.get(code, "no text") + "." for code in codes}
        listed = {int(head): body.splitlines()[0] for head, body in tree.items(tree.section(TOOL, "EXIT STATUS"))}
        self.assertEqual(listed, wanted)

    def test_statuses_that_are_never_returned_say_so(self):
        for head, body in tree.items(tree.section(TOOL, "EXIT STATUS")):
            self.assertEqual("never returned" in body, int(head) not in tree.returned_codes(), head)

    def test_every_failure_has_its_diagnostics(self):
        heads = [head for head, _ in tree.items(tree.section(TOOL, "DIAGNOSTICS"))]
        explained = {int(code) for head in heads for code in re.findall(r"^Status (\d+)", head)}
        self.assertEqual(explained, tree.returned_codes() - {0})
        texts = tree.result_texts()
        quoted = {int(code): words.replace("\\&", "") for code, words in
                  re.findall(r"^Status (\d+), Qq ERROR: (.*)$", "\n".join(heads), re.M)}
        self.assertEqual(quoted, {code: texts[code] + "." for code in tree.returned_codes() if code > 155})

    def test_quoted_messages_are_the_codes(self):
        code = re.sub(r'"\s*\n\s*"', "", tree.sources("cli/*.cpp", "cli/*.h"))
        for head, _ in tree.items(tree.section(TOOL, "DIAGNOSTICS")):
            message = re.search(r"Qq (?:Error: |ERROR: )?(.*?)(?: ?\.\.\.|\.)?$", head)
            if message and message.group(1) and not head.startswith("Status 1"):
                words = message.group(1).replace("\\&", "").replace("ferrogate may", "%s may")
                self.assertIn(words, code)

    def test_every_path_of_the_code_is_told(self):
        told = set(re.findall(r"(/[\w./]+)", tree.section(TOOL, "FILES")))
        wanted = {path.rstrip("/") for path in tree.paths()} - {"/var/morvand"}
        self.assertLessEqual(wanted, {path.rstrip("/") for path in told})

    def test_version_is_the_projects(self):
        version = re.search(r"project\(ferrogate VERSION ([\d.]+)", tree.text("CMakeLists.txt")).group(1)
        printed = re.search(r'VERSION_LINE\[\] = "([^"-]+)', tree.sources("cli/cli_ferrogate*.cpp")).group(1)
        for page in (TOOL, FILE):
            self.assertIn(f'\n.Os "Morvand {version}"\n', tree.text(page))
        self.assertEqual(printed, f"Morvand {version}")


class Configuration(unittest.TestCase):
    maxDiff = None

    def test_parameters_are_those_of_the_code(self):
        self.assertEqual(set(tree.page_parameters()), tree.parameters())

    def test_levels_are_those_of_the_code(self):
        table = re.search(r"levels\{\{(.*?)\}\}\};", tree.text("basalt/logging/logging.cpp"), re.S).group(1)
        values = {name: value for name, value in re.findall(r'\{"(\w+)", ([\w:]+)', table)}
        off = re.search(r"LogLevel OFF = (\d+);", tree.text("base/include/logger.h")).group(1)
        wanted = [(name, int(off if value == "Logger::OFF" else value)) for name, value in values.items()]
        listed = [(head[3:], int(body.split(":")[0])) for head, body in tree.items(tree.section(FILE, "Levels"))]
        self.assertEqual(listed, wanted)
        kind = re.search(r"^\.It Ar level\n\.Cm (.*)\nor\n\.Cm (\w+)", tree.section(FILE, "Values"), re.M)
        self.assertEqual(kind.group(1).split(" , ") + [kind.group(2)], [name for name, _ in wanted])

    def test_loggers_are_those_of_the_code(self):
        rooms = ("basalt", "quill", "cloud", "cli")
        code = tree.sources("base/*.cpp", *(f"{room}/**/*.{end}" for room in rooms for end in ("cpp", "h")))
        named = set(re.findall(r'(?:getLogger\(|LOGGER(?:_NAME)?\[\] = )"([\w.]+)"', code))
        listed = {head[3:] for head, _ in tree.items(tree.section(FILE, "Names"))}
        self.assertEqual(listed, named)

    def test_certificate_bundles_are_those_of_the_code(self):
        table = re.search(r"KNOWN_BUNDLES\[\] = \{(.*?)\};", tree.text("cloud/http/cloud_object_certs.cpp"), re.S).group(1)
        wanted = re.findall(r'"([^"]+)"', table)
        bundles = r"/(?:etc|usr)/\S+\.(?:crt|pem)"
        self.assertEqual(re.findall(bundles, tree.section(TOOL, "FILES")), wanted)
        self.assertEqual(re.findall(bundles, tree.section(FILE, "Platform")), wanted)


class Advice(unittest.TestCase):
    """What costs an administrator hours where no page says it."""

    def says(self, page, section, head, *words):
        for one, body in tree.items(tree.section(page, section)):
            if one.startswith(head):
                text = re.sub(r"\s+", " ", re.sub(r"^\.(?:Ql|Cm|Pa|Sy|Xr|Fl|Ar) ", "", body, flags=re.M))
                for word in words:
                    self.assertIn(word, text, head)
                return
        self.fail(f"{page} has no item {head} in {section}")

    def test_of_the_sign_in_at_a_connector(self):
        self.says(FILE, "Connectors", "Cm ferrod.cloud.iwa.url", "The port must stand in it", "dNSHostName")
        self.assertIn("dNSHostName", tree.section(FILE, "Connectors").split(".Bl")[0])

    def test_of_events(self):
        self.says(FILE, "Connectors", "Cm ferrod.cloud.log.privevent", "without a URL there none is sent",
                  "distribution's bundle", "OPX.processor")

    def test_of_the_proxys_name_and_scheme(self):
        self.says(TOOL, "Options", "Fl -server", "alias needs a service name", "https://", "ferrod.cloud.cert.store")

    def test_of_clocks_keytabs_and_the_log(self):
        self.says(TOOL, "DIAGNOSTICS", "Status 6", "A clock that is off does not show there")
        self.says(TOOL, "DIAGNOSTICS", "Status 10", "kerberos method = secrets and keytab", "net ads keytab create")
        self.says(TOOL, "DIAGNOSTICS", "Status 162", "does not show it", "lower case", "-authtype Cm negotiate")

    def test_of_a_password_by_standard_input(self):
        self.assertIn("setsid -w ferrogate --set", tree.section(TOOL, "SECURITY CONSIDERATIONS"))


class Rendering(unittest.TestCase):
    def silent(self, *command):
        for page in (TOOL, FILE):
            done = subprocess.run([*command, str(tree.ROOT / page)], capture_output=True, text=True, check=False)
            # Later versions of groff tell of a line with one long word in it, which is none to be mended.
            complaints = [line for line in done.stderr.splitlines() if not line.endswith(": cannot adjust line")]
            self.assertEqual((done.returncode, complaints), (0, []), page)
            yield done.stdout

    def test_mandoc_has_no_complaint(self):
        for out in self.silent("mandoc", "-T", "lint", "-W", "warning"):
            self.assertEqual(out, "")

    def test_groff_has_no_complaint(self):
        for out in self.silent("groff", "-ww", "-mandoc", "-Tutf8"):
            self.assertIn("SEE ALSO", re.sub("\x1b\\[[0-9;]*m|.\b", "", out))

    def test_man_has_no_complaint(self):
        for out in self.silent("man", "--warnings", "-E", "UTF-8", "-l"):
            self.assertIn("SEE ALSO", re.sub(".\b", "", out))

    def test_no_word_of_a_message_is_taken_for_a_macro(self):
        done = subprocess.run(["mandoc", "-T", "utf8", "-O", "width=200", str(tree.ROOT / TOOL)],
                              capture_output=True, text=True, check=True)
        rendered = re.sub(".\b", "", done.stdout)
        texts = tree.result_texts()
        for code in sorted(tree.returned_codes() - {0, 6, 7, 9, 10}):
            self.assertIn(f"ERROR: {texts[code]}.", rendered)


if __name__ == "__main__":
    tree.main()
