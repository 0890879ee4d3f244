"""One trial: the service or the loop sends files to the lab's upload server, and what it cost.

Runs inside the lab's sandbox, whose network and queues are this trial's alone, so that the network's
counters count nothing else. As root (of the sandbox) the contender becomes a user of its own, and the
loopback gets the 1500 bytes of an Ethernet or Wi-Fi frame; as anybody else neither is possible, nor
is TLS, which the service speaks on port 443 alone.

    trial.py SETTINGS.json      prints the outcome as JSON

Where the figures come from:

cpu        the kernel's clock of the process (nanoseconds, its ended threads included), read when it
           has ended and is not yet reaped; with children: wait4(). The loop's curl processes are each
           waited for by `bookkeeper`, whose own time is taken off again.
memory     VmHWM, VmRSS and RssAnon (without what is mapped from files, libraries above all) of
           /proc/PID/status, looked at five times a second; curl: wait4().
wire       /proc/net/snmp and netstat of the sandbox's network, both directions: what the contender
           sent and what the server answered, with all TCP and IP headers.
wake-ups   voluntary context switches: of all threads, looked at five times a second, and wait4().
disk       write_bytes of /proc/PID/io, which includes children that were waited for; /tarv and /var/tmp
           lie on a real file system.
"""
import datetime
import json
import os
import pathlib
import random
import re
import shutil
import socket
import statistics
import struct
import subprocess
import sys
import threading
import time

USER = 54321  # nobody else's: the budget of message queues is per user
LOOK_SECONDS = 0.2
LARGEST = ("status", "peak_kib", "private_kib", "idle_kib", "base_kib", "last_kib")  # of several starts; the rest adds up
STARTS = 4  # a pass that finds the relay connected alone ends without the files
FOLDERS = ["reports", "measurements", "history/installation", "clp", "debug", "tlink", "UI", "demand",
           "tcomp", "wg", "rg", "ppstat", "diagnostics", "logconsumer"]
LOGS = pathlib.Path("/tarv/data/logs")
TMP = pathlib.Path("/tmp")
PROGRAMS = TMP / "programs"
DOCUMENT = {
    "serverAssigned": {"identities": {"sysId": "AB12345678"}, "security": {"nuvToken": {"encoded": "dG9rZW4="}}},
    "rgw": {"aapState": "bound"},
    "interfaces": [{"id": 1, "wifiStatus": {"status": "associated"}}],
    "system": {"clock": {"offset": -18000, "dstOffset": 3600, "enableDst": True}},
}
HERE = pathlib.Path(__file__).resolve().parent


def visible(path):
    """A copy that this user may read, wherever the tree lies."""
    PROGRAMS.mkdir(exist_ok=True)
    return shutil.copy(path, PROGRAMS)


def user():
    """Arguments of Popen that make the child that user."""
    return {"user": USER, "group": USER, "extra_groups": []} if os.geteuid() == 0 else {}


def set_loopback_mtu(size):
    import fcntl
    set_mtu = 0x8922  # SIOCSIFMTU
    try:
        with socket.socket() as any_socket:
            fcntl.ioctl(any_socket, set_mtu, struct.pack("16si", b"lo", size))
        return size
    except OSError:
        return int(pathlib.Path("/sys/class/net/lo/mtu").read_text()) if os.path.exists("/sys/class/net/lo/mtu") else None


def counters(text):
    """{"Tcp": {"OutSegs": 1, ...}, ...} from pairs of lines, names and values."""
    lines = text.splitlines()
    found = {}
    for names, values in zip(lines[::2], lines[1::2]):
        group, *keys = names.split()
        found[group.rstrip(":")] = dict(zip(keys, map(int, values.split()[1:])))
    return found


def wire():
    now = counters(pathlib.Path("/proc/net/snmp").read_text())
    now.update(counters(pathlib.Path("/proc/net/netstat").read_text()))
    return {"bytes": now["IpExt"]["OutOctets"], "segments": now["Tcp"]["OutSegs"],
            "connections": now["Tcp"]["ActiveOpens"], "retransmitted": now["Tcp"]["RetransSegs"]}


def fields(path):
    """The numbers of a /proc file of lines "name: value"."""
    return {name: int(value) for name, value in re.findall(r"^(\w+):\s+(\d+)", pathlib.Path(path).read_text(), re.M)}


