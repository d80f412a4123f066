"""Checks what the pages say.

    check.py links FOLDER            every link of every page below FOLDER leads somewhere
    check.py reference FOLDER NAME...  the same for the HTML in FOLDER, which explains every NAME
"""

import html.parser
import pathlib
import re
import sys
import urllib.parse

failures = []


def must(condition, what):
    if not condition:
        failures.append(what)


class Html(html.parser.HTMLParser):
    """The anchors and the links of a page."""

    def __init__(self, path):
        super().__init__()
        self.anchors, self.links = set(), set()
        self.feed(path.read_text(encoding="utf-8", errors="replace"))

    def handle_starttag(self, tag, attributes):
        for key, value in attributes:
            if key == "id" or (tag == "a" and key == "name"):
                self.anchors.add(value)
            elif key in ("href", "src"):
                self.links.add(value)


class Markdown:
    def __init__(self, path):
        text = re.sub(r"^```.*?^```", "", path.read_text(encoding="utf-8"), flags=re.S | re.M)
        # An anchor as hosts of repositories make it of a heading.
        self.anchors = {re.sub(r"[^\w\- ]", "", heading).strip().lower().replace(" ", "-")
                        for heading in re.findall(r"^#+ (.*)", text, re.M)}
        self.links = set(re.findall(r"\]\(([^)\s]+)\)", text))


def check_links(folder, pattern, parse):
    pages = {path: parse(path) for path in pathlib.Path(folder).resolve().rglob(pattern)
             if "build" not in path.relative_to(pathlib.Path(folder).resolve()).parts}
    must(pages, f"no page in {folder}")
    for path, page in pages.items():
        for link in page.links:
            parts = urllib.parse.urlsplit(link)
            if parts.scheme or parts.netloc:
                continue
            target = (path.parent / urllib.parse.unquote(parts.path)).resolve() if parts.path else path
            must(target.exists(), f"{path}: nothing at {link}")
            if parts.fragment and target in pages:
                must(parts.fragment in pages[target].anchors, f"{path}: no anchor {link}")
    return pages


def check_reference(folder, names):
    pages = check_links(folder, "*.html", Html)
    texts = [path.read_text(encoding="utf-8") for path in pages]
    for name in names:
        must(any(re.search(rf'href="\w+_8h\.html#\w+">{name}</a>', text) for text in texts), f"the reference does not explain {name}")


if __name__ == "__main__":
    command, *arguments = sys.argv[1:]
    if command == "links":
        check_links(arguments[0], "*.md", Markdown)
    else:
        check_reference(arguments[0], arguments[1:])
    sys.exit("\n".join(failures) if failures else None)
