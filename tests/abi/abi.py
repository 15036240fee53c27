# SPDX-License-Identifier: LGPL-2.1-or-later
"""Checks the built library as a linked program sees it: its symbols, its needs, its headers, its
installed files.

usage: abi.py LIBRARY SOURCE_ROOT BUILD_ROOT PUBLIC_HEADER...
"""

import functools
import os
import pathlib
import re
import sys
import tempfile

import tap
import toolchain

LIBRARY, SOURCE, BUILD, *HEADERS = (pathlib.Path(path).resolve() for path in sys.argv[1:])
SONAME = "libzelgvc.so.0"
DIALECTS = {"c99": "c", "c11": "c", "c++11": "c++", "c++20": "c++"}

# A host program that knows nothing of the library but its public headers. It has no zel_log, so the
# message about the key length must go to GLib's logger.
HOST = r"""
#include <stdlib.h>
#include <string.h>
#include <zelgvc/zelgvc.h>

static GBytes *
convert(GConverter *converter, const void *data, gsize size)
{
  guint8 *out = g_malloc(1024);
  gsize consumed, produced;

  if (g_converter_convert(converter, data, size, out, 1024, G_CONVERTER_NO_FLAGS, &consumed,
                          &produced, NULL) != G_CONVERTER_CONVERTED || consumed != size)
    g_error("conversion failed");
  return g_bytes_new_take(out, produced);
}

static int
key_length(void)
{
  GValue value = G_VALUE_INIT;

  g_value_init(&value, G_TYPE_INT);
  g_value_set_int(&value, 192);
  return gvc_get_crypt_key_len(&value);
}

int
main(void)
{
  static const char text[] = "the same text, the same text, the same text";
  g_autoptr(GvcCompressor) compressor = gvc_compressor_new();
  g_autoptr(GvcDecompressor) decompressor = gvc_decompressor_new();
  g_autoptr(GBytes) packed = NULL;
  g_autoptr(GBytes) unpacked = NULL;
  gsize size;
  gconstpointer data;

  gvc_init();
  packed = convert(G_CONVERTER(compressor), text, sizeof text);
  data = g_bytes_get_data(packed, &size);
  unpacked = convert(G_CONVERTER(decompressor), data, size);
  data = g_bytes_get_data(unpacked, &size);
  if (size != sizeof text || memcmp(data, text, size) != 0)
    return EXIT_FAILURE;
  g_print("%s, %d bits\n", (const char *)data, key_length());
  return EXIT_SUCCESS;
}
"""
GREETING = "the same text, the same text, the same text, 256 bits\n"


def listed_symbols():
    lines = (SOURCE / "tests/abi/symbols.txt").read_text().splitlines()
    return [line for line in lines if not line.startswith("#")]


def same(found, wanted):
    """Asserts that two collections hold the same, and names the difference."""
    more, less = set(found) - set(wanted), set(wanted) - set(found)
    assert not more and not less, f"too many: {sorted(more)}\nmissing: {sorted(less)}"


def dynamic(tag):
    lines = toolchain.capture("readelf", "-dW", LIBRARY).splitlines()
    return [line.split("[")[1].rstrip("]") for line in lines if f"({tag})" in line]


def exports_are_the_listed_functions():
    names = toolchain.capture("nm", "-D", "--defined-only", "--format=posix", LIBRARY)
    symbols = dict(line.split()[:2] for line in names.splitlines())
    same(symbols, listed_symbols())
    same(symbols.values(), ["T"])


def headers_declare_the_listed_functions():
    declared = []
    for header in HEADERS:
        declared += re.findall(r"^GVC_EXPORT\b[^;(]*?\b(\w+)\s*\(", header.read_text(), re.MULTILINE)
    same(declared, listed_symbols())


def needs_only_glib_libgcrypt_and_libc():
    if toolchain.SANITIZE != "none":
        raise tap.Skip("a library with sanitizers needs their run time")
    same(dynamic("NEEDED"), ["libglib-2.0.so.0", "libgobject-2.0.so.0", "libgio-2.0.so.0",
                             "libgcrypt.so.20", "libc.so.6"])


def loads_no_cpp_runtime():
    if toolchain.SANITIZE != "none":
        raise tap.Skip("a library with sanitizers needs their run time")
    loaded = toolchain.capture("ldd", LIBRARY)
    assert "libgcrypt.so.20" in loaded, loaded
    for unwanted in "libstdc++", "libgcc_s", "libc++", "not found":
        assert unwanted not in loaded, loaded


def soname_is_versioned():
    same(dynamic("SONAME"), [SONAME])
    assert LIBRARY.name == SONAME, LIBRARY


def development_link_stands_beside_the_library():
    link = BUILD / "vchannels/zelgvc/libzelgvc.so"
    assert link.is_symlink(), link
    assert link.resolve() == (BUILD / "vchannels/zelgvc" / SONAME).resolve(), link.resolve()


