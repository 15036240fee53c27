#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""The manual page and the completion name what the program has, all of it and nothing else."""

import os
import pathlib
import re
import subprocess

from support import case, main, run

TOOLS = pathlib.Path(os.environ["TOOLS_SOURCE"])
COMMANDS = "keygen listen connect send receive serve ping perf decode".split()


def options(command):
    text = run(command, "--help").output.decode()
    return set(re.findall(r"^ +(?:-\w, )?(--[a-z][a-z-]+)", text, re.MULTILINE))


def page():
    return (TOOLS / "zelgvc.1").read_text().replace("\\-", "-")


def complete(*words):
    """The completions that bash offers for the last of these words."""
    script = """
        compopt() { :; }
        source "$1"; shift
        COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
        _zelgvc
        printf '%s\\n' "${COMPREPLY[@]}"
    """
    found = subprocess.run(
        ["bash", "-c", script, "bash", TOOLS / "completion.bash", "zelgvc", *words],
        capture_output=True, text=True, check=True,
    )
    assert found.stderr == "", found.stderr
    return set(found.stdout.split())


@case
def completion_offers_every_command():
    assert set(COMMANDS) <= complete("") and complete("ke") == {"keygen"}


@case
def completion_offers_every_option_of_a_command():
    for command in COMMANDS:
        assert complete(command, "-") == options(command), command


@case
def completion_offers_values_and_files():
    assert complete("ping", "--key-length", "") == {"128", "256"}
    assert complete("perf", "--direction", "s") == {"send"}
    pathlib.Path("some-key").touch()
    assert complete("ping", "--encrypt", "some") == {"some-key"}
    assert complete("send", "host:1", "some") == {"some-key"}


@case
def the_manual_page_names_every_option():
    text = page()
    for command in COMMANDS:
        for option in options(command):
            short = {"--count": "-c", "--interval": "-i", "--size": "-s"}.get(option, option)
            assert re.search(re.escape(short) + r"(?![a-z-])", text), (command, option)
    known = set().union(*map(options, COMMANDS))
    named = set(re.findall(r"(?<![\w-])(--[a-z][a-z-]+)", text))
    assert named <= known, named - known


@case
def the_manual_page_names_every_exit_code():
    codes = re.search(r"enum class Exit \{(.*?)\}", (TOOLS / "errors.h").read_text(), re.DOTALL)[1]
    status = page().split(".SH EXIT STATUS")[1].split(".SH EXAMPLES")[0]
    named = set(re.findall(r"^\.BR? (\d+)", status, re.MULTILINE))
    assert named == set(re.findall(r"= (\d+)", codes))


@case
def the_manual_page_is_of_this_version():
    version = run("--version").output.decode().strip()
    assert f'"{version}"' in page()


main()
