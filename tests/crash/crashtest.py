#!/usr/bin/python3
"""Runs that die half-way, overlap, or meet a full disk lose nothing and count
nothing twice.

Kills the real parlova with SIGKILL at random instants over whole runs,
restarts it until every transcript is processed, and compares every archive,
page and folder with those of an uninterrupted run on the same input. Then
the same with catch-ups (`parlova --catch-up`) on a generated backlog,
against uninterrupted single runs. Then starts two runs at once on one home,
over and over, with the same check. Then kills runs that store mail into a
Maildir: every stored message whole, one per transcript. Then runs single
runs and catch-ups on a full file system, where the machine lets this
script mount one.

Usage: crashtest.py BUILD_DIR [--kills N] [--catch-up-kills N] [--pairs N] [--maildir-kills N] [--seed S]
"""
import argparse
import os
import plistlib
import random
import shutil
import signal
import sqlite3
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
MAILDIR = (("sendEmails", "-bool", "YES"), ("emailDelivery", "maildir"), ("emailAddress", "me@example.org"),
           ("emailOutgoing", "parlova@example.org"))


class Tool:
    def __init__(self, build: Path):
        self.build = build

    def env(self, home: Path) -> dict:
        env = dict(os.environ)
        env.update(HOME=str(home), PARLOVA_PAUSE_SECONDS="0", TZ="UTC", PARLOVA_OSASCRIPT="/bin/false")
        return env

    def start(self, home: Path, *args: str) -> subprocess.Popen:
        return subprocess.Popen([str(self.build / "parlova"), *args], env=self.env(home),
                                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)

    def run(self, home: Path, *args: str) -> subprocess.CompletedProcess:
        return subprocess.run([str(self.build / "parlova"), *args], env=self.env(home), capture_output=True,
                              check=False)

    def defaults(self, home: Path, *args: str) -> None:
        subprocess.run([str(self.build / "parlova-defaults"), "write", "com.hollowmere.parlova", *args],
                       env=self.env(home), check=True)


def transcripts_left(home: Path) -> list:
    return sorted(p for p in (home / CHATS).rglob("*") if p.suffix in (".chat", ".ichat"))


def prepare_template(tool: Tool, root: Path, backlog: int = 0) -> Path:
    """The samples, or a generated backlog of that many transcripts."""
    home = root / ("backlog-template" if backlog else "template")
    samples = ["--backlog", str(backlog), "11"] if backlog else []
    subprocess.run([str(tool.build / "parlova-samples"), *samples, str(home / CHATS)], check=True,
                   stdout=subprocess.DEVNULL)
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
    tool.defaults(home, "keepHistory", "-bool", "YES")
    return home


def history_rows(home: Path) -> bytes:
    """The chat history as its rows, sorted, with the home folder's path
    (which the transcripts' paths begin with) as "~": its file's bytes
    depend on the order of what was written and undone, its rows must not."""
    with sqlite3.connect(home / LIBRARY / "history.sqlite") as db:  # a kill's journal is rolled back here
        rows = [repr(sorted(row[1:] for row in db.execute("SELECT * FROM chats")))]
        rows.append(repr(sorted(db.execute("SELECT c.key, t.* FROM slots t JOIN chats c ON c.id = t.chat"))))
        rows.append(repr(sorted(db.execute("SELECT c.key, t.text, t.time, s.account, s.name FROM texts t "
                                           "JOIN chats c ON c.id = t.chat JOIN speakers s ON s.id = t.speaker"))))
    db.close()
    return "\n".join(rows).replace(str(home), "~").encode()


def snapshot(home: Path) -> dict:
    """Every file and folder the runs leave, by path, with its bytes (the
    history by its rows)."""
    state = {}
    history = home / LIBRARY / "history.sqlite"
    if history.exists():
        state[str(history.relative_to(home))] = history_rows(home)
    for base in (LIBRARY, ARCHIVED, CHATS):
        top = home / base
        for folder, folders, files in os.walk(top):
            relative = Path(folder).relative_to(home)
            for name in folders:
                state[str(relative / name) + "/"] = b""
            for name in files:
                if name in (".parlova.lock", "history.sqlite", "history.sqlite-wal", "history.sqlite-shm"):
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


def uninterrupted(tool: Tool, template: Path, root: Path, name: str = "reference"):
    home = root / name
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


def run_time(tool: Tool, template: Path, root: Path, *args: str) -> float:
    """How long a run with `args` takes on a copy of `template`."""
    home = root / "timing"
    shutil.copytree(template, home, symlinks=True)
    began = time.monotonic()
    tool.run(home, *args)
    spent = time.monotonic() - began
    shutil.rmtree(home)
    return spent


# Small batches, so that kills land before, during and after commits.
CATCH_UP = ("--quiet", "--commit-every", "7")


