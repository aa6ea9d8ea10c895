"""Roots for process 1: what a cabinet has, as folders and files (subjects/loader_kernel.cpp)."""
import os
import re
import shutil
import stat
import subprocess
from pathlib import Path

from processes import SCRATCH, make_file, make_tree, subject

APPLICATION = "/machine/hdc3/qel_application_1"
LASTING_APPLICATION = "/machine/hdc3/qel_application_lasting"


class Root:
    """A root for one process 1, removed at the end of the `with` block. What is copied into it lies on the same file
    system: it is linked."""

    def __init__(self):
        self.path = SCRATCH / "root"
        for folder in "bin", "dev", "etc", "tmp":
            (self.path / folder).mkdir(parents=True)
        os.mknod(self.path / "dev/null", stat.S_IFCHR | 0o666, os.makedev(1, 3))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.path)

    def place(self, name):
        """The path of `name` in it, whose folder it makes."""
        path = self.path / name.lstrip("/")
        path.parent.mkdir(parents=True, exist_ok=True)
        return path

    def add_file(self, name, content=""):
        self.place(name).write_text(content, encoding="ascii")

    def add_program(self, file, name):
        kept = SCRATCH / str(file).replace("/", "_")
        if not kept.exists():
            shutil.copy(file, kept)
        os.link(kept, self.place(name))


def equip(root, application=APPLICATION):
    """What the loader finds in a cabinet: board driver, sound, the internal disk, no stick, and an application."""
    root.add_file("/machine/proc/devices", "Character devices:\n  1 qellpc\n116 alsa\n\nBlock devices:\n 22 ide1\n")
    for folder in "proc/bus/usb", "none", "sysfs/class/sound/card0":
        (root.path / "machine" / folder).mkdir(parents=True)
    root.add_file("/machine/sysfs/class/sound/controlC0/dev", "116:0\n")
    root.add_file("/machine/sysfs/class/sound/pcmC0D0p/dev", "116:16\n")
    root.add_file("/machine/sysfs/block/hdc/dev", "22:0\n")
    for partition in "123":
        root.add_file(f"/machine/sysfs/block/hdc/hdc{partition}/dev", f"22:{partition}\n")
    root.add_file("/machine/board", "\0" * 64)
    root.add_program(subject("bench_application"), "/machine/hdc2/xorg/bin/Xfake")
    root.add_program(subject("bench_application"), application)


def storage_archive():
    """What a delivery has for the storage partition: 200 files, made once."""
    archive, folder = SCRATCH / "storage.zip", make_tree(SCRATCH / "storage", "10 x 20")
    if not archive.exists():
        subprocess.run(["zip", "-qr", archive, "."], cwd=folder, check=True)
    return archive


def equip_for_install(root):
    """The same with a blank disk and a stick that has a whole delivery, and the tools of an install: miniunz is real,
    the others do nothing, as there is no disk here."""
    equip(root, "/machine/sda1/qel_application_1")
    root.add_file("/machine/sysfs/block/sda/dev", "8:0\n")
    root.add_file("/machine/sysfs/block/sda/sda1/dev", "8:1\n")
    root.add_file("/machine/hdc2.image")
    for partition in "hdc1", "hdc3":
        (root.path / "machine" / partition).mkdir()
    make_file(root.place("/machine/sda1/vmlinux"), 6 << 20)
    make_file(root.place("/machine/sda1/qel_usr.cramfs"), 20 << 20)
    root.add_program(storage_archive(), "/machine/sda1/storage.zip")
    for tool in "sfdisk", "mkdosfs", "sync", "syslinux":
        root.add_program(subject("bench_application"), f"/bin/{tool}")
    unzip = shutil.which("miniunzip")
    root.add_program(unzip, "/bin/miniunz")
    listing = subprocess.run(["ldd", unzip], capture_output=True, text=True, check=True).stdout
    for library in re.findall(r"(?m)(?:=>|^)\s*(/\S+)", listing):
        root.add_program(Path(library).resolve(), library)


def add_busybox(root):
    """Busybox under the names that a start-up script calls."""
    root.add_program("/bin/busybox", "/bin/busybox")
    for name in "sh cp find ln mkdir mknod mount rm sort tail umount".split():
        (root.path / "bin" / name).symlink_to("busybox")
