#!/usr/bin/env python3
"""Boots a virtual machine, runs a payload in it, and brings the results back.

The machine is a minimal Debian 12 with systemd as PID 1, whole in memory: nothing that happens in
it outlives it. The payload, a folder with an executable go.sh, goes in as a raw tar on one drive;
what go.sh leaves in /results comes back as a raw tar on another. go.sh ran if, and only if, the
machine's console shows the marker; the emulator's own exit status tells nothing.

    tests/board/boot.py --payload FOLDER --results FOLDER [--virtual-time]

Exit status: 0 go.sh ended with 0; 1 it did not; 2 wrong use; 3 the machine did not run or its time
was up (then the console's last lines are shown).
"""

import argparse
import dataclasses
import fcntl
import hashlib
import io
import os
import pathlib
import platform
import re
import shutil
import signal
import subprocess
import sys
import tarfile
import tempfile
import uuid

HERE = pathlib.Path(__file__).resolve().parent
TREE = HERE.parent.parent

SUITE = "bookworm"
# What the service, the lab's programs and the scenarios need. A changed list makes a new root.
PACKAGES = [
    "systemd-sysv", "kmod",
    "psmisc", "procps", "busybox",  # fuser, ps, the device's find
    "libssl3", "libstdc++6", "zlib1g", "libsystemd0", "ca-certificates",
]
LEFT_OUT = ["/usr/share/doc/*", "/usr/share/man/*", "/usr/share/locale/*", "/usr/share/zoneinfo/*",
            "/usr/share/ca-certificates/*"]  # whoever needs trust anchors brings them
MEMORY_MB = 1024
RESULTS_MB = 1024  # of the drive that takes them; a sparse file


@dataclasses.dataclass(frozen=True)
class Architecture:
    """What differs between the machines."""
    kernel: str     # package that depends on the present kernel, whatever its ABI number
    emulator: list  # program and machine
    console: str
    drive: str      # device of a drive; {id} and {serial} are filled in
    drives: tuple   # names of the first, second and third drive in the machine
    modules: bool   # the kernel needs modules for what the machine has


ARCHITECTURES = {
    "amd64": Architecture(
        kernel="linux-image-cloud-amd64",  # has NVMe built in
        emulator=["qemu-system-x86_64", "-M", "q35", "-cpu", "qemu64"],
        console="ttyS0",
        drive="nvme,drive={id},serial={serial}",
        drives=("/dev/nvme0n1", "/dev/nvme1n1", "/dev/nvme2n1"),
        modules=False),
    "armhf": Architecture(
        kernel="linux-image-armmp",
        emulator=["qemu-system-arm", "-M", "virt,highmem=off", "-cpu", "cortex-a15"],
        console="ttyAMA0",
        drive="virtio-blk-pci,drive={id},serial={serial}",
        drives=("/dev/vda", "/dev/vdb", "/dev/vdc"),
        modules=True),
}


class BoardError(Exception):
    """The machine could not be made or did not run."""


# ---- the root file system, made once and kept -------------------------------------------------

def cache_folder():
    base = os.environ.get("XDG_CACHE_HOME")
    return pathlib.Path(base) / "log_consumer" / "board" if base else TREE / "build" / "board"


def debian_mirror():
    """The machine's own, of whichever form its list of sources has."""
    lists = [pathlib.Path("/etc/apt/sources.list")]
    lists += sorted(pathlib.Path("/etc/apt/sources.list.d").glob("*"))
    for path in lists:
        text = path.read_text(errors="replace") if path.is_file() else ""
        found = re.search(r"^URIs:\s*(\S+)|^deb\s+(?:\[[^]]*\]\s+)?(\S+)", text, re.MULTILINE)
        if found:
            return found[1] or found[2]
    return "http://deb.debian.org/debian"


# Runs in mmdebstrap with the root as $1. The kernel is unpacked, never installed: no initramfs is
# made, and its number comes from the package that depends on it.
KERNEL_HOOK = """set -e
cd "$1"; mkdir kernel; cd kernel
export APT_CONFIG="$MMDEBSTRAP_APT_CONFIG"
image=$(apt-cache depends {kernel} | sed -n 's/^ *Depends: *//p' | grep '^linux-image' | head -n 1)
apt-get -q -o APT::Sandbox::User=root download "$image"
dpkg-deb -x ./*.deb .
mv boot/vmlinuz-* ../vmlinuz
if {modules}; then
  (cd lib/modules/*/kernel && find . -type f ! -path './drivers/virtio/*' ! -path './drivers/block/*' \
    ! -path './fs/ext4/*' ! -path './fs/jbd2/*' ! -path './fs/mbcache.ko' ! -path './lib/*' \
    ! -path './crypto/*' -delete)
  mkdir -p ../usr/lib/modules; mv lib/modules/* ../usr/lib/modules/
  chroot .. depmod "$(ls ../usr/lib/modules)"
  printf 'virtio_pci\\nvirtio_blk\\next4\\n' > ../etc/modules-load.d/board.conf
fi
cd ..; rm -rf kernel
"""

