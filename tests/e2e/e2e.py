#!/usr/bin/env python3
"""The real server with the real test camera and real clients, and the
device's files at work. Run in private mount and network namespaces
(scripts/isolate), so the fixed paths and the camera's default address
are the test's own.

    e2e.py BUILD CASE        one case (a test_ function below); CTest runs each
    e2e.py BUILD soak N      five viewers for N seconds (make soak)

VS_LAUNCHER prefixes the server's command line (qemu-aarch64 -L ROOT for an
arm64 build); VS_CAMERA names the test camera when BUILD has none.
"""
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

BUILD = os.path.abspath(sys.argv[1])
LOG = "/media/usb99/stream.log"
FIFO = "/var/run/tbx/api.fifo"
EXIT = "************** EXIT **************"
SERVER = os.environ.get("VS_LAUNCHER", "").split() + [BUILD + "/video-server"]
TMP = tempfile.mkdtemp()
STARTED = []  # every process a case starts, killed when it ends


def wait_for(condition, seconds=30):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.05)
    return True


def log():
    """The event log's messages, without their time stamps."""
    with open(LOG if os.path.exists(LOG) else os.devnull, errors="replace") as f:
        return [line[27:].rstrip("\n") for line in f]


def start(command, out=os.devnull):
    STARTED.append(subprocess.Popen(command, stdout=open(out, "w"), stderr=subprocess.DEVNULL))
    return STARTED[-1]


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def camera():
    """Starts the test camera; the server's options for it."""
    out = TMP + "/camera.url"
    start([os.environ.get("VS_CAMERA", BUILD + "/test-camera"), "--size", "640x360", "--port", "0"], out)
    assert wait_for(lambda: open(out).read().endswith("\n")), "the test camera did not start"
    url = open(out).read().strip()
    return ["-u", url, "-t", "127.0.0.1:" + re.search(r":(\d+)/", url).group(1)]


def serving():
    """The server on the test camera; its HTTP port, picked while the camera
    holds its own, so that the two differ."""
    args = camera()
    port = free_port()
    process = start(SERVER + ["-p", str(port)] + args)
    assert wait_for(lambda: "Read thread running" in log(), 60), "the stream did not open"
    return port, process


def request(port, path):
    sock = socket.create_connection(("127.0.0.1", port), timeout=30)
    sock.sendall(b"GET %s HTTP/1.1\r\n\r\n" % path)
    return sock


class Viewer(threading.Thread):
    """A stream client: counts whole parts, and freezes (gaps over 3 s)."""

    def __init__(self, port):
        super().__init__(daemon=True)
        self.sock = request(port, b"/")
        self.parts = self.freezes = 0
        self.broken = None
        self.start()

    def run(self):
        data = b""
        last = time.monotonic()
        try:
            while chunk := self.sock.recv(65536):
                data += chunk
                while (m := re.search(rb"Content-Length: (\d+)\r\n\r\n", data)) and \
                        len(data) >= m.end() + int(m.group(1)):
                    jpeg = data[m.end():m.end() + int(m.group(1))]
                    assert jpeg[:2] == b"\xff\xd8" and jpeg[-2:] == b"\xff\xd9", "not a JPEG"
                    data = data[m.end() + len(jpeg):]
                    self.freezes += time.monotonic() - last > 3
                    self.parts += 1
                    last = time.monotonic()
            self.broken = "closed"
        except (OSError, AssertionError) as e:
            self.broken = str(e)


def single_image(sock):
    """Checks the answer to a single-image request."""
    data = b""
    while chunk := sock.recv(65536):
        data += chunk
    head, _, jpeg = data.partition(b"\r\n\r\n")
    assert head.startswith(b"HTTP/1.1 200 OK\r\n"), head
    assert head.endswith(b"Content-Length: %d" % len(jpeg)) and jpeg[-2:] == b"\xff\xd9", head