def placed_once(template: Path, home: Path) -> list:
    """Every transcript of the backlog is in exactly one of the two folders,
    and every archive reads as a property list."""
    problems = []
    expected = len(transcripts_left(template))
    archived = [p for p in (home / ARCHIVED).glob("*") if p.suffix in (".chat", ".ichat")] \
        if (home / ARCHIVED).exists() else []
    if len(transcripts_left(home)) + len(archived) != expected:
        problems.append(f"{len(transcripts_left(home))} waiting and {len(archived)} archived of {expected}")
    for name in ARCHIVES:
        if (home / LIBRARY / name).exists():
            try:
                plistlib.loads((home / LIBRARY / name).read_bytes())
            except plistlib.InvalidFileException:
                problems.append(f"{name} does not read")
    return problems


class Tally:
    def __init__(self, name: str):
        self.name, self.kills, self.pairs, self.runs, self.passed, self.failed = name, 0, 0, 0, 0, 0

    def report(self) -> str:
        return f"{self.name}: kills {self.kills}, runs {self.runs}, mismatches {self.failed}"


def trial(tool, template, reference, root, number, step, tally) -> None:
    home = root / f"trial-{number}"
    shutil.copytree(template, home, symlinks=True)
    for _ in range(MOST_RUNS):
        if transcripts_left(home):
            step(home, tally)
            continue
        # The run after the last one puts right what a kill after the last
        # move left (a catch-up's batch goes back into the folder); with
        # nothing to do it changes nothing.
        tool.run(home)
        if not transcripts_left(home):
            break
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


def killed(tool: Tool, longest: float, rng: random.Random, *args: str, template: Path = None):
    """A step that starts a run with `args` and kills it at a random instant;
    with a template, every transcript must then be in exactly one place."""
    streak = 0  # kills since a run last got to its end

    def step(home: Path, tally: Tally) -> None:
        nonlocal streak
        process = tool.start(home, *args)
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
            sys.exit(f"parlova {' '.join(args)} ended with {process.returncode}")
        problems = placed_once(template, home) if template else []
        if problems:
            sys.exit(f"after a killed run in {home}: " + "; ".join(problems))
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


def maildir_problems(home: Path, transcripts: int) -> list:
    """Every message in cur/ or new/ whole, exactly one per transcript."""
    import email
    import email.policy
    stored = [p for part in ("cur", "new") if (home / "Maildir/.Chats" / part).exists()
              for p in (home / "Maildir/.Chats" / part).iterdir()]
    problems = []
    for path in stored:
        message = email.message_from_bytes(path.read_bytes(), policy=email.policy.default)
        parts = [part for part in message.walk() if part.get_content_maintype() == "text"]
        if len(parts) != 2 or "</html>" not in parts[1].get_content():
            problems.append(f"a message not whole: {path.name}")
    if len(stored) != transcripts or len({path.name.split(":")[0] for path in stored}) != len(stored):
        problems.append(f"{len(stored)} messages for {transcripts} transcripts")
    return problems


def maildir_kills(tool: Tool, template: Path, root: Path, kills: int, longest: float, rng: random.Random,
                  *args: str) -> list:
    """Runs with `args` storing mail into a Maildir, killed at random
    instants, each home from the template run to its end: every message in
    cur/ or new/ is whole, and each transcript has exactly one. A catch-up
    ends in a run or two, so it takes many homes. The problems found."""
    name = "maildir-catch-up" if "--catch-up" in args else "maildir"
    tally, step = Tally(name), killed(tool, longest, rng, *args)
    problems, homes = [], 0
    while tally.kills < kills and not problems:
        homes += 1
        home = root / f"{name}-kills"
        shutil.rmtree(home, ignore_errors=True)
        shutil.copytree(template, home, symlinks=True)
        for setting in MAILDIR:
            tool.defaults(home, *setting)
        for _ in range(MOST_RUNS):
            if not transcripts_left(home):
                break
            if tally.kills < kills:
                step(home, tally)
            else:
                tool.run(home)
        problems = [] if not transcripts_left(home) else ["transcripts still waiting"]
        problems += maildir_problems(home, len(transcripts_left(template)))
    print(f"{name}: {tally.kills} kills in {homes} homes, {len(problems)} problems")
    for problem in problems:
        print(f"{name}: {problem}", file=sys.stderr)
    return problems


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


