# SPDX-License-Identifier: LGPL-2.1-or-later
"""The example in README.md, as a reader would use it: compiled, and run against the program zelgvc.

usage: readme.py SOURCE_ROOT BUILD_ROOT LIBRARY ZELGVC
"""

import pathlib
import re
import subprocess
import sys
import tempfile

import tap
import toolchain

SOURCE, BUILD, LIBRARY, ZELGVC = (pathlib.Path(path).resolve() for path in sys.argv[1:])
PROGRAM = SOURCE / "examples/readme.c"


def stands_in_the_examples():
    blocks = re.findall(r"^```c\n(.*?)^```$", (SOURCE / "README.md").read_text(), re.M | re.S)
    assert len(blocks) == 1, f"{len(blocks)} examples in C in README.md"
    assert blocks[0] in PROGRAM.read_text(), "the example in README.md is not in examples/readme.c"


def compiles_and_talks():
    with tempfile.TemporaryDirectory() as scratch:
        flags = toolchain.package_flags("zelgvc", "--cflags", "--libs",
                                        path=BUILD / "meson-uninstalled")
        program = toolchain.build_program(PROGRAM, pathlib.Path(scratch, "readme"), flags)
        server = subprocess.Popen(
            [ZELGVC, "listen", "--compress", "--exec", "tr a-z A-Z", "127.0.0.1:0"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            port = re.search(r"listening on 127\.0\.0\.1:(\d+)", server.stderr.readline())[1]
            answer = toolchain.capture(program, port, "and then?",
                                       env={"LD_LIBRARY_PATH": str(LIBRARY.parent)})
            _, complaint = server.communicate(timeout=60)
        finally:
            server.kill()
            server.wait()
        assert answer == "AND THEN?\n", answer
        assert server.returncode == 0, complaint


sys.exit(tap.run([
    ("/readme/example-stands-in-the-examples", stands_in_the_examples),
    ("/readme/example-compiles-and-talks", compiles_and_talks),
]))