class Watch(threading.Thread):
    """Looks at a process until it has ended."""

    def __init__(self, pid):
        super().__init__(daemon=True)
        self.pid, self.resident, self.peak, self.private, self.switches = pid, [], 0, 0, {}
        self.over = threading.Event()
        self.start()

    def look(self):
        status = fields(f"/proc/{self.pid}/status")
        if "VmRSS" in status:
            self.resident.append(status["VmRSS"])
            self.peak = max(self.peak, status["VmHWM"])
            self.private = max(self.private, status["RssAnon"])
        for task in os.listdir(f"/proc/{self.pid}/task"):
            self.switches[task] = fields(f"/proc/{self.pid}/task/{task}/status")["voluntary_ctxt_switches"]

    def run(self):
        while not self.over.wait(LOOK_SECONDS):
            try:
                self.look()
            except (FileNotFoundError, ProcessLookupError):
                pass  # a thread has ended, or all of them


def process_clock(pid):
    """Seconds of processor time, see clock_getcpuclockid(3)."""
    scheduled = 2
    return time.clock_gettime((~pid << 3) | scheduled)


def run(command, **options):
    """Runs it to its end and says what it cost."""
    began = time.monotonic()
    child = subprocess.Popen(command, **user(), **options)
    watch = Watch(child.pid)
    os.waitid(os.P_PID, child.pid, os.WEXITED | os.WNOWAIT)
    own = process_clock(child.pid)
    watch.over.set()
    watch.join()
    written = fields(f"/proc/{child.pid}/io")["write_bytes"]
    _, status, usage = os.wait4(child.pid, 0)
    child.returncode = os.waitstatus_to_exitcode(status)
    return {"status": child.returncode, "seconds": time.monotonic() - began,
            "cpu_own": own, "cpu_all": usage.ru_utime + usage.ru_stime,
            "peak_kib": watch.peak, "private_kib": watch.private, "idle_kib": statistics.median(watch.resident or [0]),
            "base_kib": min(watch.resident or [0]), "last_kib": watch.resident[-1] if watch.resident else 0,
            "wakeups_own": sum(watch.switches.values()), "wakeups_all": usage.ru_nvcsw,
            "written": written}


def sum_of(runs):
    total = dict(runs[0])
    for other in runs[1:]:
        for key, value in other.items():
            total[key] = max(total[key], value) if key in LARGEST else total[key] + value
    return total


def lines_of(path):
    return [json.loads(line) for line in pathlib.Path(path).read_text().splitlines()]


def wait_for(path, text, process):
    while text not in pathlib.Path(path).read_text():
        if process.poll() is not None:
            raise SystemExit(f"trial: {process.args[0]} ended with status {process.returncode}")
        time.sleep(0.02)


class Helpers:
    """What stands around the contender; ends with it."""

    def __init__(self, programs):
        self.programs, self.started = programs, []

    def start(self, name, *arguments, ready, **options):
        out = TMP / f"{name}.jsonl"
        with open(out, "wb") as file:
            process = subprocess.Popen([visible(f"{self.programs}/{name}"), *arguments], stdout=file, **options)
        self.started.append(process)
        wait_for(out, ready, process)
        return out

    def stop(self):
        for process in reversed(self.started):
            process.terminate()
            process.wait()


def seed(settings):
    """Files that do not compress, as gzip's; the same for both contenders."""
    for folder in FOLDERS:
        (LOGS / folder).mkdir(parents=True, exist_ok=True)
    chance = random.Random(settings["seed"])
    paths = []
    for number in range(settings["files"]):
        path = LOGS / "debug" / f"debug_20260203_{number:04}.txt.gz"
        path.write_bytes(chance.randbytes(settings["bytes"]))
        path.chmod(0o644)
        paths.append(path)
    if os.geteuid() == 0:
        for path in [LOGS, *LOGS.rglob("*"), pathlib.Path("/var/tmp")]:
            os.chown(path, USER, USER)
    os.sync()
    return paths


def environment(settings):
    find = TMP / "find"
    find.mkdir(exist_ok=True)
    if not (find / "find").exists():
        (find / "find").symlink_to("/usr/bin/busybox")
    names = {"PATH": f"{find}:/usr/sbin:/usr/bin:/sbin:/bin", "TMPDIR": "/tmp", "NOTIFY_SOCKET": "/tmp/notify"}
    if settings["tls"]:
        names["SSL_CERT_FILE"] = visible(settings["bundle"])
    return names


def waiting(paths):
    return [path for path in paths if path.stat().st_mode & 0o777 != 0o400]


