#!/usr/bin/env python3
"""Completion of ferrogate in a bash without any library of completion functions, compared with the code's tables.
usage: bash_completion_test.py ROOT [TEST...]"""
import os
import pathlib
import pty
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "testsupport"))
import tree_facts as tree

SCRIPT = tree.ROOT / "packaging/ferrogate.bash"
ONE_OPTION = ("list", "delete", "credential")


def offered(*words):
    """What is offered for the last of the words behind the tool's name."""
    ask = ('source "$0"; COMP_WORDS=(ferrogate "$@"); COMP_CWORD=$#; _ferrogate; '
           'printf "%s\\n" "${COMPREPLY[@]}"')
    done = subprocess.run(["bash", "--norc", "-c", ask, str(SCRIPT), *words],
                          capture_output=True, text=True, check=False)
    if done.returncode or done.stderr:
        raise AssertionError(f"{words}: {done.returncode} {done.stderr}")
    return set(done.stdout.split())


def long(names):
    return {"--" + name for name in names}


class Completion(unittest.TestCase):
    maxDiff = None

    def test_commands_are_those_of_the_code_but_the_hidden_one(self):
        self.assertEqual(offered(""), long(set(tree.commands()) - {tree.HIDDEN}))
        self.assertEqual(offered("--"), long(set(tree.commands()) - {tree.HIDDEN}))

    def test_options_of_each_command_are_those_of_the_code(self):
        for name, (letter, options) in tree.commands().items():
            self.assertEqual(offered("--" + name, ""), long(options), name)
            self.assertEqual(offered("-" + letter, ""), long(options), letter)

    def test_an_argument_is_no_option(self):
        values = {"authreq": {"true", "false"}, "authtype": tree.auth_types()}
        for name, (letter, options) in tree.commands().items():
            for option, (short, argument) in options.items():
                if argument:
                    wanted = values.get(option, set())
                    self.assertEqual(offered("--" + name, "--" + option, ""), wanted)
                    self.assertEqual(offered("--" + name, "-" + short, ""), wanted)
                    self.assertEqual(offered("-" + letter + short, ""), wanted)
                    self.assertEqual(offered("--" + name, "--" + option, "=", ""), wanted)
                    self.assertEqual(offered("--" + name, "--" + option, "="), wanted)

    def test_an_option_is_offered_once(self):
        for name, (_, options) in tree.commands().items():
            for option, (short, argument) in options.items():
                value = ["x"] if argument else []
                self.assertNotIn("--" + option, offered("--" + name, "--" + option, *value, ""))
                self.assertNotIn("--" + option, offered("--" + name, "-" + short, *value, ""))
                if name in ONE_OPTION:
                    self.assertEqual(offered("--" + name, "--" + option, *value, ""), set())

    def test_options_without_an_argument_wait_for_none(self):
        self.assertIn("--server", offered("--set", "--machine", ""))
        self.assertIn("--server", offered("-Sm", ""))
        self.assertEqual(offered("--credential", "--password", ""), set())

    def test_machine_and_a_user_do_not_stand_together(self):
        self.assertEqual(offered("--set", "--machine", ""), long(["server", "authreq", "verbose"]))
        self.assertEqual(offered("--test", "-m", ""), long(["opx", "server", "verbose"]))
        for command in ("--set", "--test"):
            for option in ("--username", "--password"):
                self.assertNotIn("--machine", offered(command, option, "x", ""))
        self.assertNotIn("--machine", offered("--set", "-t", "basic", ""))
        self.assertIn("--machine", offered("--set", "-r", "true", ""))

    def test_the_beginning_decides(self):
        self.assertEqual(offered("--de"), {"--delete"})
        self.assertEqual(offered("--set", "--au"), {"--authreq", "--authtype"})
        self.assertEqual(offered("--set", "--authtype", "n"), {"ntlm", "negotiate"})
        self.assertEqual(offered("--set", "--authtype", "=", "d"), {"digest"})
        self.assertEqual(offered("--set", "--authtype=d"), {"--authtype=digest"})

    def test_arguments_that_bash_breaks_at_a_colon(self):
        self.assertEqual(offered("--set", "--server", "host", ":", ""), set())
        self.assertEqual(offered("--set", "--server", "host", ":"), set())
        self.assertEqual(offered("--test", "-c", "https", ":", "//x"), set())
        self.assertIn("--opx", offered("--test", "--server", "host", ":", "3128", ""))

    def test_an_argument_that_looks_like_an_option(self):
        self.assertIn("--machine", offered("--set", "--server", "--username", ""))
        self.assertIn("--machine", offered("--set", "-sp", ""))

    def test_a_person_at_a_terminal(self):
        """Keys typed into a bash that finds the file as bash-completion does, by the name of the command."""
        with tempfile.TemporaryDirectory() as folder:
            completions = pathlib.Path(folder, "completions")
            completions.mkdir()
            shutil.copy(SCRIPT, completions / "ferrogate")
            line = typed(folder, "ferrogate --se\t--authty\tneg\t--server=host:3128 --verb\t")
        self.assertEqual(line, "--set --authtype negotiate --server=host:3128 --verbose")


def typed(folder, keys):
    """The arguments of the command that the keys make in an interactive bash."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.execve("/bin/bash", ["bash", "--norc", "--noprofile", "-i"],
                  {"PATH": os.environ["PATH"], "TERM": "dumb", "HOME": folder, "BASH_COMPLETION_USER_DIR": folder,
                   "INPUTRC": "/dev/null", "PS1": "READY ", "HISTFILE": ""})
    try:
        until(terminal, "READY ")
        start = "source /usr/share/bash-completion/bash_completion; ferrogate() { printf '<<%s>>' \"$*\"; }"
        os.write(terminal, f"bind 'set enable-bracketed-paste off'; {start}; PS1='THEN '\r".encode())
        until(terminal, "\nTHEN ")
        os.write(terminal, (keys + "\r").encode())
        return until(terminal, ">>").rpartition("<<")[2].removesuffix(">>")
    finally:
        os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)
        os.close(terminal)


def until(terminal, end):
    """What comes from the terminal up to the given text. CTest's time limit stands behind it."""
    seen = ""
    while end not in seen:
        seen += os.read(terminal, 4096).decode(errors="replace").replace("\r", "")
    return seen[:seen.index(end) + len(end)]


if __name__ == "__main__":
    tree.main()
