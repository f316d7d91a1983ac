#!/usr/bin/env python3
"""Each comparison of code, manual pages, default configuration and completion fails when one side is changed.
usage: drift_test.py ROOT [TEST...]"""
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "testsupport"))
import tree_facts as tree

PAGES = "docs/tests/manual_pages_test.py"
CONF = "packaging/tests/default_configuration_test.py"
COMPLETION = "packaging/tests/bash_completion_test.py"
TOOL, FILE = "docs/ferrogate.8", "docs/morvand.conf.5"
CODE = "cli/cli_ferrogate.cpp"
KEYS = "base/include/parameter_names.h"

# script, test that must fail, file to change, text in it, its replacement
CHANGES = (
    (PAGES, "Tool.test_options_are_those_of_the_code",
     CODE, "{\"authreq\", required_argument, nullptr, 'r'}", "{\"authneed\", required_argument, nullptr, 'r'}"),
    (PAGES, "Tool.test_options_are_those_of_the_code",
     TOOL, ".It Fl -opx , c Ar url", ".It Fl -opx , o Ar url"),
    (PAGES, "Tool.test_options_are_those_of_the_code",
     TOOL, "Pq Fl -set , -test , -list , -delete", "Pq Fl -set , -test"),
    (PAGES, "Tool.test_options_are_those_of_the_code",
     TOOL, ".Pq Fl -password , p\n", "\n"),
    (PAGES, "Tool.test_synopsis_shows_every_option",
     TOOL, ".Op Fl -authtype Ar type\n", ""),
    (PAGES, "Tool.test_examples_use_commands_and_options_of_the_code",
     TOOL, "--authreq true --authtype basic", "--authreq true --auth basic"),
    (PAGES, "Tool.test_short_options_agree_with_the_long_ones",
     CODE, '"u:p:ms:r:t:V"', '"u:p:m:s:r:t:V"'),
    (PAGES, "Tool.test_authentication_types_are_those_of_the_code",
     "cloud/http/curl_object.cpp", '{"digest",', '{"digested",'),
    (PAGES, "Tool.test_authentication_types_are_those_of_the_code",
     FILE, ".Cm basic , digest", ".Cm basic"),
    (PAGES, "Tool.test_exit_statuses_are_those_of_the_code",
     "cli/cli_common_results.cpp", '"No proxy server available"', '"No proxy available"'),
    (PAGES, "Tool.test_exit_statuses_are_those_of_the_code",
     "cli/cli_common.h", "ConnectionTestFailed = 162", "ConnectionTestFailed = 165"),
    (PAGES, "Tool.test_exit_statuses_are_those_of_the_code",
     TOOL, ".It 161\n", ".It 261\n"),
    (PAGES, "Tool.test_statuses_that_are_never_returned_say_so",
     TOOL, "Reserved, never returned.\n", ""),
    (PAGES, "Tool.test_every_failure_has_its_diagnostics",
     TOOL, ".It Status 160, Qq ERROR: Failed to set", ".It Qq Failed to set"),
    (PAGES, "Tool.test_quoted_messages_are_the_codes",
     "cli/cli_ferrogate_test.cpp", "FQDN hostname for proxy", "Host name for proxy"),
    (PAGES, "Tool.test_every_path_of_the_code_is_told",
     KEYS, "/var/run/ferrod.lock", "/run/ferrod.lock"),
    (PAGES, "Tool.test_version_is_the_projects",
     "CMakeLists.txt", "VERSION 5.5.0", "VERSION 5.6.0"),
    (PAGES, "Configuration.test_parameters_are_those_of_the_code",
     KEYS, '"fips.mode.enable"', '"fips.mode"'),
    (PAGES, "Configuration.test_parameters_are_those_of_the_code",
     FILE, ".It Cm logging.file Ar path", ".It Cm log.file Ar path"),
    (PAGES, "Configuration.test_levels_are_those_of_the_code",
     "basalt/logging/logging.cpp", '{"WARN", 3,', '{"WARNING", 3,'),
    (PAGES, "Configuration.test_levels_are_those_of_the_code",
     FILE, "\n4: errors.", "\n3: errors."),
    (PAGES, "Configuration.test_loggers_are_those_of_the_code",
     "cli/cli_ferrogate.h", '"cli.ferrogate"', '"cli.gate"'),
    (PAGES, "Configuration.test_certificate_bundles_are_those_of_the_code",
     "cloud/http/cloud_object_certs.cpp", "/etc/ssl/cert.pem", "/etc/ssl/certs.pem"),
    (PAGES, "Rendering.test_mandoc_has_no_complaint",
     TOOL, ".Sh FILES\n", ".Sh FILES\n.Nx 3 zz\n.Qz\n"),
    (PAGES, "Rendering.test_groff_has_no_complaint",
     FILE, ".Sh FILES\n", ".Sh FILES\n\\*[nothing]\n"),
    (PAGES, "Rendering.test_man_has_no_complaint",
     TOOL, ".Sh FILES\n", ".Sh FILES\n.XyZ\n"),
    (PAGES, "Rendering.test_no_word_of_a_message_is_taken_for_a_macro",
     TOOL, "ERROR: \\&No credential", "ERROR: No credential"),
    (CONF, "DefaultConfiguration.test_parameters_are_those_of_the_code",
     KEYS, '"lumod.socket"', '"lumod.path"'),
    (CONF, "DefaultConfiguration.test_parameters_are_those_of_the_code",
     "packaging/morvand.conf", "#log.NAME:", "# log.NAME:"),
    (CONF, "DefaultConfiguration.test_defaults_are_those_of_the_manual_page",
     FILE, ".Cm 30 .", ".Cm 60 ."),
    (CONF, "DefaultConfiguration.test_sets_nothing",
     "packaging/morvand.conf", "#log: INFO", "log: INFO"),
    (CONF, "DefaultConfiguration.test_every_parameter_stands_once_behind_its_explanation",
     "packaging/morvand.conf", "#log: INFO", "\n#log: INFO"),
    (COMPLETION, "Completion.test_commands_are_those_of_the_code_but_the_hidden_one",
     CODE, '{"list",', '{"lists",'),
    (COMPLETION, "Completion.test_options_of_each_command_are_those_of_the_code",
     CODE, '{"opx",', '{"url",'),
    (COMPLETION, "Completion.test_options_of_each_command_are_those_of_the_code",
     "packaging/ferrogate.bash", "--list | --delete) echo --verbose", "--list | --delete) echo"),
    (COMPLETION, "Completion.test_an_argument_is_no_option",
     "cloud/http/curl_object.cpp", '{"ntlm",', '{"ntlm2",'),
    (COMPLETION, "Completion.test_an_argument_is_no_option",
     "packaging/ferrogate.bash", "| --opx)", ")"),
    (COMPLETION, "Completion.test_an_option_is_offered_once",
     "packaging/ferrogate.bash", 'for word in "$word" ', "for word in "),
    (COMPLETION, "Completion.test_options_without_an_argument_wait_for_none",
     "packaging/ferrogate.bash",
     "--username | --password | --server |",
     "--machine | --username | --password | --server |"),
    (COMPLETION, "Completion.test_machine_and_a_user_do_not_stand_together",
     "packaging/ferrogate.bash", "--set:--authtype | ", ""),
    (PAGES, "Advice.test_of_the_sign_in_at_a_connector",
     FILE, "The port must stand in it", "The port may stand in it"),
    (PAGES, "Advice.test_of_the_sign_in_at_a_connector",
     FILE, ".Ql dNSHostName\nof its computer", ".Ql cn\nof its computer"),
    (PAGES, "Advice.test_of_events",
     FILE, "without a URL there none is sent", "with a URL or without"),
    (PAGES, "Advice.test_of_the_proxys_name_and_scheme",
     TOOL, "alias needs a service name", "alias needs nothing"),
    (PAGES, "Advice.test_of_clocks_keytabs_and_the_log",
     TOOL, ".Ql net ads keytab create .", ".Ql net ads join ."),
    (PAGES, "Advice.test_of_a_password_by_standard_input",
     TOOL, "setsid -w ferrogate", "ferrogate"),
    (COMPLETION, "Completion.test_the_beginning_decides",
     "packaging/ferrogate.bash", "negotiate", "spnego"),
    (COMPLETION, "Completion.test_arguments_that_bash_breaks_at_a_colon",
     "packaging/ferrogate.bash", "== :* ]]", "== none ]]"),
    (COMPLETION, "Completion.test_an_argument_that_looks_like_an_option",
     "packaging/ferrogate.bash", "    pending=\n", "    :\n"),
    (COMPLETION, "Completion.test_a_person_at_a_terminal",
     "packaging/ferrogate.bash", "complete -F _ferrogate ferrogate", ""),
)


