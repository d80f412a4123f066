"""Checks what the pages say.

    check.py links FOLDER              every link of every page below FOLDER leads somewhere
    check.py lines SOURCE              docs/lines.md and the headers list every text that src/ prints, once, and
                                       no other
    check.py reference FOLDER NAME...  the same for the HTML in FOLDER, which explains every NAME
    check.py commands SOURCE BUILD     what needs neither a network nor minutes runs as it is printed,
                                       in a folder of its own; of the rest, scripts, options, presets,
                                       packages and paths are there
"""

import html.parser
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile
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


def check_lines(source):
    def found(code):
        """The literals of C++ source, neighbours joined, line by line; what is returned is the text of a status."""
        code = re.sub(r"^#include.*|//.*|\breturn \"[^\"]*\"", "", code, flags=re.M).replace("PRIx32", '"x"')
        for puts, text in re.findall(r'(puts\()?((?:"(?:[^"\\\n]|\\.)*"\s*)+)', code):
            for line in "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', text)).split("\\n"):
                if puts or re.search(" |::|%", line.strip()):
                    yield line.strip()

    source = pathlib.Path(source)
    pattern = {text: ".+".join(map(re.escape, text.split("%s"))) for path in source.glob("src/*/*.*")
               for text in found(path.read_text())}
    must(len(pattern) > 150, f"only {len(pattern)} texts in src/")
    page = (source / "docs/lines.md").read_text()
    listed = [line.strip() for block in re.findall(r"^```\n(.*?)^```", page, re.S | re.M)
              for line in block.splitlines()]
    for header in source.glob("include/tessera/*.h"):
        for named in re.findall(r"\bdocs/[\w-]+\.md", header.read_text()):
            must((source / named).is_file(), f"{header}: no {named}")
        for item in re.findall(r"^/// - .*(?:\n///   .*)*", header.read_text(), re.M):
            listed += [text for text in re.findall("`(.+?)`", item) if re.search(" |::", text)]
    for text, form in pattern.items():
        must(any(re.search(form, line) for line in listed), f"printed but not listed: {text}")
    for line in listed:
        must(listed.count(line) == 1, f"listed more than once: {line}")
        must(any(re.fullmatch(form, line) for form in pattern.values()), f"listed but not printed: {line}")


RUN = ("ffmpeg", "tessera", "export", "c++", "cmake --install")
PREPARE = """
mkdir build home player
ln -s "$BUILD" build/release
printf '#!/bin/sh\\ncat >/dev/null\\n' >player/ffplay
chmod +x player/ffplay
ffmpeg -loglevel error -f lavfi -i testsrc=size=640x480 -frames:v 1 photo.png -frames:v 1 photo.jpg
ffmpeg -loglevel error -f lavfi -i testsrc=size=640x480:rate=25 -frames:v 10 -pix_fmt yuv420p clip.mp4 \\
  -frames:v 10 -pix_fmt yuvj420p camera.mjpeg
cp clip.mp4 any.mp4
"""


