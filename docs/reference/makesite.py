#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Makes the web site of the library: gi-docgen's reference plus the pages in docs/.

The pages are written for the repository's own view: links to `page.md`, symbols in backticks. This
script turns both into links of gi-docgen, runs it, and then improves the HTML that comes out.

Usage: makesite.py --pages DOCS
       makesite.py GI_DOCGEN CONFIG GIR DOCS OUT DEPFILE
"""

import html.parser
import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET

import linkify

HERE = pathlib.Path(__file__).parent
START = "README.md"
DEVHELP = "{http://www.devhelp.net/book}"
FENCED = re.compile(r"(^```.*?^```$)", re.MULTILINE | re.DOTALL)
SYMBOL = re.compile(r"(?<!\[)`((?:Gvc|G)[A-Z][a-z]\w*|g(?:vc)?_\w+)(\(\))?`(?!\])")
LOCAL_LINK = re.compile(r"\[([^\]]*)\]\((?!\w+:|#)([^)#]+)(#[^)]*)?\)")
EXTERNAL = re.compile(r'<a (?=[^>]*data-namespace="(\w+)")(?=[^>]*data-link="([^"]+)")[^>]*>')
EXTRA = re.compile(r'<section>\s*<div class="toggle-wrapper">\s*<h4 id="extra".*?</section>', re.S)
INTRODUCTION = re.compile(r'<div class="docblock">.*</div>(?=\s*</section>\s*</section>)', re.S)
HEADING = re.compile(r'<h3>Namespace</h3>.*?(?=<div class="meta info">)', re.S)
NO_ADDRESS = re.compile(r'\s*<tr><td><em>\w+</em></td><td><a href="" .*?</tr>')


def page_names(docs):
    """All pages, first those that the start page lists, in its order."""
    listed = re.findall(r"\]\(([\w-]+\.md)\)", (docs / START).read_text())
    others = sorted(path.name for path in docs.glob("*.md"))
    return list(dict.fromkeys([START, *listed, *others]))


def convert(path, linker, dead):
    """Turns a page into what gi-docgen reads, and adds its dead links to `dead`."""
    def local_link(match):
        text, target, anchor = match.groups()
        if not (path.parent / target).exists():
            dead.append(f"{path}: dead link to {target}")
        if "/" in target:  # A file of the sources, which the site does not have.
            return text
        target = re.sub(r"\.md$", ".html", target.replace(START, "index.md"))
        return f"[{text}]({target}{anchor or ''})"

    def symbols(line):
        return line if line.startswith("#") else SYMBOL.sub(lambda m: linker.link(m[1], m[0]), line)

    text = path.read_text()
    parts = FENCED.split(text)
    for i in range(0, len(parts), 2):
        parts[i] = "\n".join(map(symbols, LOCAL_LINK.sub(local_link, parts[i]).split("\n")))
    title = re.search(r"^# (.*)", text, re.MULTILINE)[1]
    return f"Title: {title}\n\n" + "".join(parts)


class Sections(html.parser.HTMLParser):
    """Collects the text of a page's main part, by headings that can be linked to."""

    def __init__(self):
        super().__init__()
        self.main = self.heading = False
        self.found = [["", "", ""]]  # id, heading, text

    def handle_starttag(self, tag, attributes):
        attributes = dict(attributes)
        self.main |= attributes.get("id") == "main"
        self.main &= attributes.get("id") != "toc"
        if re.fullmatch("h[1-6]", tag) and "id" in attributes:
            self.heading = True
            self.found.append([attributes["id"], "", ""])

    def handle_endtag(self, tag):
        self.heading &= not re.fullmatch("h[1-6]", tag)

    def handle_data(self, data):
        if self.main:
            self.found[-1][1 if self.heading else 2] += data + ("" if self.heading else " ")


def words(text):
    return " ".join(text.split())


def search_entries(out, symbols):
    """Lists of a title, the page that it is on, its address and its text."""
    for path in sorted(out.glob("*.html")):
        parser = Sections()
        parser.feed(path.read_text())
        if path.name in symbols:
            text = " ".join(section[2] for section in parser.found)
            yield [symbols[path.name], "", path.name, words(text)]
            continue
        page = next((words(heading) for _, heading, _ in parser.found if heading), path.stem)
        for anchor, heading, text in parser.found:
            if words(text):
                title = words(heading) or page
                yield [title, page if title != page else "", f"{path.name}#{anchor}", words(text)]


