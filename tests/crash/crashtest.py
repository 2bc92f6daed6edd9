#!/usr/bin/python3
"""Runs that die half-way, overlap, or meet a full disk lose nothing and count
nothing twice.

Kills the real parlova with SIGKILL at random instants over whole runs,
restarts it until every transcript is processed, and compares every archive,
page and folder with those of an uninterrupted run on the same input. Then
starts two runs at once on one home, over and over, with the same check. Then
runs it on a full file system, where the machine lets this script mount one.

Usage: crashtest.py BUILD_DIR [--kills N] [--pairs N] [--seed S]
"""
import argparse
import os
import plistlib
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from datetime import datetime, timezone
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
LIBRARY = Path("Library/Parlova")
CHATS = Path("Documents/iChats")
ARCHIVED = Path("Documents/iChats (Parlovaed)")
ARCHIVES = ("gatheredURLs.plist", "gatheredImages.plist", "chatgeist.plist")
MOST_RUNS = 400  # a trial that needs more has stopped making progress


class Tool:
    def __init__(self, build: Path):
        self.build = build

    def env(self, home: Path) -> dict:
        env = dict(os.environ)
        env.update(HOME=str(home), PARLOVA_PAUSE_SECONDS="0", TZ="UTC", PARLOVA_OSASCRIPT="/bin/false")
        return env

    def start(self, home: Path) -> subprocess.Popen:
        return subprocess.Popen([str(self.build / "parlova")], env=self.env(home),
                                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)

    def run(self, home: Path) -> subprocess.CompletedProcess:
        return subprocess.run([str(self.build / "parlova")], env=self.env(home), capture_output=True, check=False)

    def defaults(self, home: Path, *args: str) -> None:
        subprocess.run([str(self.build / "parlova-defaults"), "write", "com.hollowmere.parlova", *args],
                       env=self.env(home), check=True)


def transcripts_left(home: Path) -> list:
    return sorted(p for p in (home / CHATS).rglob("*") if p.suffix in (".chat", ".ichat"))


def prepare_template(tool: Tool, root: Path) -> Path:
    home = root / "template"
    subprocess.run([str(tool.build / "parlova-samples"), str(home / CHATS)], check=True, stdout=subprocess.DEVNULL)
    library = home / LIBRARY
    (library / "Images").mkdir(parents=True)
    resources = SOURCE / "resources"
    for shipped in resources.iterdir():
        if shipped.suffix in (".html", ".plist"):
            shutil.copy(shipped, library / shipped.name)
    shutil.copy(resources / "pdf.png", library / "Images" / "pdf.png")
    # A fixed start, so that the statistics page does not depend on when the
    # folder was made.
    start = datetime(2004, 1, 1, tzinfo=timezone.utc)
    with open(library / "chatgeist.plist", "wb") as out:
        plistlib.dump({"chatcount": 0, "startDate": start}, out, fmt=plistlib.FMT_XML)
    tool.defaults(home, "handleURLs", "-bool", "YES")
    tool.defaults(home, "handleImages", "-bool", "YES")
    return home


def snapshot(home: Path) -> dict:
    """Every file and folder the runs leave, by path, with its bytes."""
    state = {}
    for base in (LIBRARY, ARCHIVED, CHATS):
        top = home / base
        for folder, folders, files in os.walk(top):
            relative = Path(folder).relative_to(home)
            for name in folders:
                state[str(relative / name) + "/"] = b""
            for name in files:
                if name == ".parlova.lock":
                    continue
                state[str(relative / name)] = (Path(folder) / name).read_bytes()
    return state


def differences(expected: dict, actual: dict) -> list:
    lines = []
    for path in sorted(expected.keys() | actual.keys()):
        if path not in actual:
            lines.append(f"missing: {path}")
        elif path not in expected:
            lines.append(f"extra: {path}")
        elif expected[path] != actual[path]:
            lines.append(f"differs: {path}")
    return lines


