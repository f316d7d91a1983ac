#!/usr/bin/env python3
"""Fails on an include that points the wrong way.

usage: check_includes.py [ROOT]
Rooms may include themselves and what stands behind their arrow; the headers of some libraries are known to few units.
An example is a project of its own: it names its own headers as they stand beside it."""
import pathlib
import re
import sys

# A room and what it may include beside itself. A name without a slash stands for all rooms below it.
ROOMS = {
    "base": set(),
    "basalt/files": {"base"},
    "basalt/process": {"basalt/files", "base"},
    "basalt/logging": {"basalt/files", "basalt/process", "base"},
    "basalt/settings": {"basalt/files", "basalt/process", "basalt/logging", "base"},
    "basalt/kerberos": {"basalt/files", "basalt/process", "basalt/logging", "basalt/settings", "base"},
    "basalt/queue": {"basalt/process", "base"},
    "basalt/directory": {"basalt/files", "basalt/process", "basalt/logging", "basalt/settings", "basalt/kerberos", "base"},
    "quill": {"basalt", "base"},
    "cloud/http": {"basalt", "base"},
    "cloud/route": {"cloud/http", "basalt", "base"},
    "cloud/rest": {"cloud/http", "cloud/route", "basalt", "base"},
    "cloud/login": {"cloud/http", "cloud/route", "cloud/rest", "basalt", "base"},
    "cloud/events": {"cloud/http", "cloud/route", "cloud/rest", "cloud/login", "basalt", "base"},
    "cli": {"cloud", "quill", "basalt", "base"},
    "examples": {"cloud", "basalt", "base"},
    "lab": {"testsupport", "base"},
    "lab/agent": {"cloud", "quill", "basalt", "base"},
    "lab/agent/tests": {"cli"},
}
# Public headers whose path is promised: the room to which each belongs.
PLACED = {
    "basalt/ad_agent.h": "basalt/directory",
    "basalt/kerberos_abandoned.h": "basalt/kerberos",
    "basalt/run_queue.h": "basalt/queue",
    "cloud/include/cloud_exceptions.h": "cloud/http",
    "cloud/include/cloud_object_pool.h": "cloud/http",
    "cloud/include/curl_object.h": "cloud/http",
    "cloud/include/exchange_stop.h": "cloud/http",
    "cloud/include/process_start.h": "cloud/http",
    "cloud/include/transport_start.h": "cloud/http",
    "cloud/include/cloudconnectorlocator.h": "cloud/route",
    "cloud/include/opx.h": "cloud/route",
    "cloud/include/cloud_object.h": "cloud/rest",
    "cloud/include/cloud_auth.h": "cloud/login",
    "cloud/include/cloud_auth_handler.h": "cloud/login",
    "cloud/include/opx_processor.h": "cloud/events",
}
# Single includes against the arrows: the lower room keeps what only this one file needs from the upper one.
AGAINST = {
    # The check of a hook's program splits its command line as the call of the program does.
    "basalt/files/file_security.cpp": {"basalt/process/child_process.h"},
    # Without a stored domain the keytab's account names it.
    "basalt/settings/settings_store.cpp": {"basalt/kerberos/kerberos_names.h"},
    # KDCs stand in DNS as directory servers do.
    "basalt/kerberos/kerberos_locator.cpp": {"basalt/directory/directory_srv.h"},
}
# What serves tests and benchmarks alone: the rooms that are not installed may know it.
FOR_TESTS = {"testsupport", "lab"}
# The public headers, beside those that they include: what an example may include.
PUBLIC = re.compile(r"^(cloud/include/\w+|basalt/(ad_agent|kerberos_abandoned|run_queue)|"
                    r"base/include/(logger|printable))\.h$")
# What a room's code may not know, told by the header's name: the files that may.
GUARDED = [
    (re.compile(r"^curl/"), re.compile(r"^cloud/(http/|include/curl_)")),
    (re.compile(r"^(ldap|lber)\.h$"), re.compile(r"^basalt/directory/")),
    (re.compile(r"^(krb5|gssapi|gssapi/.*|krb5/.*|com_err|et/com_err|profile)(\.h)?$"),
     re.compile(r"^(base/(include/)?kerb_wrap|basalt/kerberos/|cloud/http/curl_gsssetup)")),
    (re.compile(r"^sodium"), re.compile(r"^basalt/(process/locked_memory|files/base64)")),
    (re.compile(r"^sasl/"), re.compile(r"^(basalt/directory/|cli/cli_ferrogate_sasl)")),
    (re.compile(r"^spdlog/"), re.compile(r"^basalt/logging/")),
    (re.compile(r"^rapidjson/"), re.compile(r"^(quill|cloud|lab)/")),
]
# Protocol versions know one another by inheritance alone: this file may include that header.
INHERITANCE = {"cloud/login/cloud_auth_v1s.h": {"cloud/login/cloud_auth_v1.h"}}
VERSION = re.compile(r"^cloud/login/cloud_auth_(v\w+)\.h$")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')


def room_of(name):
    """The innermost room that a file lies in or an include names."""
    if name in PLACED:
        return PLACED[name]
    folders = name.split("/")[:-1]
    return next(("/".join(folders[:n]) for n in range(len(folders), 0, -1) if "/".join(folders[:n]) in ROOMS),
                name.split("/")[0])


def may_include(room, target):
    return target == room or target in ROOMS[room] or target.split("/")[0] in ROOMS[room]


def faults_of(path, name):
    room = room_of(name)
    if room not in ROOMS:
        yield f"{name}: lies in no room; public headers are named in PLACED"
        return
    is_test = "/tests/" in name
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        match = INCLUDE.match(line)
        if not match:
            continue
        quoted, header = match.group(1) == '"', match.group(2)
        where = f"{name}:{number}: "
        target = room_of(header)
        if quoted and target in FOR_TESTS:
            if not is_test and target != room and target not in ROOMS[room]:
                yield where + f"{header}: only tests include {target}"
        elif quoted:
            if room == "examples" and target == header:
                if not (path.parent / header).exists():
                    yield where + f"{header} does not stand beside it"
            elif target not in ROOMS:
                yield where + f'"{header}" is not named from the root of the tree'
            elif not may_include(room, target) and header not in AGAINST.get(name, ()):
                yield where + f"{room} must not include {target} ({header})"
            elif room == "examples" and not PUBLIC.match(header):
                yield where + f"{header} is not a public header"
        if is_test:
            continue
        for headers, users in GUARDED:
            if headers.search(header) and not users.search(name):
                yield where + f"<{header}> is not known to this unit"
        if VERSION.match(header) and VERSION.match(name) and header != name and header not in INHERITANCE.get(name, ()):
            yield where + f"a protocol version includes another's header ({header})"


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
    folders = sorted({room.split("/")[0] for room in ROOMS})
    files = [p for folder in folders for p in sorted((root / folder).rglob("*")) if p.suffix in (".h", ".cpp")]
    if not files:
        sys.exit(f"{root}: no sources found")
    faults = [fault for path in files for fault in faults_of(path, str(path.relative_to(root)))]
    print("\n".join(faults) if faults else f"{len(files)} files, every include points the right way")
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
