# SPDX-License-Identifier: LGPL-2.1-or-later
"""How the built library and program are protected against the exploitation of an error in them, as
readelf sees it.

usage: hardening.py LIBRARY PROGRAM FORTIFY_LEVEL BUILD_ROOT

FORTIFY_LEVEL is what the build asked for itself: 0 where it leaves the checked functions out, or
leaves them to the environment. PROGRAM may be empty.
"""

import functools
import json
import pathlib
import re
import shlex
import sys

import tap
import toolchain

LIBRARY, PROGRAM = (pathlib.Path(path) if path else None for path in sys.argv[1:3])
FORTIFY_LEVEL = int(sys.argv[3])
BUILD = pathlib.Path(sys.argv[4])


def readelf(*arguments):
    return toolchain.capture("readelf", "-W", *arguments)


def segments(image):
    """The types of an image's segments with their flags."""
    found = {}
    for line in readelf("-l", image).splitlines():
        match = re.match(r"\s+([A-Z_]+)(?:\s+0x\w+){5}\s+([RWE ]{3})\s", line)
        if match:
            found.setdefault(match[1], []).append(match[2].replace(" ", ""))
    return found


def imports(image):
    names = toolchain.capture("nm", "-D", "--undefined-only", "--format=posix", image)
    return {line.split()[0].split("@")[0] for line in names.splitlines()}


def is_x86_64():
    return "X86-64" in readelf("-h", LIBRARY)


def processor_notes(image):
    """The features of the processor that an image is marked for."""
    match = re.search(r"x86 feature: ([\w, ]+)", readelf("-n", image))
    return set(match[1].strip().split(", ")) if match else set()


def is_relocated_once(image):
    assert segments(image).get("GNU_RELRO") == ["R"], segments(image)
    entries = readelf("-d", image)
    assert re.search(r"\(FLAGS\).*\bBIND_NOW\b|\(BIND_NOW\)", entries), entries
    assert re.search(r"\(FLAGS_1\).*\bNOW\b", entries), entries


def stack_is_not_executable(image):
    assert segments(image).get("GNU_STACK") == ["RW"], segments(image)


def no_segment_is_writable_and_executable(image):
    for kind, flags in segments(image).items():
        assert not any("W" in each and "E" in each for each in flags), (kind, flags)


def has_no_text_relocations(image):
    assert "TEXTREL" not in readelf("-d", image)


def stack_is_guarded(image):
    assert "__stack_chk_fail" in imports(image), sorted(imports(image))


def program_is_position_independent():
    assert re.search(r"Type:\s+DYN", readelf("-h", PROGRAM))
    assert re.search(r"\(FLAGS_1\).*\bPIE\b", readelf("-d", PROGRAM))


def compile_commands(room):
    """How the sources of one directory are compiled: each alone, or several in a unit of Meson's."""
    commands = json.loads((BUILD / "compile_commands.json").read_text())
    found = [shlex.split(entry["command"]) for entry in commands
             if re.search(rf"(^|/){room}/([\w.]+\.p/[\w.]+-unity\d+|\w+)\.cpp$", entry["file"])]
    assert found, room
    return found


def every_source_is_compiled_with(room, flag):
    for command in compile_commands(room):
        assert flag in command, (flag, command[-1])


def buffers_are_checked():
    if FORTIFY_LEVEL == 0:
        raise tap.Skip("checked functions are not asked for by this build")
    checked = {name for name in imports(LIBRARY) if re.fullmatch(r"__\w+_chk", name)}
    assert checked, sorted(imports(LIBRARY))


def shadow_stack_is_announced(image):
    if not is_x86_64():
        raise tap.Skip("not x86-64")
    assert "SHSTK" in processor_notes(image), processor_notes(image)


def objects_are_marked_for_control_flow():
    """The linker announces what all objects have in common, the C library's start-up objects among
    them; those of the library must not be what is in the way."""
    if not is_x86_64():
        raise tap.Skip("not x86-64")
    objects = sorted((BUILD / "vchannels/zelgvc" / f"{LIBRARY.name}.p").glob("*.o"))
    for room in "platform/ipp", "codec/lzo1x":
        objects += sorted((BUILD / room).glob("*.a.p/*.o"))
    assert len(objects) > 20, objects
    for each in objects:
        assert {"IBT", "SHSTK"} <= processor_notes(each), (each, processor_notes(each))


IMAGE_CASES = [
    ("is-relocated-once-and-read-only", is_relocated_once),
    ("stack-is-not-executable", stack_is_not_executable),
    ("no-segment-is-writable-and-executable", no_segment_is_writable_and_executable),
    ("has-no-text-relocations", has_no_text_relocations),
    ("stack-is-guarded", stack_is_guarded),
    ("shadow-stack-is-announced", shadow_stack_is_announced),
]
CASES = [
    (f"/hardening/{what}/{name}", functools.partial(case, image))
    for what, image in (("library", LIBRARY), ("program", PROGRAM)) if image
    for name, case in IMAGE_CASES
]
if PROGRAM:
    CASES.append(("/hardening/program/is-position-independent", program_is_position_independent))
CASES += [
    ("/hardening/library/buffers-are-checked", buffers_are_checked),
    ("/hardening/library/objects-are-marked-for-control-flow", objects_are_marked_for_control_flow),
]
FLAGS = ["-fstack-protector-strong", "-fstack-clash-protection"]
if FORTIFY_LEVEL:
    FLAGS.append(f"-D_FORTIFY_SOURCE={FORTIFY_LEVEL}")
CASES += [
    (f"/hardening/compiled-with/{flag.lstrip('-')}/{room}",
     functools.partial(every_source_is_compiled_with, room, flag))
    for flag in FLAGS for room in ("codec/lzo1x", "platform/ipp", "vchannels/zelgvc", "tools")
    if PROGRAM or room != "tools"
]

sys.exit(tap.run(CASES))