def full_disk_catch_up(tool: Tool, backlog_template: Path, backlog_reference: dict, root: Path):
    """A catch-up on a full file system stops with a clear line, changes no
    archive and loses no transcript; with room again the next catch-up ends
    where uninterrupted single runs end."""
    home = root / "full-disk-catch-up"
    library = home / LIBRARY
    if not can_mount(library):
        print("full disk, catch-up: skipped (needs root)")
        return None
    problems = []
    try:
        for leave, case in ((0, "catch-up, no room at all"), (8192, "catch-up, room for the journal only")):
            shutil.rmtree(home, ignore_errors=True)
            shutil.copytree(backlog_template, home, symlinks=True)
            shutil.move(str(library), str(root / "library-aside"))
            library.mkdir(parents=True)
            subprocess.run(["mount", "-t", "tmpfs", "-o", "size=2m", "tmpfs", str(library)], check=True)
            try:
                shutil.copytree(root / "library-aside", library, dirs_exist_ok=True, symlinks=True)
                before = {name: (library / name).read_bytes() for name in ARCHIVES if (library / name).exists()}
                waiting = len(transcripts_left(home))
                fill(library, leave)
                result = tool.run(home, "--catch-up", "--quiet")
                log = result.stderr.decode(errors="replace")
                summary = [line.split("] ", 1)[-1] for line in log.splitlines() if "Catch-up stopped" in line]
                print(f"full disk, {case}: " + "; ".join(summary))
                if result.returncode != 1:
                    problems.append(f"{case}: parlova ended with {result.returncode}")
                if not summary or "No space left on device" not in log:
                    problems.append(f"{case}: no line says the batch stopped and why:\n{log[-2000:]}")
                for name, bytes_before in before.items():
                    if (library / name).read_bytes() != bytes_before:
                        problems.append(f"{case}: {name} changed though the batch stopped")
                if leave == 0 and len(transcripts_left(home)) != waiting:
                    problems.append(f"{case}: a transcript left its place though nothing could be recorded")
                problems += [f"{case}: {p}" for p in placed_once(backlog_template, home)]
                (library / "filler").unlink()
                tool.run(home, "--catch-up", "--quiet")
                tool.run(home)
                if transcripts_left(home):
                    problems.append(f"{case}: transcripts still waiting once there was room again")
                problems += [f"{case}: {p}" for p in differences(backlog_reference, snapshot(home))]
            except (OSError, plistlib.InvalidFileException) as error:
                problems.append(f"{case}: {error}")
            finally:
                subprocess.run(["umount", str(library)], check=False)
                shutil.rmtree(root / "library-aside", ignore_errors=True)
    finally:
        shutil.rmtree(home, ignore_errors=True)
    for line in problems:
        print("full disk: " + line, file=sys.stderr)
    return problems


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=Path)
    parser.add_argument("--kills", type=int, default=200)
    parser.add_argument("--catch-up-kills", type=int, default=200)
    parser.add_argument("--pairs", type=int, default=60)
    parser.add_argument("--maildir-kills", type=int, default=100)
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

        single = Tally("killed")
        number = 0
        while single.kills < args.kills:
            number += 1
            trial(tool, template, reference, root, number, killed(tool, longest, rng), single)
        print(single.report())

        backlog = prepare_template(tool, root, backlog=40)
        backlog_reference, _ = uninterrupted(tool, backlog, root, "backlog-reference")
        catch_up_longest = run_time(tool, backlog, root, "--catch-up", *CATCH_UP)
        print(f"catch-up: {len(transcripts_left(backlog))} transcripts, {catch_up_longest * 1000:.0f} ms")
        caught = Tally("killed catch-up")
        while caught.kills < args.catch_up_kills:
            number += 1
            trial(tool, backlog, backlog_reference, root, number,
                  killed(tool, catch_up_longest, rng, "--catch-up", *CATCH_UP, template=backlog), caught)
        print(caught.report())

        paired = Tally("concurrent")
        while paired.pairs < args.pairs:
            number += 1
            trial(tool, template, reference, root, number, paired_run(tool), paired)
        print(f"concurrent: pairs {paired.pairs}, runs {paired.runs}, mismatches {paired.failed}")

        maildir = maildir_kills(tool, template, root, args.maildir_kills, longest, rng)
        # A catch-up names its messages in cur/ only at its group's flush.
        maildir += maildir_kills(tool, backlog, root, args.maildir_kills // 2, catch_up_longest, rng,
                                 "--catch-up", *CATCH_UP)
        disk = full_disk(tool, root / "reference", root)
        disk_catch_up = full_disk_catch_up(tool, backlog, backlog_reference, root)

        failed_dirs = [p for p in root.iterdir() if p.name.startswith("failed-")]
        if failed_dirs:
            keep = Path(tempfile.mkdtemp(prefix="parlova-crash-failures-"))
            for failed in failed_dirs:
                shutil.move(str(failed), keep / failed.name)
            print(f"failed trials kept in {keep}", file=sys.stderr)

    passed = single.passed + caught.passed + paired.passed + (disk is not None and not disk) + \
        (disk_catch_up is not None and not disk_catch_up) + (not maildir)
    failed = single.failed + caught.failed + paired.failed + bool(disk) + bool(disk_catch_up) + bool(maildir)
    print(f"{passed} passed, {failed} failed")
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