class Project:
    def __init__(self, source, build):
        self.source, self.build = pathlib.Path(source), build
        self.presets = {preset["name"] for preset in
                        json.loads((self.source / "CMakePresets.json").read_text())["configurePresets"]}
        self.groups = set(re.findall(r"^(\w+) ", (self.source / "scripts/packages.txt").read_text(), re.M))
        tracked = [path for folder in ("cmake", "src", "platform", "tests", "tools", "bench", "scripts")
                   for path in (self.source / folder).rglob("*") if path.is_file()]
        self.texts = {path.relative_to(self.source): path.read_text(errors="replace")
                      for path in [*tracked, self.source / "CMakeLists.txt"] if path.suffix != ".pyc"}

    def text_of(self, folder):
        return "\n".join(text for path, text in self.texts.items() if str(path).startswith(folder))

    def check_unrun(self, where, command):
        words = shlex.split(command, comments=True)
        options = [word.split("=")[0] for word in words[1:] if word.startswith("--")]
        if words[0].startswith("scripts/"):
            must((self.source / words[0]).is_file(), f"{where}: no {words[0]}")
            known, named = self.text_of(words[0]), self.groups if words[0] == "scripts/setup" else None
            must(named is None or named.issuperset(words[1:]), f"{where}: a group unknown to {command}")
        elif words[0] == "build/release/bin/tessera_bench":
            known = self.text_of("bench")
        elif words[0] == "tessera":
            known = self.text_of("tools/tessera")
        elif words[0] in ("ls", "sudo"):
            known = ""
        elif words[0] in ("cmake", "ctest"):
            known = "--preset --build --test-dir"
            for before, word in zip(words, words[1:]):
                preset = word if before == "--preset" else word[6:] if before == "--test-dir" else None
                must(preset is None or preset in self.presets, f"{where}: no preset for {command}")
        else:
            known = ""
            must(False, f"{where}: neither run nor checked: {command}")
        for option in options:
            must(option in known, f"{where}: no {option} for {command}")

    def check_prose(self, where, text):
        for code in re.findall(r"`([^`\n]+)`", text):
            if re.match(r"(scripts/[\w-]+|tessera|ctest|cmake)( |$)", code) and "packages.txt" not in code:
                for command in re.sub(r"\[.*", "", code).split("|"):
                    self.check_unrun(where, command)
            elif re.match(r"(src|tests|tools|docs|cmake|platform|bench|fuzz|examples|scripts)/[\w./*-]*$", code):
                must(any(self.source.glob(code.rstrip("/"))), f"{where}: no {code}")
        everything = self.text_of("")
        for name in set(re.findall(r"\bTESSERA_[A-Z_]+\b", text)):
            must(re.search(rf"{name}\b", everything), f"{where}: nothing reads {name}")

    def run(self, where, script, folder):
        environment = dict(os.environ, HOME=f"{folder}/home", BUILD=self.build, TESSERA_PAGE=where,
                           PATH=f"{self.build}/bin:{folder}/player:{os.environ['PATH']}")
        outcome = subprocess.run(["bash", "-euxo", "pipefail", "-c", script], cwd=folder, timeout=300, text=True,
                                 env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT)
        must(outcome.returncode == 0, f"{where}: exit status {outcome.returncode}\n{outcome.stdout[-3000:]}")
        for made in re.findall(r" -o ([\w.]+)", script):
            path = pathlib.Path(folder, made)
            must(path.is_file() and path.stat().st_size > 0, f"{where}: {made} was not made")

    def check_page(self, path):
        where, text = str(path.relative_to(self.source)), path.read_text(encoding="utf-8")
        if path.suffix == ".1":
            examples = text[text.index(".SH EXAMPLES"):].replace("\\-", "-")
            blocks = re.findall(r"^\.nf\n(.*?)^\.fi", examples, re.S | re.M)
        else:
            blocks = re.findall(r"^```sh\n(.*?)^```", text, re.S | re.M)
            self.check_prose(where, re.sub(r"^```.*?^```", "", text, flags=re.S | re.M))
        commands = [command for block in blocks
                    for command in re.sub(r"(\\|\|)\n\s+", r"\1 ", block).replace("\\ ", " ").splitlines()
                    if command.strip()]
        runs = [command for command in commands if command.startswith(RUN)]
        for command in commands:
            if command not in runs:
                self.check_unrun(where, command)
        if not runs:
            return 0
        with tempfile.TemporaryDirectory() as folder:
            readme = (self.source / "README.md").read_text(encoding="utf-8")
            app = re.search(r"^```cpp\n(.*?)^```", readme, re.S | re.M)[1]
            pathlib.Path(folder, "app.cpp").write_text(app, encoding="utf-8")
            self.run(where, PREPARE + "\n".join(runs), folder)
            if "app.cpp" in text:
                self.run(where, "./app photo.jpg", folder)
            if "--install" in text:
                check_links(f"{folder}/home/opt/tessera/share/doc", "*.md", Markdown)
        return len(runs)


def check_commands(source, build):
    project = Project(source, build)
    pages = [*project.source.glob("*.md"), *project.source.glob("docs/*.md"),
             project.source / "tools/tessera/tessera.1"]
    count = sum(project.check_page(page) for page in pages)
    must(count > 8, f"only {count} commands were run")
    with tempfile.TemporaryDirectory() as folder:
        demo = subprocess.run([f"{build}/bin/tessera_demo", folder], stdout=subprocess.PIPE, text=True)
    shown = re.search(r"^```\n(class .*?)^```", (project.source / "README.md").read_text(), re.S | re.M)[1]
    # Times are the machine's, and so is the H.264 coder's output, by its threads.
    table, printed = (re.sub(r" +(\d+\.\d+|\d{7})\b", " N", text) for text in (shown, demo.stdout))
    must(table == printed, f"the demo prints\n{printed}and the README shows\n{table}")
    print(f"{count} commands run")


if __name__ == "__main__":
    command, *arguments = sys.argv[1:]
    if command == "links":
        check_links(arguments[0], "*.md", Markdown)
    elif command == "lines":
        check_lines(*arguments)
    elif command == "reference":
        check_reference(arguments[0], arguments[1:])
    else:
        check_commands(*arguments)
    sys.exit("\n".join(failures) if failures else None)