def uninterrupted(tool: Tool, template: Path, root: Path):
    home = root / "reference"
    shutil.copytree(template, home, symlinks=True)
    longest = 0.0
    for _ in range(MOST_RUNS):
        if not transcripts_left(home):
            break
        began = time.monotonic()
        tool.run(home)
        longest = max(longest, time.monotonic() - began)
    if transcripts_left(home):
        sys.exit("the uninterrupted run did not process every transcript")
    tool.run(home)
    return snapshot(home), longest


class Tally:
    def __init__(self, name: str):
        self.name, self.kills, self.pairs, self.runs, self.passed, self.failed = name, 0, 0, 0, 0, 0

    def report(self) -> str:
        return f"{self.name}: kills {self.kills}, runs {self.runs}, mismatches {self.failed}"


def trial(tool, template, reference, root, number, step, tally) -> None:
    home = root / f"trial-{number}"
    shutil.copytree(template, home, symlinks=True)
    for _ in range(MOST_RUNS):
        if not transcripts_left(home):
            break
        step(home, tally)
    # The run after the last one puts right what a kill after the last move
    # left; with nothing to do it changes nothing.
    tool.run(home)
    problems = differences(reference, snapshot(home)) if not transcripts_left(home) else ["never finished"]
    if problems:
        tally.failed += 1
        kept = root / f"failed-{tally.name}-{number}"
        shutil.move(str(home), kept)
        print(f"{tally.name} trial {number}: mismatch, kept in {kept}", file=sys.stderr)
        for line in problems[:20]:
            print("  " + line, file=sys.stderr)
    else:
        tally.passed += 1
        shutil.rmtree(home)


def killed_run(tool: Tool, longest: float, rng: random.Random):
    streak = 0  # kills since a run last got to its end

    def step(home: Path, tally: Tally) -> None:
        nonlocal streak
        process = tool.start(home)
        tally.runs += 1
        # Anywhere in a run: start-up, mid-write, between stages, mid-move.
        # A machine that slows down can make every run outlast the window;
        # after ten kills in a row one run is let through, so the trial
        # always ends.
        if streak < 10:
            time.sleep(rng.uniform(0, longest * 1.2))
            if process.poll() is None:
                process.send_signal(signal.SIGKILL)
                tally.kills += 1
        _, err = process.communicate()
        streak = streak + 1 if process.returncode == -signal.SIGKILL else 0
        if process.returncode not in (0, -signal.SIGKILL):
            print(err.decode(errors="replace"), file=sys.stderr)
            sys.exit(f"parlova ended with {process.returncode}")
    return step


def paired_run(tool: Tool):
    def step(home: Path, tally: Tally) -> None:
        both = [tool.start(home), tool.start(home)]
        tally.runs += 2
        for process in both:
            process.communicate()
            if process.returncode != 0:
                sys.exit(f"parlova ended with {process.returncode}")
        tally.pairs += 1
    return step


def can_mount(folder: Path) -> bool:
    if os.geteuid() != 0 or shutil.which("mount") is None:
        return False
    folder.mkdir(parents=True, exist_ok=True)
    if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", str(folder)],
                      capture_output=True, check=False).returncode != 0:
        return False
    subprocess.run(["umount", str(folder)], check=True)
    return True


def fill(folder: Path, leave: int) -> None:
    """Fills the file system under `folder`, then frees `leave` bytes."""
    filler = folder / "filler"
    with open(filler, "wb", buffering=0) as out:
        chunk = b"\0" * 4096
        try:
            while out.write(chunk):
                pass
        except OSError:
            pass
    size = filler.stat().st_size
    os.truncate(filler, max(0, size - leave))