# Maintainer scripts of another architecture run by emulation, which only a user namespace of their
# own knows of (Linux 6.7 or newer).
FOREIGN = ["--mode=unshare", "--skip=check/qemu",
           "--setup-hook=mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc && "
           "cat /usr/lib/binfmt.d/qemu-arm.conf > /proc/sys/fs/binfmt_misc/register"]


def mmdebstrap_command(arch, output):
    kernel = ARCHITECTURES[arch]
    hook = KERNEL_HOOK.format(kernel=kernel.kernel, modules=str(kernel.modules).lower())
    options = ["Acquire::Check-Valid-Until \"false\"", "Acquire::Languages \"none\"",
               "APT::Install-Recommends \"false\""]
    return (["mmdebstrap", "--quiet", f"--arch={arch}", "--variant=essential"] + foreign(arch) + [
             "--include=" + ",".join(PACKAGES)] +
            [f"--aptopt={option}" for option in options] +
            [f"--dpkgopt=path-exclude={path}" for path in LEFT_OUT] +
            ["--customize-hook=" + hook, SUITE, str(output), f"deb {debian_mirror()} {SUITE} main"])


def foreign(arch):
    return FOREIGN if arch == "armhf" and platform.machine() != "armv7l" else []


def install_command(arch, root, package, output):
    """The root with the package installed as on a device, its maintainer scripts included."""
    return (["mmdebstrap", "--quiet", f"--arch={arch}", "--variant=custom"] + foreign(arch) +
            ["--skip=update",
             f"--setup-hook=tar -C \"$1\" --exclude='./dev/*' -xf {root}",  # mmdebstrap makes its own
             f"--customize-hook=copy-in {package} /",
             f"--customize-hook=chroot \"$1\" dpkg -i /{package.name}",
             f"--customize-hook=rm \"$1\"/{package.name}",
             SUITE, str(output), f"deb {debian_mirror()} {SUITE} main"])


def run_mmdebstrap(command):
    # An ordinary user's mmdebstrap makes a user namespace; root's does not, and would tell the
    # machine itself of the emulator.
    status, output = (run_in_user_namespace if os.geteuid() == 0 else run)(command)
    if status != 0:
        raise BoardError("mmdebstrap failed:\n" + output.decode(errors="replace"))


def run(command):
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False)
    return done.returncode, done.stdout


def run_in_user_namespace(command):
    """As root of a namespace that knows all users; their ids are written from outside."""
    script = 'echo; read -r _ && exec setpriv --reuid 0 --regid 0 --clear-groups "$@" < /dev/null'
    with subprocess.Popen(["unshare", "--user", "--mount", "sh", "-c", script, "sh", *command],
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT) as child:
        child.stdout.readline()  # the namespace is there
        try:
            for ids in ("uid_map", "gid_map"):
                pathlib.Path(f"/proc/{child.pid}/{ids}").write_text("0 0 4294967295")
        except OSError as error:
            child.kill()
            raise BoardError(f"no user namespace: {error}") from error
        output, _ = child.communicate(b"\n")
        return child.returncode, output


def write_root(archive, folder):
    """A root's tar becomes what a machine boots: the kernel, and all else as an initramfs."""
    with tarfile.open(archive) as tar, open(folder / "root.cpio", "wb") as cpio:
        writer = CpioWriter(cpio)
        for member in tar:
            if member.name == "./vmlinuz":
                (folder / "vmlinuz").write_bytes(tar.extractfile(member).read())
            else:
                writer.add_member(tar, member)
        writer.finish()


def make_root(arch, folder):
    with tempfile.TemporaryDirectory(dir=folder.parent) as scratch:
        made = pathlib.Path(scratch) / "made"
        made.mkdir()
        run_mmdebstrap(mmdebstrap_command(arch, made / "root.tar"))
        write_root(made / "root.tar", made)
        made.rename(folder)


def root_with_package(arch, package, folder):
    """The root in which this Debian package is installed by dpkg; not kept for later runs."""
    folder.mkdir()
    run_mmdebstrap(install_command(arch, root_for(arch) / "root.tar", package, folder / "root.tar"))
    write_root(folder / "root.tar", folder)
    (folder / "root.tar").unlink()
    return folder


