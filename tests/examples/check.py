"""Runs an example the way a person would and looks at what comes out.

    check.py camera PROGRAM          a file of raw frames stands in for the device
    check.py server PROGRAM          over HTTP, and in headless Chromium where that is installed
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import urllib.request
import zlib


def must(condition, what):
    if not condition:
        sys.exit("FAILED: " + what)


def camera(program):
    with tempfile.TemporaryDirectory() as folder:
        raw, out = folder + "/raw", folder + "/out.h264"
        with open(raw, "wb") as file:
            for t in range(5):
                file.write(bytes((40 * t, 128, 40 * t, 128)) * (320 * 240 // 2))
        run = subprocess.run([program, raw, "320", "240", "yuyv", "9", out], stderr=subprocess.PIPE,
                             stdout=subprocess.DEVNULL, timeout=60, text=True)
        must(run.returncode == 0 and "5 frames" in run.stderr, run.stderr)
        with open(out, "rb") as file:
            stream = file.read()
        kinds = [unit[0] & 31 for unit in re.split(b"\0\0\1", stream)[1:]]
        must(kinds[0] == 7, "the parameter sets come first")
        must(sum(kind in (1, 5) for kind in kinds) >= 5, "five coded pictures")
        missing = subprocess.run([program, folder + "/nothing", "320", "240", "yuyv", "9", out],
                                 stderr=subprocess.PIPE, timeout=60, text=True)
        must(missing.returncode == 1 and "No such file" in missing.stderr, missing.stderr)


def colours(png):
    """How many different bytes the pixels of a PNG are made of."""
    data = b""
    at = 8
    while at < len(png):
        length = int.from_bytes(png[at:at + 4], "big")
        if png[at + 4:at + 8] == b"IDAT":
            data += png[at + 8:at + 8 + length]
        at += 12 + length
    return len(set(zlib.decompress(data)))


def screenshot(base):
    browser = shutil.which("chromium")
    if browser is None:
        print("no Chromium here: the page itself was not looked at")
        return
    with tempfile.TemporaryDirectory() as folder:
        shot = folder + "/page.png"
        subprocess.run([browser, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                        "--no-first-run", "--disable-background-networking",
                        "--disable-component-update", "--disable-sync",
                        "--user-data-dir=" + folder + "/profile", "--window-size=800,700",
                        "--timeout=3000", "--screenshot=" + shot, base + "/"],
                       timeout=120, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        must(os.path.exists(shot), "Chromium takes a screenshot")
        with open(shot, "rb") as file:
            png = file.read()
        kept = os.environ.get("TESSERA_SCREENSHOT")
        if kept:
            shutil.copy(shot, kept)
        must(colours(png) > 100, "the page shows a picture")


def server(program):
    process = subprocess.Popen([program, "0"], stderr=subprocess.PIPE, stdout=subprocess.DEVNULL,
                               text=True)
    try:
        base = process.stderr.readline().strip().rstrip("/")
        must(base.startswith("http://127.0.0.1:"), "the address: " + base)
        page = urllib.request.urlopen(base + "/", timeout=20).read()
        must(b"/live" in page, "the page shows the live picture")
        shots = [urllib.request.urlopen(base + "/snapshot.jpg", timeout=20).read() for _ in range(2)]
        must(all(s[:2] == b"\xff\xd8" and s[-2:] == b"\xff\xd9" for s in shots), "snapshots are JPEGs")
        taken = base.rsplit(":", 1)[1]
        for arguments, code, said in ((["port"], 2, "is no port"), (["65536"], 2, "is no port"),
                                      (["0", "here"], 2, "is no address"), ([taken], 1, "in use")):
            refused = subprocess.run([program, *arguments], stderr=subprocess.PIPE, timeout=60, text=True)
            must(refused.returncode == code and said in refused.stderr, refused.stderr)
        viewers = [urllib.request.urlopen(base + "/live", timeout=20) for _ in range(9)]
        must(urllib.request.urlopen(base + "/snapshot.jpg", timeout=20).read(), "a picture beside nine viewers")
        live = viewers[0]
        must("multipart/x-mixed-replace" in live.headers["Content-Type"], "the live type")
        parts = live.read(60000).split(b"--frame\r\n")
        must(len(parts) > 2 and b"Content-Type: image/jpeg" in parts[1], "parts of JPEGs")
        must(parts[1] != parts[2], "the picture moves")
        for viewer in viewers:
            viewer.close()
        screenshot(base)
        urllib.request.urlopen(base + "/quit", timeout=20).read()
        must(process.wait(timeout=30) == 0, "it ends when asked to")
    finally:
        process.kill()


if sys.argv[1] == "camera":
    camera(sys.argv[2])
else:
    server(sys.argv[2])
print("passed")
