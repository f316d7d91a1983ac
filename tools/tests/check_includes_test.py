#!/usr/bin/env python3
"""The include check finds each kind of wrong arrow, and passes over right ones."""
import pathlib
import subprocess
import sys
import tempfile
import unittest

CHECK = pathlib.Path(__file__).parent.parent / "check_includes.py"


def check(files):
    with tempfile.TemporaryDirectory() as folder:
        for name, text in files.items():
            path = pathlib.Path(folder) / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
        done = subprocess.run([sys.executable, CHECK, folder], capture_output=True, text=True, check=False)
        return done.returncode, done.stdout


class IncludeCheck(unittest.TestCase):
    def refused(self, name, line, words):
        status, out = check({name: line + "\n"})
        self.assertEqual(status, 1, out)
        self.assertIn(words, out)

    def test_right_arrows_pass(self):
        status, out = check({
            "cli/a.cpp": '#include "cloud/http/b.h"\n#include "quill/c.h"\n#include <vector>\n',
            "cloud/include/curl_object.h": "#include <curl/curl.h>\n",
            "cloud/http/tests/t_test.cpp": '#include "testsupport/process.h"\n#include <krb5.h>\n',
            "lab/agent/a.cpp": '#include "lab/agent/b.h"\n#include "quill/c.h"\n#include "cloud/http/d.h"\n',
            "lab/agent/tests/a_main.cpp": '#include "cli/b.h"\n',
        })
        self.assertEqual((status, out), (0, "5 files, every include points the right way\n"))

    def test_rooms(self):
        self.refused("base/a.h", '#include "basalt/files/b.h"', "base must not include basalt")
        self.refused("basalt/files/a.h", '#include "cloud/http/b.h"', "basalt/files must not include cloud")
        self.refused("quill/a.h", '#include "cloud/http/b.h"', "quill must not include cloud")
        self.refused("cloud/http/a.h", '#include "cli/b.h"', "cloud/http must not include cli")
        self.refused("cloud/http/a.h", '#include "quill/b.h"', "cloud/http must not include quill")

    def test_floors(self):
        self.refused("cloud/http/a.cpp", '#include "cloud/route/b.h"', "cloud/http must not include cloud/route")
        self.refused("cloud/rest/a.cpp", '#include "cloud/include/cloud_auth.h"', "must not include cloud/login")
        self.refused("cloud/include/cloud_object.h", '#include "cloud/events/b.h"', "must not include cloud/events")
        self.refused("basalt/files/a.h", '#include "basalt/kerberos/b.h"', "must not include basalt/kerberos")
        self.refused("basalt/run_queue.h", '#include "basalt/directory/b.h"', "must not include basalt/directory")
        status, out = check({"cloud/events/a.cpp": '#include "cloud/rest/b.h"\n#include "cloud/include/opx.h"\n',
                             "basalt/directory/a.cpp": '#include "basalt/kerberos/b.h"\n'})
        self.assertEqual(status, 0, out)

    def test_single_includes_against_the_arrows(self):
        line = '#include "basalt/kerberos/kerberos_names.h"'
        status, out = check({"basalt/settings/settings_store.cpp": line + "\n"})
        self.assertEqual(status, 0, out)
        self.refused("basalt/settings/properties_file.cpp", line, "must not include basalt/kerberos")

    def test_what_lies_in_no_room(self):
        self.refused("cloud/a.cpp", "", "lies in no room")
        self.refused("cloud/include/new.h", "", "lies in no room")

    def test_the_labs_agent_is_a_room_of_its_own(self):
        self.refused("lab/agent/a.cpp", '#include "cli/b.h"', "lab/agent must not include cli")
        self.refused("lab/agent/a.cpp", '#include "testsupport/b.h"', "only tests include testsupport")
        self.refused("lab/platform/a.cpp", '#include "cloud/http/b.h"', "lab must not include cloud")
        self.refused("lab/platform/a.cpp", '#include "lab/agent/b.h"', "lab must not include lab/agent")
        self.refused("cloud/http/tests/t_test.cpp", '#include "lab/agent/b.h"', "cloud/http must not include lab/agent")

    def test_examples_include_public_headers_only(self):
        self.refused("examples/a/main.cpp", '#include "cloud/http/cloud_object_certs.h"', "is not a public header")
        self.refused("examples/a/main.cpp", '#include "basalt/directory/directory.h"', "is not a public header")
        self.refused("examples/a/main.cpp", '#include "quill/c.h"', "examples must not include quill")
        status, out = check({"examples/a/main.cpp": '#include "basalt/ad_agent.h"\n#include "cloud/include/opx.h"\n'})
        self.assertEqual(status, 0, out)

    def test_an_example_names_its_own_headers_as_they_stand_beside_it(self):
        status, out = check({"examples/a/main.cpp": '#include "b.h"\n', "examples/a/b.h": ""})
        self.assertEqual(status, 0, out)
        self.refused("examples/a/main.cpp", '#include "b.h"', "b.h does not stand beside it")
        self.refused("examples/a/main.cpp", '#include "examples/a/b.h"', "is not a public header")

    def test_guarded_headers(self):
        self.refused("cli/a.cpp", "#include <curl/curl.h>", "<curl/curl.h> is not known")
        self.refused("cloud/http/a.cpp", "#include <ldap.h>", "<ldap.h> is not known")
        self.refused("cli/a.cpp", "#include <krb5.h>", "<krb5.h> is not known")
        self.refused("cloud/http/curl_object.cpp", "#include <gssapi/gssapi.h>", "is not known")
        self.refused("cli/a.cpp", "#include <rapidjson/document.h>", "is not known")

    def test_tests_only(self):
        self.refused("cli/a.cpp", '#include "testsupport/process.h"', "only tests include testsupport")
        self.refused("cloud/http/a.cpp", '#include "lab/platform/platform_simulator.h"', "only tests include lab")
        self.refused("lab/a.cpp", '#include "cloud/http/b.h"', "lab must not include cloud")
        status, out = check({
            "cloud/http/tests/a_test.cpp": '#include "lab/platform/platform_simulator.h"\n',
            "lab/platform/b.cpp": '#include "testsupport/http_server.h"\n#include <rapidjson/document.h>\n',
        })
        self.assertEqual(status, 0, out)

    def test_protocol_versions(self):
        self.refused("cloud/login/cloud_auth_v1.h", '#include "cloud/login/cloud_auth_v0.h"', "a protocol version includes")
        status, _ = check({"cloud/login/cloud_auth_v1s.h": '#include "cloud/login/cloud_auth_v1.h"\n'})
        self.assertEqual(status, 0)

    def test_folder_relative_name(self):
        self.refused("cli/a.cpp", '#include "b.h"', "is not named from the root")

    def test_empty_tree_is_no_success(self):
        with tempfile.TemporaryDirectory() as folder:
            done = subprocess.run([sys.executable, CHECK, folder], capture_output=True, text=True, check=False)
            self.assertNotEqual(done.returncode, 0)


if __name__ == "__main__":
    unittest.main()