def symbol_pages(out):
    """The C name that each page of the reference is about."""
    keywords = ET.parse(next(out.glob("*.devhelp2"))).getroot().iter(DEVHELP + "keyword")
    names = {}
    for keyword in keywords:
        name = re.sub(r"^The (\S+) property$", r"\1", keyword.get("name"))
        names.setdefault(keyword.get("link"), name)
    return names


def start_page(page, introduction):
    """Puts the introduction in place of the bare heading, and leaves out fields without a value."""
    body = INTRODUCTION.search(introduction)[0]
    return NO_ADDRESS.sub("", HEADING.sub(lambda _: body, page))


def external(match):
    return f'<a class="external" href="https://docs.gtk.org/{match[1].lower()}/{match[2]}">'


def finish_page(page, pages_list):
    page = EXTERNAL.sub(external, page)
    for old, new in (
        ("<table", '<div class="scroll"><table'),
        ("</table>", "</table></div>"),
        ('<script src="fzy.js"></script>', ""),
        ("</head>", '<link rel="icon" href="data:,">\n</head>'),
        ("Click, or press 's' to search", "Search (press s)"),
        (" default-hide", ""),
        ('<div class="section generator">', pages_list + '<div class="section generator">'),
    ):
        page = page.replace(old, new)
    return page


def finish(docs, out):
    start = out / "README.html"
    index = start_page((out / "index.html").read_text(), start.read_text())
    start.unlink()
    links = "".join(re.findall(r'<li>(<a href="(?!README).*?</a>)</li>', EXTRA.search(index)[0]))
    pages_list = f'<div class="section"><h5>Pages</h5><div class="links">{links}</div></div>\n'
    (out / "index.html").write_text(EXTRA.sub("", index))
    for path in out.glob("*.html"):
        path.write_text(finish_page(path.read_text(), pages_list))
    for path in out.glob("*.devhelp2"):
        path.write_text(re.sub(r'<sub name="[^"]*" link="README.html" />', "", path.read_text()))
    for path in docs.glob("*.svg"):
        shutil.copy(path, out)
    with open(out / "style.css", "a") as style:
        style.write((HERE / "site.css").read_text())
    shutil.copy(HERE / "search.js", out)
    entries = json.dumps(list(search_entries(out, symbol_pages(out))), ensure_ascii=False)
    (out / "index.js").write_text(f"onSearchIndex({entries});\n")
    for unused in "index.json", "fzy.js":
        (out / unused).unlink(missing_ok=True)


def main(gi_docgen, config, gir, docs, out, depfile):
    docs, out = pathlib.Path(docs), pathlib.Path(out)
    pages = page_names(docs)
    linker, dead = linkify.Linker(linkify.known_links(gir)), []
    with tempfile.TemporaryDirectory() as scratch:
        for name in pages:
            pathlib.Path(scratch, name).write_text(convert(docs / name, linker, dead))
        dead += [f"{docs}: {name} does not exist" for name in linker.dead]
        if dead:
            sys.exit("\n".join(dead))
        toml = pathlib.Path(scratch, "config.toml")
        content = f"\n[extra]\ncontent_files = {json.dumps(pages)}\n"
        toml.write_text(pathlib.Path(config).read_text() + content)
        shutil.rmtree(out, ignore_errors=True)
        subprocess.run([gi_docgen, "generate", "--quiet", "--fatal-warnings", "--no-namespace-dir",
                        "--config", toml, "--content-dir", scratch, "--output-dir", out, gir],
                       check=True)
    finish(docs, out)
    sources = [*docs.glob("*.md"), *docs.glob("*.svg"), *HERE.glob("*.*")]
    escaped = [str(path).replace(" ", r"\ ") for path in (out, *sources)]
    pathlib.Path(depfile).write_text(f"{escaped[0]}: {' '.join(escaped[1:])}\n")


if __name__ == "__main__":
    if sys.argv[1] == "--pages":
        print("\n".join(page_names(pathlib.Path(sys.argv[2]))))
    else:
        main(*sys.argv[1:])
