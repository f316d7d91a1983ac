"""What the sources, the manual pages, the default configuration and the completion say, in comparable form.

A test script gets the root of the tree as its first argument: start it with `main()`.
"""
import pathlib
import re
import sys
import unittest

ROOT = pathlib.Path(sys.argv[1]) if len(sys.argv) > 1 else pathlib.Path(__file__).parent.parent
# The command that help text and completion do not offer.
HIDDEN = "credential"


def main():
    """Runs the tests of the calling script; arguments behind the root are names of tests."""
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])


def text(name):
    return (ROOT / name).read_text(encoding="utf-8")


def sources(*patterns):
    """The text of all sources of the rooms, tests left out."""
    found = [p for pattern in patterns for p in sorted(ROOT.glob(pattern)) if "tests" not in p.parts]
    if not found:
        raise AssertionError(f"no sources match {patterns}")
    return "\n".join(p.read_text(encoding="utf-8") for p in found)


# --- the tool's tables -----------------------------------------------------------------------------------------------


def option_tables():
    """{table name: {long name: (letter, takes an argument)}} of getopt's tables."""
    tables = {}
    for name, body in re.findall(r"\boption (\w+)\[\] = \{(.*?)\n\};", sources("cli/cli_ferrogate*.cpp"), re.S):
        rows = re.findall(r'\{"([a-z]+)", (no|required)_argument, nullptr, \'(\w)\'\}', body)
        if len(rows) != body.count("argument"):
            raise AssertionError(f"the table {name} has rows that are not understood")
        tables[name] = {long: (letter, kind == "required") for long, kind, letter in rows}
    return tables


def short_strings():
    """[(table name, short string), ...]: what getopt is given together."""
    code = sources("cli/cli_ferrogate*.cpp")
    letters = dict(re.findall(r'constexpr char (\w+_LETTERS)\[\] = "([\w:]+)";', code))
    pairs = re.findall(r"'\w', \"([\w:]+)\", (\w+_OPTIONS)", code)
    pairs += re.findall(r'getopt_long\(argc, argv, "([\w:]+)", (\w+),', code)
    named = re.findall(r"getopt_long\(argc, argv, (\w+_LETTERS), (\w+),", code)
    pairs += [(letters[name], table) for name, table in named]
    return [(table, letters) for letters, table in pairs]


def commands():
    """{command: (letter, {option: (letter, takes an argument)})} as the code has it."""
    tables = option_tables()
    code = sources("cli/cli_ferrogate*.cpp")
    by_letter = dict(re.findall(r"\{'(\w)', \"[\w:]+\", (\w+),", code))
    by_letter["C"] = "CREDENTIAL_OPTIONS"
    return {name: (letter, tables[by_letter[letter]] if letter in by_letter else {})
            for name, (letter, _) in tables["COMMANDS"].items()}


def auth_types():
    body = re.search(r"proxyAuthTypes = \{(.*?)\n\};", sources("cloud/http/curl_object*.cpp"), re.S).group(1)
    return set(re.findall(r'\{"(\w+)",', body))


