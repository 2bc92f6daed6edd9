#!/usr/bin/python3
"""Faults that no kill produces, against the real tool in a scratch home.

For each fault: two runs one after the other and two runs at once while the
fault stands, then the fault is put right and runs go on until every
transcript is done. Mail goes to a loopback server that records what it
gets. Afterwards no transcript may have been mailed or counted twice, none
lost, every archive must read with plistlib, and the runs under the fault
must have logged why they did nothing. Prints the table the README shows.

Usage: faultmatrix.py BUILD_DIR
"""
import os
import plistlib
import pwd
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from crashtest import ARCHIVED, ARCHIVES, CHATS, LIBRARY, SOURCE, Tool, prepare_template, transcripts_left  # noqa: E402

KEPT = ("Alice on 2005-03-08 at 10.15.ichat", "Dave on 2004-11-08 at 18.40.chat",
        "gina_pics on 2006-07-03 at 05.00.ichat")
SETTINGS = Path("Library/Preferences/com.hollowmere.parlova.plist")
LONG_NAME = "a" * 226 + " on 2005-03-08 at 10.15.ichat"  # 255 bytes: " #2" cannot be added
IS_ROOT = os.geteuid() == 0


class Server:
    """tests/support/smtp_server.py in a mode, for one row."""

    def __init__(self, folder: Path, mode: str, certificates: Path):
        folder.mkdir(parents=True)
        port_file = folder / "port"
        secured = ["--cert", str(certificates / "localhost.pem"), "--key", str(certificates / "localhost.key")]
        self.folder = folder / "mail"
        self.process = subprocess.Popen(
            ["/usr/bin/python3", str(SOURCE / "tests/support/smtp_server.py"), "--mode", mode, "--port-file",
             str(port_file), "--dir", str(self.folder), *(secured if mode != "accept" else [])],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        for _ in range(500):
            if port_file.exists():
                break
            time.sleep(0.01)
        self.port = port_file.read_text()

    def subjects(self) -> list:
        if not self.folder.exists():
            return []
        return [line.split(":", 1)[1].strip() for mail in self.folder.glob("*.eml")
                for line in mail.read_text(errors="replace").splitlines() if line.startswith("Subject:")]

    def stop(self) -> None:
        self.process.kill()
        self.process.wait()


class Racer(threading.Thread):
    """Connects to every loopback port a run listens on, as another process
    on the machine could, and notes whether it was ever answered."""

    def __init__(self):
        super().__init__(daemon=True)
        self.pids, self.stop, self.answered = set(), threading.Event(), 0

    def ports(self) -> set:
        inodes = set()
        for pid in list(self.pids):
            try:
                for fd in os.listdir(f"/proc/{pid}/fd"):
                    target = os.readlink(f"/proc/{pid}/fd/{fd}")
                    if target.startswith("socket:["):
                        inodes.add(target[8:-1])
            except OSError:
                pass
        found = set()
        for line in Path("/proc/net/tcp").read_text().splitlines()[1:]:
            fields = line.split()
            if fields[3] == "0A" and fields[1].startswith("0100007F:") and fields[9] in inodes:
                found.add(int(fields[1].split(":")[1], 16))
        return found

    def run(self) -> None:
        while not self.stop.is_set():
            for port in self.ports():
                try:
                    with socket.create_connection(("127.0.0.1", port), timeout=1) as stranger:
                        if stranger.recv(16):
                            self.answered += 1
                except OSError:
                    pass
            time.sleep(0.001)


def mount(options: list, folder: Path) -> None:
    folder.mkdir(parents=True, exist_ok=True)
    subprocess.run(["mount", *options, str(folder)], check=True)


def read_only(folder_of):
    """A folder that cannot be written: a read-only mount for root (whom
    permissions do not stop), the mode for anyone else."""
    def make(home: Path) -> None:
        folder = home / folder_of
        folder.mkdir(parents=True, exist_ok=True)
        if IS_ROOT:
            mount(["--bind", str(folder)], folder)
            subprocess.run(["mount", "-o", "remount,bind,ro", str(folder)], check=True)
        else:
            folder.chmod(0o555)

    def undo(home: Path) -> None:
        if IS_ROOT:
            subprocess.run(["umount", str(home / folder_of)], check=True)
        else:
            (home / folder_of).chmod(0o755)
    return make, undo


def full_processed_folder():
    def make(home: Path) -> None:
        mount(["-t", "tmpfs", "-o", "size=16k", "tmpfs"], home / ARCHIVED)
        subprocess.run(["sh", "-c", f"head -c 1M /dev/zero > '{home / ARCHIVED}/filler'"], check=False,
                       stderr=subprocess.DEVNULL)

    def undo(home: Path) -> None:
        kept = home.parent / (home.name + "-moved")
        shutil.copytree(home / ARCHIVED, kept, ignore=shutil.ignore_patterns("filler"))
        subprocess.run(["umount", str(home / ARCHIVED)], check=True)
        shutil.rmtree(home / ARCHIVED)
        kept.rename(home / ARCHIVED)
    return make, undo


def replaced(path: Path, make_it):
    def make(home: Path) -> None:
        target = home / path
        target.parent.mkdir(parents=True, exist_ok=True)
        saved = home.parent / (home.name + "-saved")
        if target.exists() and not target.is_symlink():
            shutil.move(str(target), str(saved))
        make_it(home, target)

    def undo(home: Path) -> None:
        target = home / path
        if target.is_dir() and not target.is_symlink():
            shutil.rmtree(target)
        elif target.exists() or target.is_symlink():
            target.unlink()
        saved = home.parent / (home.name + "-saved")
        if saved.exists():
            shutil.move(str(saved), str(target))
    return make, undo


def long_name():
    def make(home: Path) -> None:
        (home / CHATS / KEPT[0]).rename(home / CHATS / LONG_NAME)
        (home / ARCHIVED).mkdir(parents=True, exist_ok=True)
        (home / ARCHIVED / LONG_NAME).write_text("an earlier copy")

    def undo(home: Path) -> None:
        (home / ARCHIVED / LONG_NAME).unlink()
    return make, undo


def owned_by_root(relative: Path, mode: int):
    """The file at `relative` (made when missing) root's, the rest of the
    home nobody's, as a run through sudo leaves them."""
    def make(home: Path) -> None:
        (home / relative).parent.mkdir(parents=True, exist_ok=True)
        (home / relative).touch()
        subprocess.run(["chown", "-R", "nobody:nogroup", str(home)], check=True)
        os.chown(home / relative, 0, 0)
        (home / relative).chmod(mode)

    def undo(home: Path) -> None:
        subprocess.run(["chown", "nobody:nogroup", str(home / relative)], check=True)
    return make, undo


def nothing():
    return (lambda home: None), (lambda home: None)


def write(data: bytes):
    return lambda home, target: target.write_bytes(data)


# fault, (make, undo), what a run under it logs, server mode, needs root, runs as nobody; what a run under
# it logs may name {home}, {archived}, {chats} and {lock}, the paths in the row's home, and {owner}, this user.
NOT_MOVABLE = "] Nothing was sent or archived: cannot move transcripts into {archived}: "
LOCK = "] Could not lock {lock}: "
FAULTS = [
    ("processed folder read-only", read_only(ARCHIVED), NOT_MOVABLE, "accept", False, False),
    ("processed folder a dangling link",
     replaced(ARCHIVED, lambda home, target: target.symlink_to(home / "unmounted")),
     NOT_MOVABLE + "it is a link to {home}/unmounted, which is not there. The next run tries again.\n", "accept",
     False, False),
    ("processed folder a file", replaced(ARCHIVED, write(b"a file")),
     NOT_MOVABLE + "it is not a folder. The next run tries again.\n", "accept", False, False),
    ("processed folder full", full_processed_folder(), "No space left on device", "accept", True, False),
    ("processed folder full under catch-ups", full_processed_folder(), "No space left on device", "accept", True,
     False),
    ("transcript folder read-only", read_only(CHATS), "it cannot be moved out of {chats}: ", "accept", False, False),
    ("name at the length limit", long_name(),
     NOT_MOVABLE + "the name it would get there (258 bytes) is longer than the file system allows (255). The next "
     "run tries again.\n", "accept", False, False),
    ("lock owned by another user", owned_by_root(LIBRARY / ".parlova.lock", 0o644),
     LOCK + "Permission denied (a file owned by root, mode 0644); this run ends and changes nothing until the lock "
     "can be taken.\n", "accept", True, True),
    ("settings owned by another user", owned_by_root(SETTINGS, 0o600),
     "] The settings file {home}/" + str(SETTINGS) + " cannot be read: it is not yours to read (a file owned by "
     "root, mode 0600). This run ends and touches nothing", "accept", True, True),
    ("lock a folder", replaced(LIBRARY / ".parlova.lock", lambda home, target: target.mkdir(mode=0o755) or
                               target.chmod(0o755)),
     LOCK + "Is a directory (a folder owned by {owner}, mode 0755); this run ends and changes nothing until the "
     "lock can be taken.\n", "accept", False, False),
    ("~/Library/Parlova read-only", read_only(LIBRARY), "changes nothing until the lock can be taken", "accept",
     False, False),
    ("settings a folder", replaced(SETTINGS, lambda home, target: target.mkdir()), "it is a folder, not a file",
     "accept", False, False),
    ("settings truncated", replaced(SETTINGS, lambda home, target: target.write_bytes(
        (home.parent / (home.name + "-saved")).read_bytes()[:40])), "damaged or cut short", "accept", False, False),
    ("settings binary garbage", replaced(SETTINGS, write(bytes(range(256)) * 4)), "damaged or cut short", "accept",
     False, False),
    ("settings out of range", None,
     "] Mail is on, but the settings are not complete: emailPort 68061 is no port number (0 to 65535). Nothing is",
     "accept", False, False),
    ("server floods its greeting", nothing(), "did not greet as a mail server does", "flood", False, False),
    ("server trickles its greeting", nothing(), "did not answer within 2 seconds", "trickle", False, False),
    ("server drops the connection", nothing(), "The attempt to send email timed out", "drop", False, False),
    ("another process races the relay", nothing(), "", "tls", False, False),
]


def configure(tool: Tool, home: Path, server: Server, mode: str, certificates: Path) -> None:
    settings = [("sendEmails", "-bool", "YES"), ("emailServer", "-string", "localhost"),
                ("emailPort", "-int", server.port), ("emailAddress", "-string", "me@example.org"),
                ("emailOutgoing", "-string", "parlova@example.org"), ("emailSecurity", "-string", "none")]
    if mode != "accept":
        settings += [("emailSecurity", "-string", "tls" if mode == "tls" else "starttls"),
                     ("emailCAFile", "-string", str(certificates / "ca.pem")),
                     ("emailNeedsUsername", "-int", "1"), ("emailUsername", "-string", "parlova"),
                     ("emailPassword", "-string", "secret")]
    for setting in settings:
        tool.defaults(home, *setting)


def link_entries(home: Path) -> int:
    path = home / LIBRARY / "gatheredURLs.plist"
    return sum(len(speaker["urls"]) for speaker in plistlib.loads(path.read_bytes())) if path.exists() else 0


def chat_count(home: Path) -> int:
    return plistlib.loads((home / LIBRARY / "chatgeist.plist").read_bytes()).get("chatcount", 0)


def trial(build: Path, template: Path, root: Path, certificates: Path, reference_links: int, fault) -> tuple:
    name, change, reason, mode, needs_root, as_nobody = fault
    home = root / name.replace(" ", "-").replace("~/", "")
    shutil.copytree(template, home, symlinks=True)
    server = Server(root / (home.name + "-server"), mode, certificates)
    tool = Tool(build)
    configure(tool, home, server, mode, certificates)
    if change is None:  # written by something other than parlova-defaults, which refuses it
        good = (home / SETTINGS).read_bytes()
        settings = plistlib.loads(good)
        settings["emailPort"] = 68061
        change = (lambda h: (h / SETTINGS).write_bytes(plistlib.dumps(settings)),
                  lambda h: (h / SETTINGS).write_bytes(good))
    make, undo = change
    command = [str(build / "parlova")]
    # The runs under the fault are catch-ups, whose moves are made in groups.
    in_groups = name.endswith("under catch-ups")
    if as_nobody:
        # A copy of the tool and its modules, since the build folder may be
        # closed to that user.
        copies = root / "as-nobody"
        if not copies.exists():
            copies.mkdir()
            for part in ("parlova", "libparlova-mail.so", "libparlova-images.so"):
                shutil.copy(build / part, copies / part)
        command = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", str(copies / "parlova")]
    if in_groups:
        command.append("--catch-up")
    env = tool.env(home)
    env.update(PARLOVA_SMTP_TIMEOUT_SECONDS="2")
    racer = Racer()
    racer.start()
    logs, runs, earlier = [], 0, []

    def start():
        process = subprocess.Popen(command, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        racer.pids.add(process.pid)
        return process

    def finish(processes):
        nonlocal runs
        for process in processes:
            logs.append(process.communicate(timeout=120)[1].decode(errors="replace"))
            runs += 1

    problems = []
    reason = reason.format(home=home, archived=home / ARCHIVED, chats=home / CHATS,
                           lock=home / LIBRARY / ".parlova.lock",
                           owner=pwd.getpwuid(os.geteuid()).pw_name)
    try:
        make(home)
        finish([start()])
        finish([start()])
        finish([start(), start()])
        under_fault = "".join(logs)
        if reason not in under_fault:
            problems.append(f"no run said why ({reason!r}):\n{under_fault}")
        # A catch-up under a fault of the folder or the lock says the same and
        # sends nothing; the settings pane is told.
        command.append("--catch-up")
        finish([start()])
        command.remove("--catch-up")
        if reason.startswith(("] Nothing", "] Could not lock", "it cannot be moved out")) and reason not in logs[-1]:
            problems.append(f"the catch-up did not say why ({reason!r}):\n{logs[-1]}")
        report = plistlib.loads((home / SETTINGS).read_bytes()).get("reportThis", "") \
            if reason.startswith(("] Nothing", "] Unable", "] Mail is on")) else None
        if report is not None and f"] Nothing was sent or archived: {report}. The next run tries again.\n" not in under_fault \
                and f"] Unable to connect to mail server: {report}.\n" != reason \
                and f"] Mail is on, but the settings are not complete: {report.removeprefix('Mail settings: ')}. " \
                not in under_fault:
            problems.append(f"reportThis is {report!r}")
        if reason.startswith("] Nothing"):
            if "preparing email send" in under_fault + logs[-1]:
                problems.append("a transcript that cannot be moved was mailed")
        mailed_under_fault = len(server.subjects())
        undo(home)
        if mode in ("flood", "trickle", "drop"):  # put right: a server that works
            earlier.extend(server.subjects())
            server.stop()
            server = Server(root / (home.name + "-good-server"), "accept", certificates)
            configure(tool, home, server, "accept", certificates)
        for _ in range(3 * len(KEPT)):
            if not transcripts_left(home):
                break
            finish([start()])
    finally:
        racer.stop.set()
        racer.join()
        server.stop()

    subjects = earlier + server.subjects()
    if len(subjects) != len(set(subjects)):
        problems.append(f"mailed twice: {sorted(subjects)}")
    if mode == "accept" and len(subjects) != len(KEPT):
        problems.append(f"{len(subjects)} mails for {len(KEPT)} transcripts")
    if mode == "accept" and mailed_under_fault and not name.startswith("processed folder full"):
        problems.append(f"{mailed_under_fault} mails went out while the fault stood")
    if racer.answered:
        problems.append(f"another process was answered {racer.answered} times")
    moved_again = "; moving it now.\n" if in_groups else "again: it is archived, only its move failed.\n"
    if name.startswith("processed folder full") and moved_again not in "".join(logs):
        problems.append("a transcript whose move failed was not moved again as such")
    left = transcripts_left(home)
    times = {path.name: path.stat().st_mtime_ns for path in transcripts_left(template)}
    if any(times.get(path.name, path.stat().st_mtime_ns) != path.stat().st_mtime_ns
           for path in (home / ARCHIVED).iterdir()):
        problems.append("a moved transcript did not keep its time")
    archived = sorted(p.name for p in (home / ARCHIVED).iterdir() if p.suffix in (".chat", ".ichat"))
    if left or len(archived) != len(KEPT):
        problems.append(f"left: {left}, archived: {archived}")
    try:
        for archive in ARCHIVES:
            plistlib.loads((home / LIBRARY / archive).read_bytes())
        counted, links = chat_count(home), link_entries(home)
    except (OSError, plistlib.InvalidFileException, ValueError) as error:
        problems.append(f"an archive does not read: {error}")
        counted, links = "?", "?"
    if counted != len(KEPT):
        problems.append(f"chatcount {counted} for {len(KEPT)} transcripts")
    if links != reference_links:
        problems.append(f"{links} link entries, {reference_links} expected")
    for problem in problems:
        print(f"{name}: {problem}", file=sys.stderr)
    return (name, runs, f"{len(subjects)}/{len(KEPT)}", f"{counted}/{len(KEPT)}", f"{links}/{reference_links}",
            "ok" if not problems else "FAILED")


def main() -> int:
    build = Path(sys.argv[1]).resolve()
    root = Path(tempfile.mkdtemp(prefix="parlova-faults-"))
    root.chmod(0o755)  # the rows run as nobody pass through it
    try:
        certificates = root / "certificates"
        subprocess.run(["bash", str(SOURCE / "tests/support/make_certificates.sh"), str(certificates)], check=True)
        for file in certificates.iterdir():
            file.chmod(0o644)
        template = prepare_template(Tool(build), root)
        for transcript in transcripts_left(template):
            if transcript.name not in KEPT:
                transcript.unlink()
        reference = root / "reference"
        shutil.copytree(template, reference, symlinks=True)
        while transcripts_left(reference):
            Tool(build).run(reference)
        reference_links = link_entries(reference)
        rows = []
        for fault in FAULTS:
            if fault[4] and not IS_ROOT:
                rows.append((fault[0], 0, "-", "-", "-", "skipped (needs root)"))
                continue
            rows.append(trial(build, template, root, certificates, reference_links, fault))
    finally:
        for mounted in reversed(Path("/proc/mounts").read_text().splitlines()):
            if str(root) in mounted.split()[1]:
                subprocess.run(["umount", mounted.split()[1]], check=False)
        shutil.rmtree(root, ignore_errors=True)
    header = ("fault", "runs", "mails", "counts", "archive entries", "result")
    print("| " + " | ".join(header) + " |")
    print("|" + "---|" * len(header))
    for row in rows:
        print("| " + " | ".join(str(cell) for cell in row) + " |")
    return 0 if all(row[5] in ("ok", "skipped (needs root)") for row in rows) else 1


if __name__ == "__main__":
    sys.exit(main())
