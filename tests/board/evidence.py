"""What a scenario left behind, and what must hold in it.

Three independent witnesses are compared: the raw bytes that the upload server took off the wire
with what it answered, the files with their modes and times of change, and the journal. Nothing that
the service says about a file's delivery is believed: it is compared with the other two.
"""

import collections
import dataclasses
import datetime
import gzip
import json
import pathlib
import random
import re

LOGS = "/tarv/data/logs"
# Directory below LOGS, and the kind's name in an upload; None: goes raw to the relay server.
KINDS = [("reports", None), ("measurements", "measmin"), ("history/installation", None),
         ("clp", "clp"), ("debug", "Debug"), ("tlink", "TLink"), ("UI", "UI"),
         ("demand", "Demand"), ("tcomp", "TComp"), ("wg", "lg"), ("rg", "rg"),
         ("ppstat", "pushpull"), ("diagnostics", "diagnostics"), ("logconsumer", "logconsumer")]
KIND_OF_FOLDER = dict(KINDS)
FINDER_FOLDERS = {"reports", "measurements", "diagnostics"}  # searched by find
LEFTOVER_SECONDS = 60  # until a new process has searched, and sent what the old one had found

# The kernel's times of change are those of its last tick, the server's are cut to milliseconds.
CLOCK_SLACK = 0.010


@dataclasses.dataclass(frozen=True)
class Log:
    """A producer's finished file."""
    path: str
    content: bytes

    @property
    def name(self):
        return pathlib.PurePath(self.path).name

    @property
    def kind(self):
        return KIND_OF_FOLDER[str(pathlib.PurePath(self.path).parent.relative_to(LOGS))]


def make_logs(count, seed, largest=6000):
    """Logs of all kinds in turn; no two hold the same bytes."""
    chance = random.Random(seed)
    logs = []
    for number in range(count):
        folder = KINDS[number % len(KINDS)][0]
        text = f"log {number} of {seed}\n".encode() + chance.randbytes(chance.randint(50, largest))
        logs.append(Log(f"{LOGS}/{folder}/log_{number:05}.gz", gzip.compress(text, mtime=0)))
    return logs


@dataclasses.dataclass(frozen=True)
class Upload:
    """One request as it came off the wire."""
    number: int
    time: float      # of its last byte
    accepted: bool   # a whole answer with status 200 went out
    outcome: str
    name: str        # of the file; None for a raw upload
    kind: str        # likewise
    content: bytes   # None when the request is not whole


@dataclasses.dataclass(frozen=True)
class File:
    mode: int
    changed: float   # when mode or owner last changed
    written: float   # when its bytes last changed
    content: bytes


@dataclasses.dataclass(frozen=True)
class Line:
    time: float
    ident: str
    pid: int
    priority: int
    unit: str        # the unit that the service manager speaks of
    text: str


@dataclasses.dataclass(frozen=True)
class Sample:
    """One look at the service's process; memory in KiB."""
    time: float
    pid: int
    resident: int
    anonymous: int
    descriptors: int
    threads: int

    @classmethod
    def of(cls, line):
        time, *numbers = line.split()
        return cls(float(time), *map(int, numbers))


@dataclasses.dataclass(frozen=True)
class Pass:
    """One walk of the upload engine over its kinds."""
    pid: int
    began: float     # with the first kind
    ended: float
    whole: bool      # or its process ended before it did
    uploads: int     # that the server received meanwhile, whole or not

    @property
    def seconds(self):
        return self.ended - self.began


def seconds_of(text):
    """Of "2026-02-03T09:05:00.123Z"."""
    return datetime.datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp()