def test_clients():
    """curl's single image, ffmpeg's MJPEG input and Chromium's <img> each
    get a 1280x720 picture (not a blank page: a wide range of luma)."""
    url = "http://127.0.0.1:%d/" % serving()[0]
    with open(TMP + "/page.html", "w") as f:
        f.write("<body style='margin:0'><img src='%s'></body>" % url)
    for picture, command in (
            ("curl.jpg", ["curl", "-sS", "-o", TMP + "/curl.jpg", url + "?frame_id=1"]),
            ("ffmpeg.jpg", ["ffmpeg", "-v", "error", "-f", "mjpeg", "-i", url, "-frames:v", "30",
                            "-update", "1", TMP + "/ffmpeg.jpg"]),
            ("chromium.png", ["chromium", "--headless", "--no-sandbox", "--disable-gpu",
                              "--no-first-run", "--user-data-dir=" + TMP + "/profile",
                              "--window-size=1280,720", "--timeout=5000",
                              "--screenshot=" + TMP + "/chromium.png", "file://" + TMP + "/page.html"])):
        run = subprocess.run(["timeout", "90"] + command, capture_output=True, stdin=subprocess.DEVNULL)
        stats = subprocess.run(["ffmpeg", "-i", TMP + "/" + picture, "-vf", "signalstats,metadata=print:file=-",
                                "-f", "null", "-"], capture_output=True, text=True)
        luma = [float(v) for v in re.findall(r"Y(?:MIN|MAX)=([0-9.]+)", stats.stdout)] or [0, 0]
        assert " 1280x720" in stats.stderr and luma[1] - luma[0] > 100, (picture, luma, run.stderr[-300:])


def test_life():
    """Each row: a signal, the stream and test URLs (None: the defaults, whose
    camera address this network cannot reach), and the log lines that follow
    "Starting main loop" and that end the log. The control FIFO gets its
    announcement; a failed attempt waits a second before the next."""
    _, url, _, test_url = camera()
    port = free_port()
    no_route = "192.168.1.64:554"
    refused = "rtsp://127.0.0.1:%d/x" % free_port()
    version = subprocess.run(["pkg-config", "--modversion", "opencv4"], capture_output=True, text=True)
    for sig, stream, probe, opening, closing in (
            (signal.SIGINT, url, test_url, ["Testing connection to " + test_url, "Success",
                                            "Opening stream " + url, "Stream opened", "Read thread running"],
             ["Stopping camera", "Camera stopped"]),
            (signal.SIGHUP, None, no_route, ["Testing connection to " + no_route, "connect failed to " + no_route,
                                             "Failure establishing connection"],
             ["Failure establishing connection"]),
            (signal.SIGINT, "ab", "", ["Invalid stream URL : ab"], ["Invalid stream URL : ab"]),
            (signal.SIGINT, refused, "", ["Opening stream " + refused, "Failure opening stream"],
             ["Failure opening stream"])):
        if os.path.exists(LOG):
            os.remove(LOG)
        os.mkfifo(FIFO)
        process = start(SERVER + ["-p", str(port)] + (["-u", stream, "-t", probe] if stream else []),
                        TMP + "/server.out")
        with open(FIFO) as control:  # the control service's end
            assert control.readline() == "camera enable\n", "no announcement"
        assert wait_for(lambda: opening[-1] in log()), log()
        if stream == url:  # overlay messages go out as they happen, not when a client connects
            assert wait_for(lambda: open(TMP + "/server.out").read() == "Cannot stat /tmp/overlays.json\n")
            viewer = Viewer(port)
            assert wait_for(lambda: viewer.parts > 0), "no part"
        time.sleep(2)  # a few attempts' worth of log
        process.send_signal(sig)
        assert process.wait(30) == 0, "exit status"
        expected = ["************** ENTRY **************", "OpenCV version = " + version.stdout.strip(),
                    "HTTP Port     : %d" % port, "Stream URL    : " + (stream or "rtsp://%s/stream1" % no_route),
                    "Video Width   : 1280", "Video Height  : 720", "Stream FPS    : 30.0",
                    "Stream CODEC  : h264", "Test URL      : " + probe, "Enabling camera", "Camera enabled",
                    "Starting main loop"] + opening
        lines = log()
        assert lines[:len(expected)] == expected and lines[-len(closing) - 1:] == closing + [EXIT], lines
        assert len(lines) < 30, "%d log lines in about 2 s" % len(lines)
        assert ("client connected\n" in open(TMP + "/server.out").read()) == (stream == url), "clients"
        os.remove(FIFO)


def test_help():
    """argp ends the process: help lists the options as one group, a stray
    word gets the short usage."""
    usage = r"^Usage: video-server \[OPTION...\] \n"
    for word, status, printed in (("--help", 0, usage + r"Video Server\n\n  -c, --codec=h264 .*Stream Width\n  -\?"),
                                  ("stray", 64, usage + "Try `video-server --help' or `video-server --usage'")):
        run = subprocess.run(SERVER + [word], capture_output=True, text=True)
        assert run.returncode == status and re.search(printed, run.stdout + run.stderr, re.S), word


