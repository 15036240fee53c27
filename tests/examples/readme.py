# SPDX-License-Identifier: LGPL-2.1-or-later
"""The example in README.md, as a reader would use it: copied, compiled and run.

usage: readme.py SOURCE_ROOT BUILD_ROOT LIBRARY
"""

import os
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
import time

import tap
import toolchain

SOURCE, BUILD, LIBRARY = (pathlib.Path(path).resolve() for path in sys.argv[1:])


def example():
    blocks = re.findall(r"^```c\n(.*?)^```$", (SOURCE / "README.md").read_text(), re.M | re.S)
    programs = [block for block in blocks if "\nmain(" in block]
    assert len(programs) == 1, f"{len(programs)} complete programs in README.md"
    return programs[0]


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as probe:
        return probe.getsockname()[1]


def stands_in_the_examples():
    kept = (SOURCE / "examples/readme.c").read_text()
    assert example() == kept, "README.md and examples/readme.c differ"


def wait_until_listening(port, server):
    """Until the port is taken, without a connection that the server would take for its caller's."""
    deadline = time.monotonic() + 60
    while time.monotonic() < deadline:
        assert server.poll() is None, server.communicate()
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
            except OSError:
                return
        time.sleep(0.01)
    raise AssertionError("the server never listened")


def compiles_and_talks():
    with tempfile.TemporaryDirectory() as scratch:
        source = pathlib.Path(scratch, "example.c")
        source.write_text(example())
        flags = toolchain.package_flags("zelgvc", "--cflags", "--libs",
                                        path=BUILD / "meson-uninstalled")
        program = toolchain.build_program(source, source.with_suffix(""), flags)
        env = {"LD_LIBRARY_PATH": str(LIBRARY.parent)}
        port = free_port()
        server = subprocess.Popen([program, str(port)], stdin=subprocess.DEVNULL, text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                  env={**os.environ, **env})
        try:
            wait_until_listening(port, server)
            heard = toolchain.capture(program, str(port), "and then?", env=env)
            answered, complaint = server.communicate(timeout=60)
        finally:
            server.kill()
            server.wait()
        assert heard == "heard and then? 42\n", heard
        assert answered == "heard and then? 41\n", answered
        assert server.returncode == 0, complaint


sys.exit(tap.run([
    ("/readme/example-stands-in-the-examples", stands_in_the_examples),
    ("/readme/example-compiles-and-talks", compiles_and_talks),
]))