def pass_seconds(log):
    """Of the pass that sent: from its first kind to its last."""
    def moment(line):
        return datetime.datetime.fromisoformat(line["time"].replace("Z", "+00:00")).timestamp()
    first = next((moment(line) for line in log if line.get("text", "").startswith("Bypassing random")), None)
    last = next((moment(line) for line in reversed(log) if "Resetting" in line.get("text", "")), None)
    return last - first if first and last else None


def send_by_service(settings, helpers, paths, port):
    log = helpers.start("syslog_sink", ready="ready")
    helpers.start("notify_sink", "--path", "/tmp/notify", ready="ready")
    document = TMP / "document.json"
    document.write_text(json.dumps(DOCUMENT))
    helpers.start("pushpull_store", "--json", "--component-queue", "/log_consumer:10:8192",
                  "--document", str(document), ready='"ready"', **user())
    command = [visible(settings["service"]), "-s127.0.0.1", f"-p{port}"]
    runs = []
    while waiting(paths) and len(runs) < STARTS:
        runs.append(run(command, env=environment(settings), stdout=subprocess.DEVNULL))
    total = sum_of(runs)
    total.update(starts=len(runs), pass_seconds=pass_seconds(lines_of(log)))
    return total


def send_by_loop(settings, _helpers, _paths, port):
    log = TMP / "curl.jsonl"
    bookkeeper = visible(f"{settings['programs']}/bookkeeper")
    scheme = "https" if settings["tls"] else "http"
    command = ["/bin/sh", visible(HERE / "loop.sh"), f"{scheme}://127.0.0.1:{port}/v1/Upload"]
    if settings["tls"]:
        command += ["--cacert", visible(settings["bundle"])]
    total = run(command, env={**environment(settings), "CURL": f"{bookkeeper} {log}"})
    curls = lines_of(log)
    total["cpu_all"] -= sum(curl["bookkeeping"] for curl in curls)
    total["wakeups_all"] -= sum(curl["own_wakeups"] for curl in curls)
    total.update(
        starts=1, pass_seconds=total["seconds"], shell_idle_kib=total["idle_kib"],
        cpu_own=sum(curl["cpu"] for curl in curls), wakeups_own=sum(curl["wakeups"] for curl in curls),
        peak_kib=max(curl["peak_kib"] for curl in curls), idle_kib=max(curl["peak_kib"] for curl in curls))
    return total


def read_slowly(control_port):
    """Makes the server take 5 MB/s: what the socket does not take at once has to wait in memory."""
    command = {"do": "default", "read_piece": 16_000, "read_pause_ms": 3}  # TLS gives no more at a time
    with socket.create_connection(("127.0.0.1", control_port)) as control, control.makefile("rw") as lines:
        lines.write(json.dumps(command) + "\n")
        lines.flush()
        if '"ok":true' not in lines.readline():
            raise SystemExit("trial: the server refuses to read slowly")


def arrivals(uploads, count):
    """What the server took; it may still be writing its last line."""
    for _ in range(100):
        found = [line for line in lines_of(uploads) if line["event"] == "upload" and line["status"] == 200]
        if len(found) >= count:
            break
        time.sleep(0.05)
    return found


def main():
    settings = json.loads(pathlib.Path(sys.argv[1]).read_text())
    os.umask(0o022)
    TMP.chmod(0o1777)
    mtu = set_loopback_mtu(1500)
    paths = seed(settings)
    helpers = Helpers(settings["programs"])
    try:
        server = ["--json"]
        if settings["tls"]:
            server += ["--port", "443", "--certificate", settings["certificate"], "--key", settings["key"]]
        uploads = helpers.start("upload_server", *server, ready="listening")
        listening = lines_of(uploads)[0]
        if settings.get("slow"):
            read_slowly(listening["control_port"])
        before = wire()
        send = send_by_service if settings["contender"] == "service" else send_by_loop
        outcome = send(settings, helpers, paths, listening["port"])
        outcome.update({name: count - before[name] for name, count in wire().items()})
        arrived = arrivals(uploads, settings["files"])
    finally:
        helpers.stop()
    good = {(line["file_name"], line["bytes"]) for line in arrived}
    outcome.update(mtu=mtu, uploads=len(arrived),
                   complete=not waiting(paths) and good >= {(path.name, settings["bytes"]) for path in paths})
    print(json.dumps(outcome))


if __name__ == "__main__":
    main()