class Drift(unittest.TestCase):
    def test_no_change_no_failure(self):
        for script in {change[0] for change in CHANGES}:
            status, out = run(script, [], tree.ROOT)
            self.assertEqual(status, 0, out)

    def test_every_change_is_found(self):
        with tempfile.TemporaryDirectory() as folder:
            copy = pathlib.Path(folder)
            for room in ("base", "basalt", "quill", "cloud", "cli", "docs", "packaging"):
                shutil.copytree(tree.ROOT / room, copy / room, ignore=shutil.ignore_patterns("tests"))
            for name in ("CMakeLists.txt", "README.md"):
                shutil.copy(tree.ROOT / name, copy)
            for script, test, name, old, new in CHANGES:
                with self.subTest(test=test, file=name, change=f"{old!r} to {new!r}"):
                    text = tree.text(name)
                    self.assertIn(old, text)
                    (copy / name).write_text(text.replace(old, new, 1), encoding="utf-8")
                    status, out = run(script, [test], copy)
                    (copy / name).write_text(text, encoding="utf-8")
                    self.assertEqual(status, 1, out)
                    self.assertRegex(out, r"(?m)^FAIL: |^AssertionError: ")

    def test_every_comparison_has_a_change(self):
        for script in {change[0] for change in CHANGES}:
            code = tree.text(script)
            tests = {line.split("def ")[1].split("(")[0] for line in code.splitlines() if "def test_" in line}
            self.assertEqual(tests - {test.split(".")[1] for _, test, *_ in CHANGES}, set(), script)


def run(script, tests, root):
    done = subprocess.run([sys.executable, "-B", tree.ROOT / script, root, *tests], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=60, check=False)
    return done.returncode, done.stdout


if __name__ == "__main__":
    tree.main()