def root_for(arch):
    """The folder with root.tar, and of it vmlinuz and root.cpio; made when it is not there."""
    recipe = repr((mmdebstrap_command(arch, "-"), CPIO_VERSION))
    folder = cache_folder() / f"{arch}-{hashlib.sha256(recipe.encode()).hexdigest()[:12]}"
    folder.parent.mkdir(parents=True, exist_ok=True)
    with open(folder.parent / "lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)  # two machines may start at once
        if not folder.exists():
            for outdated in folder.parent.glob(f"{arch}-*"):
                shutil.rmtree(outdated)
            make_root(arch, folder)
    return folder


# ---- initramfs archives ------------------------------------------------------------------------

CPIO_VERSION = 2  # of what a root's folder holds


class CpioWriter:
    """Writes the kernel's "newc" format. Everything belongs to whom it says, without being root."""

    TYPES = {tarfile.DIRTYPE: 0o040000, tarfile.REGTYPE: 0o100000, tarfile.SYMTYPE: 0o120000,
             tarfile.CHRTYPE: 0o020000, tarfile.BLKTYPE: 0o060000, tarfile.FIFOTYPE: 0o010000}

    def __init__(self, file):
        self.file = file
        self.count = 0

    def add(self, name, mode, data=b"", uid=0, gid=0, device=(0, 0)):
        self.count += 1
        path = name.encode() + b"\0"
        fields = (self.count, mode, uid, gid, 1, 0, len(data), 0, 0, *device, len(path), 0)
        self._padded(b"070701" + b"".join(b"%08x" % field for field in fields) + path)
        self._padded(data)

    def add_member(self, tar, member):
        name = member.name.removeprefix("./") or "."
        if member.islnk():  # a hard link becomes a file of its own
            member = tar.getmember(member.linkname)
        data = member.linkname.encode() if member.issym() else b""
        if member.isreg():
            data = tar.extractfile(member).read()
        self.add(name, self.TYPES[member.type] | member.mode, data, member.uid, member.gid,
                 (member.devmajor, member.devminor))

    def add_tree(self, folder):
        """All of a folder, as root's."""
        for path in sorted(folder.rglob("*")):
            name = str(path.relative_to(folder))
            if path.is_symlink():
                self.add(name, 0o120777, os.readlink(path).encode())
            elif path.is_dir():
                self.add(name, 0o040755)
            else:
                executable = os.access(path, os.X_OK)
                self.add(name, 0o100755 if executable else 0o100644, path.read_bytes())

    def finish(self):
        self.add("TRAILER!!!", 0)

    def _padded(self, data):
        self.file.write(data + b"\0" * (-len(data) % 4))


def write_initramfs(root, overlays, path):
    """The root, and on top of it what makes it this board: tests/board/guest, and further folders."""
    with open(path, "wb") as out:
        with open(root / "root.cpio", "rb") as cpio:
            shutil.copyfileobj(cpio, out)
        overlay = io.BytesIO()
        writer = CpioWriter(overlay)
        for folder in (HERE / "guest", *overlays):
            writer.add_tree(folder)
        writer.finish()
        out.write(overlay.getvalue())


# ---- the machine -------------------------------------------------------------------------------

@dataclasses.dataclass
class Machine:
    arch: str = "amd64"
    virtual_time: bool = False  # idle time is skipped; clocks, timers and waits all agree
    timeout: int = 600          # real seconds until the emulator is killed
    memory: int = MEMORY_MB
    overlays: tuple = ()        # folders whose files the machine has from the start, as root's
    disk: pathlib.Path = None   # image of a third drive; it outlives the machine
    root: pathlib.Path = None   # folder with vmlinuz and root.cpio; Debian as it is unless told

    def run(self, payload, results):
        """Boots, runs payload/go.sh, fills the folder `results`. Returns go.sh's exit status.

        Raises BoardError when it cannot be known.
        """
        results = pathlib.Path(results)
        results.mkdir(parents=True, exist_ok=True)
        root = self.root or root_for(self.arch)
        with tempfile.TemporaryDirectory(prefix="board.") as scratch:
            scratch = pathlib.Path(scratch)
            with tarfile.open(scratch / "in.tar", "w") as tar:
                tar.add(payload, arcname=".")
            (scratch / "out.tar").touch()
            os.truncate(scratch / "out.tar", RESULTS_MB << 20)
            write_initramfs(root, self.overlays, scratch / "initramfs")
            marker = uuid.uuid4().hex
            self._emulate(root, scratch, marker, results / "console")
            status = status_behind(marker, results / "console")
            unpack(scratch / "out.tar", results)
            return status

    def _emulate(self, root, scratch, marker, console):
        try:
            with open(console, "wb") as output:
                subprocess.run(self.command(root, scratch, marker), stdin=subprocess.DEVNULL,
                               stdout=output, stderr=subprocess.STDOUT, check=False,
                               timeout=self.timeout)
        except subprocess.TimeoutExpired as error:
            raise BoardError(f"the machine did not end within {self.timeout} s\n" +
                             last_lines(console)) from error
        except OSError as error:
            raise BoardError(str(error)) from error

    def command(self, root, scratch, marker):
        arch = ARCHITECTURES[self.arch]
        # Never KVM, even where /dev/kvm stands: it cannot skip time, and does not work everywhere.
        clock = (["-accel", "tcg,thread=single", "-icount", "shift=3,sleep=off",
                  "-rtc", "clock=vm", "-smp", "1"] if self.virtual_time else
                 ["-accel", "tcg,thread=multi", "-smp", "2"])
        words = [f"console={arch.console}", "rdinit=/lib/systemd/systemd", "quiet", "panic=-1",
                 "systemd.show_status=0", f"board.marker={marker}",
                 f"board.in={arch.drives[0]}", f"board.out={arch.drives[1]}",
                 "mitigations=off",  # they cost half the speed under emulation
                 "transparent_hugepage=never"]  # a small board's kernel has none either
        command = arch.emulator + clock + [
            "-m", str(self.memory), "-nodefaults", "-no-user-config", "-display", "none",
            "-no-reboot", "-kernel", str(root / "vmlinuz"), "-initrd", str(scratch / "initramfs"),
            "-append", " ".join(words), "-serial", "stdio"]
        drives = [("in", scratch / "in.tar", ",readonly=on"), ("out", scratch / "out.tar", "")]
        if self.disk:
            drives.append(("disk", self.disk, ""))
        for name, file, extra in drives:
            command += ["-drive", f"file={file},if=none,id={name},format=raw{extra}",
                        "-device", arch.drive.format(id=name, serial=name)]
        return command


def last_lines(console, count=30):
    lines = console.read_text(errors="replace").splitlines()
    return "\n".join("  console: " + line for line in lines[-count:])


def status_behind(marker, console):
    found = re.search(rf"{marker} (\d+)", console.read_text(errors="replace"))
    if not found:
        raise BoardError("the machine ended without the marker\n" + last_lines(console))
    return int(found[1])


def unpack(archive, folder):
    try:
        with tarfile.open(archive) as tar:
            # Modes and owners are evidence: they are read from the list that go.sh makes of them,
            # not from these copies, which an ordinary user must be able to read and remove.
            for member in tar:
                if member.isreg() or member.isdir():
                    member.mode = 0o755 if member.isdir() else 0o644
                    tar.extract(member, folder, set_attrs=False)
    except tarfile.TarError as error:
        raise BoardError(f"the results cannot be read: {error}") from error


def end_cleanly_on_sigterm():
    """The machine is killed and what was made for it removed, as on Ctrl-C."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))


def add_options(parser):
    """The options of a machine, for every program that starts one."""
    parser.add_argument("--arch", choices=sorted(ARCHITECTURES), default="amd64")
    parser.add_argument("--timeout", type=int, default=600, metavar="SECONDS",
                        help="real time until the machine is killed (%(default)s)")
    parser.add_argument("--memory", type=int, default=MEMORY_MB, metavar="MB")


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    add_options(parser)
    parser.add_argument("--virtual-time", action="store_true",
                        help="skip the machine's idle time: an hour of waiting takes seconds")
    parser.add_argument("--payload", metavar="FOLDER", type=pathlib.Path,
                        help="what goes to /payload; its go.sh is run")
    parser.add_argument("--results", metavar="FOLDER", type=pathlib.Path,
                        help="what was in /results, and the machine's console")
    parser.add_argument("--make-root", action="store_true", help="only make the root and say where")
    options = parser.parse_args()
    end_cleanly_on_sigterm()
    try:
        if options.make_root:
            print(root_for(options.arch))
            return 0
        if not options.payload or not (options.payload / "go.sh").is_file():
            parser.error("--payload must name a folder with a go.sh")
        if not options.results:
            parser.error("--results is missing")
        machine = Machine(options.arch, options.virtual_time, options.timeout, options.memory)
        return 0 if machine.run(options.payload, options.results) == 0 else 1
    except BoardError as error:
        print(f"boot.py: {error}", file=sys.stderr)
        return 3


if __name__ == "__main__":
    sys.exit(main())