def full_disk(tool: Tool, reference_home: Path, root: Path):
    """Archives on a full file system: a failed write leaves its archive as
    it was. The problems found, or None when the case cannot be set up."""
    home = root / "full-disk"
    library = home / LIBRARY
    if not can_mount(library):
        print("full disk: skipped, this machine does not let the test mount a file system (needs root)")
        return None
    problems = []
    try:
        for leave, case in ((0, "no room at all"), (8192, "room for the journal only")):
            shutil.rmtree(home, ignore_errors=True)
            library.mkdir(parents=True)
            subprocess.run(["mount", "-t", "tmpfs", "-o", "size=2m", "tmpfs", str(library)], check=True)
            try:
                shutil.copytree(reference_home / LIBRARY, library, dirs_exist_ok=True, symlinks=True)
                shutil.copytree(reference_home / "Library/Preferences", home / "Library/Preferences")
                (home / CHATS).mkdir(parents=True)
                for archived in sorted((reference_home / ARCHIVED).iterdir())[:2]:
                    shutil.copy(archived, home / CHATS / ("again " + archived.name))
                before = {name: (library / name).read_bytes() for name in ARCHIVES}
                fill(library, leave)
                result = tool.run(home)
                log = result.stderr.decode(errors="replace")
                if result.returncode != 0:
                    problems.append(f"{case}: parlova ended with {result.returncode}")
                failed_writes = [line for line in log.splitlines()
                                 if "Could not write " + str(library) in line and "No space left on device" in line]
                print(f"full disk, {case}: " + "; ".join(line.split("] ", 1)[-1] for line in failed_writes))
                if not failed_writes:
                    problems.append(f"{case}: no log line names the path and the error:\n{log}")
                for name in ARCHIVES:
                    now = (library / name).read_bytes()
                    plistlib.loads(now)
                    if any(f"{library / name}:" in line for line in failed_writes) and now != before[name]:
                        problems.append(f"{case}: {name} changed though its write failed")
                leftovers = [p.name for p in library.rglob(".parlova-tmp-*")]
                if leftovers:
                    problems.append(f"{case}: temporary files left: {leftovers}")
                if leave == 0 and len(transcripts_left(home)) != 2:
                    problems.append(f"{case}: a transcript left its place though nothing could be recorded")
                # With room again, the next runs carry on as usual.
                (library / "filler").unlink()
                for _ in range(5):
                    tool.run(home)
                if transcripts_left(home):
                    problems.append(f"{case}: transcripts still waiting once there was room again")
                for name in ARCHIVES:
                    plistlib.loads((library / name).read_bytes())
            except (OSError, plistlib.InvalidFileException) as error:
                problems.append(f"{case}: {error}")
            finally:
                subprocess.run(["umount", str(library)], check=False)
    finally:
        shutil.rmtree(home, ignore_errors=True)
    for line in problems:
        print("full disk: " + line, file=sys.stderr)
    print(f"full disk: {2 - len({p.split(':')[0] for p in problems})} of 2 cases kept every archive")
    return problems


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=Path)
    parser.add_argument("--kills", type=int, default=200)
    parser.add_argument("--pairs", type=int, default=60)
    parser.add_argument("--seed", type=int, default=int(time.time()))
    args = parser.parse_args()
    tool = Tool(args.build.resolve())
    rng = random.Random(args.seed)
    print(f"seed {args.seed}")

    with tempfile.TemporaryDirectory(prefix="parlova-crash-") as scratch:
        root = Path(scratch)
        template = prepare_template(tool, root)
        reference, longest = uninterrupted(tool, template, root)
        print(f"uninterrupted: {len(transcripts_left(template))} transcripts, longest run {longest * 1000:.0f} ms")

        killed = Tally("killed")
        number = 0
        while killed.kills < args.kills:
            number += 1
            trial(tool, template, reference, root, number, killed_run(tool, longest, rng), killed)
        print(killed.report())

        paired = Tally("concurrent")
        while paired.pairs < args.pairs:
            number += 1
            trial(tool, template, reference, root, number, paired_run(tool), paired)
        print(f"concurrent: pairs {paired.pairs}, runs {paired.runs}, mismatches {paired.failed}")

        disk = full_disk(tool, root / "reference", root)

        failed_dirs = [p for p in root.iterdir() if p.name.startswith("failed-")]
        if failed_dirs:
            keep = Path(tempfile.mkdtemp(prefix="parlova-crash-failures-"))
            for failed in failed_dirs:
                shutil.move(str(failed), keep / failed.name)
            print(f"failed trials kept in {keep}", file=sys.stderr)

    passed = killed.passed + paired.passed + (disk is not None and not disk)
    failed = killed.failed + paired.failed + bool(disk)
    print(f"{passed} passed, {failed} failed")
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