def result_texts():
    """{code: text} of the tables of result codes."""
    rows = re.findall(r'\{(\d+),\s*((?:"(?:[^"\\]|\\.)*"\s*)+)\}', text("cli/cli_common_results.cpp"))
    return {int(code): "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', literals)) for code, literals in rows}


def returned_codes():
    """The result codes that the tool has names for."""
    body = re.search(r"namespace result \{(.*?)\}", text("cli/cli_common.h"), re.S).group(1)
    return {int(code) for code in re.findall(r"constexpr int \w+ = (\d+);", body)}


def parameters():
    """The keys of the configuration as a person writes them, NAME standing for a name of one's own."""
    header = text("base/include/parameter_names.h")
    body = re.search(r"namespace lumo::PN \{(.*?)\n\}", header, re.S).group(1)
    named = dict(re.findall(r'constexpr char (\w+)\[\] =\s*"([^"]+)";', body))
    keys = {key + "NAME" if key.endswith(".") else key for key in named.values()}
    return keys | {named["ROOT_LOGGER_NAME"] + ".NAME"}


def paths():
    body = re.search(r"namespace lumo::path \{(.*?)\n\}", text("base/include/parameter_names.h"), re.S).group(1)
    return set(re.findall(r'"([^"]+)"', body))


# --- the manual pages ------------------------------------------------------------------------------------------------


def section(page, title):
    """The lines of a section (Sh) or subsection (Ss)."""
    found = re.search(rf'^\.S[hs] "?{re.escape(title)}"?\n(.*?)(?=^\.Sh |^\.Ss |\Z)', text(page), re.S | re.M)
    if not found:
        raise AssertionError(f"{page} has no section {title}")
    return found.group(1)


def items(lines):
    """The items of the outer list of a section: (head without .It, body)."""
    depth, found = 0, []
    for line in lines.splitlines():
        depth += line.startswith(".Bl") - line.startswith(".El")
        if line.startswith(".It ") and depth == 1:
            found.append((line[4:], []))
        elif found and depth > 0:
            found[-1][1].append(line)
    return [(head, "\n".join(body)) for head, body in found]


def page_commands():
    """The same as commands(), as ferrogate.8 has it."""
    found, letters = {}, {}
    for head, body in items(section("docs/ferrogate.8", "Commands")):
        name, letter = re.fullmatch(r"Fl -([a-z]+) , (\w)", head).groups()
        letters[name] = letter
        found[name] = {long: (short, False) for long, short in re.findall(r"^\.Pq Fl -([a-z]+) , (\w)", body, re.M)}
    for head, _ in items(section("docs/ferrogate.8", "Options")):
        name, letter, argument, of = re.fullmatch(r"Fl -([a-z]+) , (\w) ?(.*?) ?Pq Fl (.*)", head).groups()
        for command in of.split(" , "):
            found[command.lstrip("-")][name] = (letter, bool(argument))
    return {name: (letters[name], options) for name, options in found.items()}


def synopsis():
    """{command: {option: takes an argument}} of the synopsis of ferrogate.8."""
    found = {}
    for form in re.split(r"^\.Nm\n", section("docs/ferrogate.8", "SYNOPSIS"), flags=re.M)[1:]:
        words = re.findall(r"^\.(?:Op )?(Fl .*)$", form, re.M)
        flags = [flag for word in words for flag in re.findall(r"-([a-z]+)((?: Ar| Cm)?)", word)]
        if "|" in words[0] and flags[0][0] != HIDDEN:
            for name, _ in flags:
                found.setdefault(name, {})
        else:
            found.setdefault(flags[0][0], {}).update({name: bool(argument) for name, argument in flags[1:]})
    return found


def page_parameters():
    """{key: default} of morvand.conf.5; a default that is no value is empty."""
    found = {}
    groups = re.search(r"^\.Sh PARAMETERS\n(.*?)(?=^\.Sh )", text("docs/morvand.conf.5"), re.S | re.M).group(1)
    for group in re.findall(r"^\.Ss (.*)$", groups, re.M):
        for head, body in items(section("docs/morvand.conf.5", group)):
            key = re.match(r"Cm ([a-z0-9.]+)(?: Ns Ar (NAME))?", head)
            default = re.search(r"^Default:(?:\n\.Cm (\S+) \.| .*)\Z", body, re.S | re.M)
            if not default:
                raise AssertionError(f"morvand.conf.5 does not end {key.group(0)} with its default")
            found["".join(filter(None, key.groups()))] = default.group(1) or ""
    return found


# --- the default configuration ---------------------------------------------------------------------------------------


def configuration():
    """{key: default} of the default configuration."""
    rows = re.findall(r"^#([^\s:#]+):(.*)$", text("packaging/morvand.conf"), re.M)
    return {key: value.strip() for key, value in rows}