def test_stopped_viewer():
    """With send buffers of at most 256 KiB, a viewer that stops reading
    blocks the server within a second (a real camera's larger parts fill the
    default 4 MiB about as fast). The five others freeze once, for about
    10 s, and the stopped one is cut off; a single image asked for meanwhile
    is answered."""
    with open("/proc/sys/net/ipv4/tcp_wmem", "w") as f:
        f.write("4096 16384 262144")
    port, _ = serving()
    viewers = [Viewer(port) for _ in range(5)]
    assert wait_for(lambda: all(v.parts >= 10 for v in viewers)), "viewers"
    stopped = request(port, b"/")

    def stalled():
        before = viewers[0].parts
        time.sleep(1)  # a second without a part: the stall
        return viewers[0].parts == before
    assert wait_for(stalled), "no stall"
    single = request(port, b"/?frame_id=1")
    counts = [v.parts for v in viewers]
    assert wait_for(lambda: all(v.parts >= n + 60 for v, n in zip(viewers, counts)), 60), "resumed"
    assert all(v.freezes == 1 and not v.broken for v in viewers), [v.freezes for v in viewers]
    single_image(single)
    try:
        while stopped.recv(65536):
            pass
    except ConnectionResetError:
        pass  # its window update met no connection


def test_rotation():
    """The log, grown past 10 MB under a live server, is rotated by the rule as
    installed (mode 0644 whatever the checkout's umask), and the server's next
    line starts a new file; a small log is left alone."""
    start(SERVER + ["-p", str(free_port()), "-t", "127.0.0.1:%d" % free_port()])  # a line every 1-3 s
    assert wait_for(lambda: "Starting main loop" in log()), "no log"
    with open(LOG, "ab") as f:
        f.write(b"\0" * 11000000)
    rule = TMP + "/rule"
    with open(os.path.dirname(__file__) + "/../../deploy/logrotate") as source, open(rule, "w") as f:
        f.write(source.read())
    os.chmod(rule, 0o644)
    for _ in range(2):
        subprocess.run(["logrotate", "--state", TMP + "/state", rule], check=True)
        assert wait_for(lambda: "Testing connection to" in " ".join(log())), "no new log"
    assert os.path.exists(LOG + ".1.gz") and not os.path.exists(LOG + ".2.gz"), "rotated files"
    assert b"ENTRY" in subprocess.run(["zcat", LOG + ".1.gz"], capture_output=True).stdout, "rotated log"


def soak(seconds):
    """Five viewers, a single image every 3 s and a new overlay file every
    10 s: no viewer freezes or breaks, and the server's memory and
    descriptors stay flat after a warm-up (the least of the first and of the
    last ten samples: the log and the overlay file are open for moments)."""
    port, process = serving()
    viewers = [Viewer(port) for _ in range(5)]
    samples = []
    for second in range(seconds):
        if second % 3 == 0:
            single_image(request(port, b"/?frame_id=1"))
        if second % 10 == 0:
            with open("/tmp/overlays.json", "w") as f:
                f.write('{"overlays":[{"x":50,"y":5,"type":"date","value":"%%H:%%M:%%S"},'
                        '{"x":15,"y":94,"type":"queue_rate","value":"%%.1f fps %d"}]}' % second)
        if second >= min(60, max(10, seconds // 10)):  # warmed up
            status = open("/proc/%d/status" % process.pid).read()
            samples.append((int(re.search(r"VmRSS:\s+(\d+)", status).group(1)),
                            len(os.listdir("/proc/%d/fd" % process.pid))))
        time.sleep(1)  # the run's pace
    n = min(10, len(samples) // 2)
    assert n >= 2, "too short to measure"
    for i, name, limit in ((0, "KiB of memory", 8192), (1, "descriptors", 0)):
        first = min(s[i] for s in samples[:n])
        last = min(s[i] for s in samples[-n:])
        print("soak: %s %d -> %d" % (name, first, last))
        assert last - first <= limit, "%s grew by %d" % (name, last - first)
    assert all(v.freezes == 0 and not v.broken for v in viewers), [v.freezes for v in viewers]
    process.send_signal(signal.SIGINT)
    assert process.wait(30) == 0 and log()[-1] == EXIT, "no orderly stop"
    print("soak: %s parts in %d s" % ([v.parts for v in viewers], seconds))


if __name__ == "__main__":
    try:
        if sys.argv[2] == "soak":
            soak(int(sys.argv[3]))
        else:
            globals()["test_" + sys.argv[2].replace("-", "_")]()
    finally:
        for process in STARTED:
            process.kill()
            process.wait()
    print("PASS: " + sys.argv[2])