def zel_log_is_imported_weakly():
    names = toolchain.capture("nm", "-D", "--undefined-only", "--format=posix", LIBRARY)
    kinds = {line.split()[0]: line.split()[1] for line in names.splitlines()}
    assert kinds.get("zel_log") == "w", kinds.get("zel_log")


def run_host(program, directory, **env):
    """Runs the host program against the library in a directory; gives what it logged."""
    log = pathlib.Path(program).with_suffix(".log")
    shell = 'exec "$0" 2>"$1"'
    printed = toolchain.capture("sh", "-c", shell, program, log,
                                env={"LD_LIBRARY_PATH": str(directory), **env})
    assert printed == GREETING, printed
    return log.read_text()


def loads_without_zel_log(**env):
    with tempfile.TemporaryDirectory() as scratch:
        source = pathlib.Path(scratch, "host.c")
        source.write_text(HOST)
        flags = toolchain.package_flags("zelgvc", "--cflags", "--libs",
                                        path=BUILD / "meson-uninstalled")
        program = toolchain.build_program(source, source.with_suffix(""), flags)
        logged = run_host(program, LIBRARY.parent, **env)
        assert "Invalid key length 192" in logged, logged


def header_compiles(header, dialect):
    """Alone, included twice, with GLib's flags and the directory of the library's headers only."""
    with tempfile.TemporaryDirectory() as scratch:
        suffix = ".c" if DIALECTS[dialect] == "c" else ".cpp"
        source = pathlib.Path(scratch, "alone" + suffix)
        include = f"#include <zelgvc/{header}>\n"
        source.write_text(include + include + "int main(void) { return 0; }\n")
        toolchain.capture(*toolchain.compiler(DIALECTS[dialect]), f"-std={dialect}", "-Wall",
                          "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only",
                          *toolchain.package_flags("glib-2.0", "--cflags"),
                          f"-I{SOURCE / 'vchannels'}", source)


def installed(scratch):
    toolchain.capture("meson", "install", "-C", BUILD, "--destdir", scratch)
    (package,) = pathlib.Path(scratch).rglob("zelgvc.pc")
    return package


def installs_headers_library_and_package():
    with tempfile.TemporaryDirectory() as scratch:
        package = installed(scratch)
        library = package.parent.parent
        headers = library
        while not (headers / "include").is_dir():
            headers = headers.parent
        same(os.listdir(headers / "include/zelgvc"),
             [header.name for header in HEADERS])
        assert (library / SONAME).is_file() and not (library / SONAME).is_symlink()
        assert os.readlink(library / "libzelgvc.so") == SONAME


def program_builds_against_the_installation():
    with tempfile.TemporaryDirectory() as scratch:
        package = installed(scratch)
        # The staged tree stands where the prefix will be, so that is where the package must point.
        text = package.read_text()
        prefix = re.search(r"^prefix=(.*)$", text, re.MULTILINE)[1]
        staged = re.sub(r"([^\w./-])", r"\\\1", scratch)  # it may have blanks
        package.write_text(text.replace(f"prefix={prefix}", f"prefix={staged}{prefix}", 1))
        flags = toolchain.package_flags("zelgvc", "--cflags", "--libs", path=package.parent)
        assert str(SOURCE) not in " ".join(flags), flags
        source = pathlib.Path(scratch, "host.c")
        source.write_text(HOST)
        program = toolchain.build_program(source, source.with_suffix(""), flags)
        run_host(program, package.parent.parent)


CASES = [
    ("/abi/exports-are-the-listed-functions", exports_are_the_listed_functions),
    ("/abi/headers-declare-the-listed-functions", headers_declare_the_listed_functions),
    ("/abi/needs-only-glib-libgcrypt-and-libc", needs_only_glib_libgcrypt_and_libc),
    ("/abi/loads-no-cpp-runtime", loads_no_cpp_runtime),
    ("/abi/soname-is-versioned", soname_is_versioned),
    ("/abi/development-link-stands-beside-the-library", development_link_stands_beside_the_library),
    ("/abi/zel-log-is-imported-weakly", zel_log_is_imported_weakly),
    ("/abi/loads-without-zel-log", loads_without_zel_log),
    ("/abi/loads-without-zel-log/immediate-binding",
     functools.partial(loads_without_zel_log, LD_BIND_NOW="1")),
    ("/abi/installs-headers-library-and-package", installs_headers_library_and_package),
    ("/abi/program-builds-against-the-installation", program_builds_against_the_installation),
]
CASES += [
    (f"/abi/header-compiles-alone/{header.stem}/{dialect}",
     functools.partial(header_compiles, header.name, dialect))
    for header in HEADERS for dialect in DIALECTS
]

sys.exit(tap.run(CASES))
