"""Completes the reference: links the operations that the pages name, brings the files that they link to,
and fails on a link or a picture that leads nowhere. Usage: link_reference.py HTML_FOLDER TAG_FILE ROOT"""

import html
import os
import re
import shutil
import sys
import xml.etree.ElementTree as ElementTree
from urllib.parse import unquote, urlsplit

LINK = re.compile(r'''(?:\bhref|\bsrc|\bdata)=["']([^"']+)["']''')
ID = re.compile(r'''\b(?:id|name)=["']([^"']+)["']''')
# Whose operation is meant where several classes have one of that name and the words before it do not say.
USUAL = ("SocketCommunicator", "Channel", "ConnectionServicesUtils", "SocketMessage", "InputStream",
         "OutputStream", "MessageQuery")
SPOKEN = {"communicator": "SocketCommunicator", "registry": "ConnectionServicesUtils", "channel": "Channel"}
SAID = re.compile(r"\b(communicator|registry|channel)'s\s+$")
CODE = re.compile(r"<code>(?:(\w+)::)?(\w+)(\([^<]*\))?</code>")


def read(path):
    with open(path, encoding="utf-8") as source:
        return source.read()


def write(path, text):
    with open(path, "w", encoding="utf-8") as target:
        target.write(text)


def read_names(tag_file):
    """Where each name is explained: "Class", "Class::Operation", and "Operation" of the usual class."""
    compounds = ElementTree.parse(tag_file).getroot().findall("compound")
    classes = {c.findtext("name"): c for c in compounds if c.get("kind") == "class"}
    places, owners = {}, {}
    for name, compound in classes.items():
        places[name] = compound.findtext("filename")
        inherited = {m.findtext("name") for b in compound.findall("base") if b.text in classes
                     for m in classes[b.text].findall("member")}
        for member in compound.findall("member"):
            operation = member.findtext("name")
            place = member.findtext("anchorfile") + "#" + member.findtext("anchor")
            places.setdefault(f"{name}::{operation}", place)
            if operation not in inherited:
                owners.setdefault(operation, set()).add(name)
    for compound in compounds:
        if compound.get("kind") == "group":
            for member in compound.findall("member[@kind='function']"):
                place = member.findtext("anchorfile") + "#" + member.findtext("anchor")
                places.setdefault(member.findtext("name"), place)
    for operation, having in owners.items():
        usual = [name for name in ("KLVMsg" + one for one in USUAL) if name in having]
        if len(having) == 1 or usual:
            places.setdefault(operation, places[f"{(usual or list(having))[0]}::{operation}"])
    return places


def link_names(text, places):
    def link(match):
        scope, name, _ = match.groups()
        said = SAID.search(match.string[:match.start()])
        if said and f"KLVMsg{SPOKEN[said[1]]}::{name}" in places:
            scope = "KLVMsg" + SPOKEN[said[1]]
        place = places.get(f"{scope}::{name}" if scope else name)
        return f'<a class="el" href="{place}">{match[0]}</a>' if place else match[0]

    # Between two links only: what is a link already stays as it is.
    parts = re.split(r"(<a\b.*?</a>)", text, flags=re.S)
    return "".join(part if part.startswith("<a") else CODE.sub(link, part) for part in parts)


def name_headings(text):
    """Gives each heading the name by which links in the documents call it."""
    def name(match):
        slug = re.sub(r"[^\w -]", "", html.unescape(re.sub(r"<.*?>", "", match[2]))).strip()
        return f'{match[1]}<a id="{slug.lower().replace(" ", "-")}"></a>{match[2]}{match[3]}'

    return re.sub(r"(<h[1-6]>)(.*?)(</h[1-6]>)", name, text)


def page_of(document):
    return "md_" + re.sub(r"[/-]", "_", os.path.splitext(document)[0]) + ".html"


def bring_files(folder, text, root):
    """Leads links into the repository to the document's page, or to a copy of the file. A link to a
    folder becomes plain text."""
    def bring(match):
        url = urlsplit(match[1])
        path = unquote(url.path)
        if not path or os.path.exists(os.path.join(folder, path)):
            return match[0]
        name = os.path.normpath(path.lstrip("./"))
        for candidate in (name, os.path.join("docs", name), os.path.join("examples", name)):
            source = os.path.join(root, candidate)
            if os.path.exists(os.path.join(folder, page_of(candidate))):
                return f'<a class="el" href="{page_of(candidate)}#{url.fragment}">{match[2]}</a>'
            if os.path.isdir(source):
                return match[2]
            if os.path.exists(source):
                target = os.path.join(folder, "files", candidate + ".txt")
                os.makedirs(os.path.dirname(target), exist_ok=True)
                shutil.copyfile(source, target)
                return f'<a href="files/{candidate}.txt">{match[2]}</a>'
        return match[0]

    return re.sub(r'<a href="([^":]+)">(.*?)</a>', bring, text, flags=re.S)


def drop_private(text):
    """Takes out a page's link to its list of classes, where all of these are private."""
    if 'name="nested-classes"' in text:
        return text
    return re.sub(r'<a href="#nested-classes">.*?</a>(?: &#124;)?', "", text)


def check_links(folder):
    """The links that lead nowhere, each as a line that names its page."""
    pages = {name: read(os.path.join(folder, name)) for name in sorted(os.listdir(folder))
             if name.endswith((".html", ".svg", ".js")) and name != "doxygen.svg"}
    ids = {name: set(ID.findall(text)) for name, text in pages.items()}
    dead = []
    for name, text in pages.items():
        found = re.findall(r'"([^"]+\.html(?:#[^"]*)?)"', text) if name.endswith(".js") else LINK.findall(text)
        for target in sorted({html.unescape(one) for one in found}):
            url = urlsplit(target)
            path = unquote(url.path) or name
            if url.scheme or target.startswith("$") or "'+" in target:
                continue
            if not os.path.exists(os.path.join(folder, path)):
                dead.append(f"{name}: no file {target}")
            elif url.fragment and path in ids and unquote(url.fragment) not in ids[path]:
                dead.append(f"{name}: no place {target}")
    return dead


def main():
    folder, tag_file, root = sys.argv[1:]
    places = read_names(tag_file)
    for name in os.listdir(folder):
        if name.startswith("class"):
            path = os.path.join(folder, name)
            write(path, drop_private(read(path)))
        if name == "index.html" or name.startswith("md_") and name.endswith(".html"):
            path = os.path.join(folder, name)
            write(path, bring_files(folder, name_headings(link_names(read(path), places)), root))
    dead = check_links(folder)
    print("\n".join(dead), file=sys.stderr if dead else sys.stdout, end="\n" if dead else "")
    return 1 if dead else 0


sys.exit(main())
