#!/usr/bin/python3
"""Power cuts: what the disk holds at a random instant of a run, and nothing
of what the page cache held, must be enough for the next runs to end where
uninterrupted runs end, with every chat mailed once.

The home lives on a small ext4 file system on a loop device. A catch-up or
a single run is stopped (SIGSTOP) at a random instant and the device is read
as it is then (O_DIRECT, past the page cache, until two copies agree): that
copy is what a power cut would have left. It is checked with e2fsck,
mounted where the home was, and runs go on there until every transcript is
done. Every archive, page and
folder must then equal those of uninterrupted single runs, and the Maildir
hold one whole message for each transcript.

Needs root, losetup, mkfs.ext4 and e2fsck; says so and passes without them.

Usage: powercut.py BUILD_DIR [--cuts N] [--seed S]
"""
import argparse
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from crashtest import (CATCH_UP, MAILDIR, MOST_RUNS, Tool, differences, maildir_problems,  # noqa: E402
                       prepare_template, run_time, snapshot, transcripts_left, uninterrupted)

DISK_MIB = 48
HASH_SEED = "6b1c0e2a-50a3-4e3f-9d7c-2f1e0c8a4b11"


def usable() -> str:
    """Why this machine cannot run the test, or nothing."""
    if os.geteuid() != 0:
        return "needs root to mount a file system"
    missing = [tool for tool in ("losetup", "mkfs.ext4", "e2fsck", "mount") if shutil.which(tool) is None]
    if missing or subprocess.run(["losetup", "--find"], capture_output=True).returncode != 0:
        return f"this machine has no loop device or no {', '.join(missing) or 'losetup'}"
    return ""


def run(*command: str) -> str:
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


class Disk:
    """An image file on a loop device, mounted at `folder`."""

    def __init__(self, image: Path, folder: Path):
        self.image, self.folder = image, folder
        self.device = run("losetup", "--find", "--show", str(image))
        folder.mkdir(exist_ok=True)
        run("mount", self.device, str(folder))

    def release(self) -> None:
        subprocess.run(["umount", str(self.folder)], check=False, capture_output=True)
        subprocess.run(["losetup", "-d", self.device], check=False, capture_output=True)


def fresh_disk(image: Path, folder: Path) -> Disk:
    """An empty file system. The walk takes a folder's entries in the order
    of their names' hashes, so every disk has the same hash seed."""
    with open(image, "wb") as out:
        out.truncate(DISK_MIB << 20)
    run("mkfs.ext4", "-q", "-E", f"lazy_itable_init=0,lazy_journal_init=0,hash_seed={HASH_SEED}", str(image))
    return Disk(image, folder)


def read_still(device: str, copy: Path) -> None:
    """The device as it was at one instant. The kernel still writes back
    while the run is stopped, and a copy read across such a write would
    mix two instants into a disk no power cut leaves; a block that two
    copies in a row agree on held that value in between, so the second of
    two equal copies is the disk as it was when the first ended."""
    before = copy.with_suffix(".before")
    for _ in range(50):
        run("dd", f"if={device}", f"of={copy}", "bs=1M", "iflag=direct", "status=none")  # past the cache
        if before.exists() and subprocess.run(["cmp", "-s", str(before), str(copy)]).returncode == 0:
            break
        copy.replace(before)
    else:
        raise RuntimeError(f"{device} never held still with the run stopped")
    before.unlink()


def cut(tool: Tool, template: Path, reference: dict, root: Path, rng: random.Random, args: tuple,
        longest: float) -> list:
    """One run on a fresh disk, cut at a random instant; the problems found
    once runs on what the disk held have finished the work."""
    image, copy, folder = root / "disk.img", root / "cut.img", root / "mnt"
    disk = fresh_disk(image, folder)
    home = folder / "home"
    try:
        shutil.copytree(template, home, symlinks=True)
        run("sync", "-f", str(home))  # the transcripts were there long before the run
        process = tool.start(home, *args)
        time.sleep(rng.uniform(0, longest * 1.1))
        process.send_signal(signal.SIGSTOP)
        read_still(disk.device, copy)
        process.kill()
        process.communicate()
    finally:
        disk.release()
    image.unlink()
    checked = subprocess.run(["e2fsck", "-fy", str(copy)], capture_output=True, text=True)
    if checked.returncode > 2:
        return [f"e2fsck could not repair the copy ({checked.returncode}): {checked.stdout[-300:]}"]
    disk = Disk(copy, folder)
    try:
        for _ in range(MOST_RUNS):
            if not transcripts_left(home):
                break
            tool.run(home, *args)
        tool.run(home)  # puts right what a cut after the last move left
        if transcripts_left(home):
            return ["never finished"]
        return differences(reference, snapshot(home)) + maildir_problems(home, len(transcripts_left(template)))
    finally:
        disk.release()
        copy.unlink()


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=Path)
    parser.add_argument("--cuts", type=int, default=6)
    parser.add_argument("--seed", type=int, default=int(time.time()))
    options = parser.parse_args()
    if why := usable():
        print(f"power cuts: skipped, {why}")
        return 0
    tool = Tool(options.build.resolve())
    rng = random.Random(options.seed)
    print(f"seed {options.seed}")
    failed = 0
    with tempfile.TemporaryDirectory(prefix="parlova-powercut-") as scratch:
        root = Path(scratch)
        template = prepare_template(tool, root, backlog=40)
        for setting in MAILDIR:
            tool.defaults(template, *setting)
        disk = fresh_disk(root / "disk.img", root / "mnt")
        try:
            reference, _ = uninterrupted(tool, template, disk.folder, "home")
        finally:
            disk.release()
            (root / "disk.img").unlink()
        # Alternately a catch-up and a single run, each cut somewhere in its
        # whole length.
        kinds = [("--catch-up", *CATCH_UP), ()]
        longest = {kind: run_time(tool, template, root, *kind) for kind in kinds}
        for number in range(options.cuts):
            kind = kinds[number % 2]
            problems = cut(tool, template, reference, root, rng, kind, longest[kind])
            if problems:
                failed += 1
                print(f"cut {number} ({'catch-up' if kind else 'single run'}): mismatch", file=sys.stderr)
                print("\n".join("  " + line for line in problems[:20]), file=sys.stderr)
    print(f"power cuts: {options.cuts}, mismatches {failed}")
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
