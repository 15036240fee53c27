# SPDX-License-Identifier: LGPL-2.1-or-later
"""Compiles and runs programs for the Python tests, as a user of the library would.

The build tells them its compilers in CC and CXX and, in TEST_SANITIZE, the sanitizers that a
program must be linked with to load a library that was built with them.
"""

import os
import shlex
import subprocess

SANITIZE = os.environ.get("TEST_SANITIZE", "none")


def capture(*command, env=None):
    """The standard output of a command that must succeed."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          env={**os.environ, **(env or {})})
    shown = shlex.join(map(str, command))
    assert done.returncode == 0, f"{shown}\nended with {done.returncode}\n{done.stdout}{done.stderr}"
    return done.stdout


def compiler(language):
    command = shlex.split(os.environ["CC" if language == "c" else "CXX"])
    return command if SANITIZE == "none" else [*command, f"-fsanitize={SANITIZE}"]


def package_flags(package, *options, path=None):
    env = {"PKG_CONFIG_PATH": str(path)} if path else {}
    return shlex.split(capture("pkg-config", *options, package, env=env))


def build_program(source, program, flags):
    capture(*compiler("c"), "-Wall", "-Wextra", "-Werror", "-Wno-unused-parameter", str(source),
            "-o", str(program), *flags)
    return str(program)
