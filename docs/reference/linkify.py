#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Turns the marks of the doc comments (#GvcConnection, gvc_connection_new()) into links of
gi-docgen, which only prints them in a fixed-width font. A reference to a missing symbol of ours is
an error.

Usage: linkify.py IN.gir OUT.gir
"""

import pathlib
import re
import sys
import xml.etree.ElementTree as ET

CORE = "{http://www.gtk.org/introspection/core/1.0}"
C = "{http://www.gtk.org/introspection/c/1.0}"
GLIB = "{http://www.gtk.org/introspection/glib/1.0}"
SYSTEM_GIRS = pathlib.Path("/usr/share/gir-1.0")

TYPE_LINKS = {
    "class": "class",
    "interface": "iface",
    "record": "struct",
    "enumeration": "enum",
    "bitfield": "flags",
    "callback": "callback",
    "alias": "alias",
}
FUNCTION_LINKS = {"constructor": "ctor", "method": "method", "function": "func"}

TYPE = re.compile(r"#([A-Z]\w+)(?::([a-z]+(?:-[a-z]+)*))?")
FUNCTION = re.compile(r"\b(g(?:vc)?_\w+)\(\)")


def local(element):
    return element.tag.removeprefix(CORE)


def type_link(element):
    if element.get(GLIB + "error-domain"):
        return "error"
    return TYPE_LINKS.get(local(element))


def symbols_of(root):
    """Maps each C name to the name that gi-docgen links to."""
    namespace = root.find(CORE + "namespace")
    prefix = namespace.get("name")
    links = {}
    for element in namespace:
        name = f"{prefix}.{element.get('name')}"
        kind = type_link(element)
        if kind:
            links[element.get(C + "type")] = f"{kind}@{name}"
        elif local(element) == "function":
            links[element.get(C + "identifier")] = f"func@{name}"
        for member in element:
            kind = FUNCTION_LINKS.get(local(member))
            if kind:
                identifier = member.get(C + "identifier")
                links.setdefault(identifier, f"{kind}@{name}.{member.get('name')}")
    return links


class Linker:
    def __init__(self, links):
        self.links = links
        self.dead = []

    def link(self, c_name, plain):
        target = self.links.get(c_name)
        if not target and c_name.lower().startswith("gvc"):
            self.dead.append(c_name)
        return f"[{target}]" if target else plain

    def type(self, match):
        name, prop = match.groups()
        linked = self.link(name, f"`{name}`")
        if prop and linked.startswith("["):
            return f"[property@{linked.split('@')[1].rstrip(']')}:{prop}]"
        return linked

    def function(self, match):
        return self.link(match.group(1), f"`{match.group(0)}`")

    def text(self, text):
        return FUNCTION.sub(self.function, TYPE.sub(self.type, text))


def known_links(source):
    """The links of GLib's libraries and of our own, by C name."""
    links = {}
    for path in *(SYSTEM_GIRS / f"{name}-2.0.gir" for name in ("GLib", "GObject", "Gio")), source:
        links.update(symbols_of(ET.parse(path).getroot()))
    return links


def main(source, target):
    ET.register_namespace("", CORE.strip("{}"))
    ET.register_namespace("c", C.strip("{}"))
    ET.register_namespace("glib", GLIB.strip("{}"))
    tree = ET.parse(source)
    linker = Linker(known_links(source))
    for doc in tree.getroot().iter(CORE + "doc"):
        doc.text = linker.text(doc.text)
    tree.write(target, encoding="utf-8", xml_declaration=True)
    for name in linker.dead:
        print(f"{source}: a doc comment refers to {name}, which does not exist", file=sys.stderr)
    return bool(linker.dead)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