def content_of(request):
    """(kind, name, file) of a request's raw bytes; the file is None when it is not whole."""
    if not request.startswith(b"POST "):
        try:
            gzip.decompress(request)
        except (OSError, EOFError):
            return None, None, None
        return None, None, request
    head, _, body = request.partition(b"\r\n\r\n")
    length = re.search(rb"\r\nContent-Length: *(\d+)", head, re.IGNORECASE)
    boundary = re.search(rb"boundary=\"?([^\";\r\n]+)", head, re.IGNORECASE)
    if not length or not boundary or len(body) < int(length[1]):
        return None, None, None
    parts = {}
    for part in (b"\r\n" + body).split(b"\r\n--" + boundary[1])[1:]:
        headers, _, value = part.partition(b"\r\n\r\n")
        name = re.search(rb"[; ]name=\"([^\"]*)\"", headers)
        if name:
            file_name = re.search(rb"filename=\"([^\"]*)\"", headers)
            parts[name[1]] = (value, file_name[1].decode() if file_name else None)
    if b"Data" not in parts or b"LogType" not in parts:
        return None, None, None
    return parts[b"LogType"][0].decode(), parts[b"Data"][1], parts[b"Data"][0]


class Evidence:
    def __init__(self, folder, logs):
        self.folder = pathlib.Path(folder)
        self.logs = logs
        fed = self.folder / "fed"
        self.fed = logs[:len(fed.read_text().split())] if fed.exists() else []
        self.uploads = list(self._read_uploads())
        self.files = dict(self._read_files())
        self.journal = list(self._read_journal())
        self.log_of = {log.content: log for log in self.fed}
        self.uploads_of = collections.defaultdict(list)
        for upload in self.uploads:
            if upload.content is not None:
                self.uploads_of[upload.content].append(upload)

    def text(self, name):
        return (self.folder / name).read_text(errors="replace")

    def service_lines(self, text):
        return [line for line in self.journal if line.ident == "LogConsumer" and text in line.text]

    def manager_lines(self, text):
        return [line for line in self.journal
                if line.unit == "log_consumer.service" and text in line.text]

    def _read_uploads(self):
        for text in self.text("uploads.jsonl").splitlines():
            event = json.loads(text)
            if event["event"] != "upload":
                continue
            raw = (self.folder / "requests" / pathlib.Path(event["request"]).name).read_bytes()
            kind, name, content = content_of(raw)
            accepted = event["status"] == 200 and event["outcome"] in ("answered",
                                                                      "closed after the answer")
            yield Upload(event["upload"], seconds_of(event["time"]), accepted, event["outcome"],
                         name, kind, content)

    def _read_files(self):
        for line in self.text("files").splitlines():
            mode, changed, written, _, path = line.split(" ", 4)
            copy = self.folder / "logs" / pathlib.PurePath(path).relative_to(LOGS)
            yield path, File(int(mode, 8), float(changed), float(written), copy.read_bytes())

    def _read_journal(self):
        with open(self.folder / "journal", "rb") as lines:
            for text in lines:
                entry = json.loads(text)
                message = entry.get("MESSAGE") or ""
                if isinstance(message, list):  # bytes that are no text
                    message = bytes(message).decode(errors="replace")
                yield Line(int(entry["__REALTIME_TIMESTAMP"]) / 1e6,
                           entry.get("SYSLOG_IDENTIFIER", ""), int(entry.get("_PID", 0)),
                           int(entry.get("PRIORITY", 6)), entry.get("UNIT", ""), message)


def passes(evidence):
    """Every pass that reached the kinds; those in which no server is there do not."""
    def walk(pid, began, ended, whole):
        uploads = sum(began <= upload.time <= ended for upload in evidence.uploads)
        return Pass(pid, began, ended, whole, uploads)

    began, last = {}, {}
    for line in evidence.service_lines(""):
        if line.text.startswith("Build@") and line.pid in began:  # a new process, the number again
            yield walk(line.pid, began.pop(line.pid), last[line.pid], False)
        elif line.text.startswith("Bypassing random delay values for all log types"):
            began.setdefault(line.pid, line.time)
        elif line.text == "No files found in debug! Resetting":
            yield walk(line.pid, began.pop(line.pid), line.time, True)
        last[line.pid] = line.time
    for pid, time in began.items():
        yield walk(pid, time, last[pid], False)


# ---- the invariants; each returns the violations, as lines of text ------------------------------

def false_marks(evidence, answer_delay=0.0):
    """A file stands at 0400 only if the server had its bytes and had answered 200 before."""
    for log in evidence.fed:
        file = evidence.files.get(log.path)
        if file is None or file.mode != 0o400:
            continue
        before = [upload for upload in evidence.uploads_of[log.content] if upload.accepted and
                  upload.time + answer_delay <= file.changed + CLOCK_SLACK]
        if not before:
            yield f"{log.path} was marked at {file.changed:.3f} without an accepted upload before"


def losses(evidence):
    """No producer's file is ever removed, renamed, truncated or written to."""
    for log in evidence.fed:
        file = evidence.files.get(log.path)
        if file is None:
            yield f"{log.path} is gone"
        elif file.content != log.content:
            yield f"{log.path} has other bytes than its producer wrote"
        elif file.mode not in (0o644, 0o400):
            yield f"{log.path} has mode {file.mode:o}"
        elif any(file.written > upload.time + CLOCK_SLACK
                 for upload in evidence.uploads_of[log.content]):
            yield f"{log.path} was written to after it had been uploaded"


def misdirected(evidence, kills):
    """Uploads of one finder kind's file as another's, after a kill while the finder worked.

    What find wrote until then stays in its file of results, and the next process reads it as the
    result of its own first search: so the finder works. The server had the bytes, but the
    other kind's server.
    """
    folders = {f"{LOGS}/{folder}": kind for folder, kind in KINDS if folder in FINDER_FOLDERS}
    for upload in evidence.uploads:
        log = evidence.log_of.get(upload.content)
        folder = log and str(pathlib.PurePath(log.path).parent)
        another = upload.kind in folders.values() and folder in folders and upload.kind != log.kind
        if another and any(0 < upload.time - kill < LEFTOVER_SECONDS for kill in kills):
            yield upload


def strangers(evidence, kills=()):
    """Every whole upload is a producer's file, under its own name and kind."""
    excused = set(misdirected(evidence, kills))
    for upload in evidence.uploads:
        if upload.content is None or upload in excused:
            continue
        log = evidence.log_of.get(upload.content)
        if log is None:
            yield f"upload {upload.number} has bytes of no known file"
        elif (upload.name, upload.kind) != (log.name if log.kind else None, log.kind):
            yield f"upload {upload.number} of {log.path} is called {upload.kind} {upload.name}"


def unsent(evidence):
    """Every file that a producer gave arrived and is marked."""
    for log in evidence.fed:
        file = evidence.files.get(log.path)
        if file is not None and file.mode != 0o400:
            yield f"{log.path} still waits"


def repeats(evidence):
    """(first, second) for every pair of whole uploads of one file that follow each other."""
    for uploads in evidence.uploads_of.values():
        yield from zip(uploads, uploads[1:])


def answered_unmarked(evidence, kills, answer_delay=0.0):
    """The kills that came after an answer of 200 and before its file could be marked."""
    hits = []
    for first, second in repeats(evidence):
        after = [kill for kill in kills if first.time <= kill <= second.time][:1]
        hits += [kill for kill in after if first.accepted and first.time + answer_delay <= kill]
    return hits


def unexplained_repeats(evidence, kills):
    """A kill re-sends at most one file, and that is the one that was last on the wire before it."""
    kills = sorted(kills)
    used = set()
    for first, second in sorted(repeats(evidence), key=lambda pair: pair[0].time):
        between = [kill for kill in kills
                   if first.time - CLOCK_SLACK <= kill <= second.time and kill not in used]
        if not between:
            yield f"upload {second.number} repeats upload {first.number} and no kill explains it"
            continue
        kill = between[0]
        used.add(kill)
        later = [upload.number for upload in evidence.uploads if first.time < upload.time < kill]
        if later:
            yield (f"upload {first.number} was repeated though uploads {later} had followed it "
                   f"before the kill")


def unmarked_claims(evidence):
    """The service says that a file went okay only of files that are marked."""
    for line in evidence.service_lines("Sending "):
        found = re.fullmatch(r"Sending (.*) went okay", line.text)
        file = evidence.files.get(found[1]) if found else None
        if found and (file is None or file.mode != 0o400):
            yield f"the service says of {found[1]} that it went okay"
