#!/usr/bin/env python3
"""Runs the everyday workloads against four targets and writes a table.

Targets: a plain folder; libfuse's passthrough example (the ceiling for a
libfuse 2 file system on this machine); `skarvo mount local:`; and rclone's
mount with its full cache. Each workload runs `--runs` times on each target;
the table gives the median. For the write workloads it also gives the time
until the data is on the remote folder, not only until the writer returned.

Usage: bench/table.py --skarvo BIN --passthrough BIN --out DIR [--runs N]
       [--scale F] [--work DIR]
Needs root and /dev/fuse. Writes DIR/latest.md, DIR/latest.json and, when
gnuplot is present, DIR/latest.png. Measures; asserts nothing.
"""
import argparse
import json
import os
import platform
import random
import shutil
import signal
import statistics
import subprocess
import sys
import tarfile
import tempfile
import time

FILE_SIZE = 4096


def now():
    return time.monotonic()


def wait_until(predicate, seconds=600, step=0.05):
    deadline = now() + seconds
    while now() < deadline:
        if predicate():
            return True
        time.sleep(step)
    return False


def until_remote(start, predicate):
    """Seconds from `start` until the remote folder passes `predicate`; None
    when it has not after ten minutes."""
    return now() - start if wait_until(predicate) else None


def is_mounted(point):
    with open("/proc/mounts") as mounts:
        return any(line.split()[1] == point for line in mounts)


def peak_rss_mib(pid):
    """VmHWM of a live process, in MiB (0 when it is gone)."""
    try:
        with open(f"/proc/{pid}/status") as status:
            for line in status:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1]) / 1024.0
    except OSError:
        pass
    return 0.0


class Target:
    """One way of reaching the remote folder: mount(), unmount(), and
    on_remote(check) that waits until the remote folder passes `check`."""

    def __init__(self, name, work):
        self.name = name
        self.remote = os.path.join(work, name, "remote")
        self.point = os.path.join(work, name, "mnt")
        self.cache = os.path.join(work, name, "cache")
        self.proc = None
        self.peak_mib = 0.0

    def command(self):
        return None

    def mount(self):
        command = self.command()
        if command is None:
            return
        self.proc = subprocess.Popen(command, stdout=subprocess.DEVNULL,
                                     stderr=subprocess.DEVNULL)
        if not wait_until(lambda: is_mounted(self.point), 30):
            raise RuntimeError(f"{self.name} did not mount")

    def settle(self):
        """Waits until everything written is on the remote."""

    def unmount(self):
        if self.proc is None:
            return
        self.settle()
        self.peak_mib = max(self.peak_mib, peak_rss_mib(self.proc.pid))
        subprocess.run(["fusermount", "-u", self.point], check=False)
        try:
            self.proc.wait(timeout=300)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
        self.proc = None

    def path(self, *parts):
        base = self.remote if self.command() is None else self.point
        return os.path.join(base, *parts)


class Plain(Target):
    pass


class Passthrough(Target):
    def __init__(self, work, binary):
        super().__init__("passthrough", work)
        self.binary = binary

    def command(self):
        # The options that make it the ceiling for a libfuse 2 file system.
        return [self.binary, self.point, "-f", "-o",
                f"modules=subdir,subdir={self.remote},big_writes,"
                "max_write=131072,max_read=131072"]


class Skarvo(Target):
    def __init__(self, work, binary):
        super().__init__("skarvo", work)
        self.binary = binary

    def command(self):
        return [self.binary, "mount", "--cache-dir", self.cache,
                "local:" + self.remote, self.point]

    def settle(self):
        if self.proc is None:
            return

        def done():
            out = subprocess.run([self.binary, "status", self.point],
                                 capture_output=True, text=True).stdout
            return "everything is on the remote" in out
        wait_until(done)

    def unmount(self):
        if self.proc is None:
            return
        self.settle()
        self.peak_mib = max(self.peak_mib, peak_rss_mib(self.proc.pid))
        self.proc.send_signal(signal.SIGINT)
        self.proc.wait(timeout=300)
        self.proc = None


class Rclone(Target):
    def __init__(self, work):
        super().__init__("rclone", work)

    def command(self):
        return ["rclone", "mount", self.remote, self.point,
                "--vfs-cache-mode", "full", "--cache-dir", self.cache]


def count_complete(folder, size):
    try:
        return sum(1 for entry in os.scandir(folder)
                   if entry.is_file() and entry.stat().st_size == size)
    except OSError:
        return 0


def timed(action):
    start = now()
    action()
    return now() - start


def create_files(target, results, count):
    folder = target.path("small")
    os.makedirs(folder)
    data = os.urandom(FILE_SIZE)

    def create():
        for index in range(count):
            with open(os.path.join(folder, f"f{index:05}"), "wb") as out:
                out.write(data)
    start = now()
    create()
    written = now() - start
    remote = os.path.join(target.remote, "small")
    results["create"] = count / written
    results["create_remote"] = until_remote(
        start, lambda: count_complete(remote, FILE_SIZE) == count)

    def delete():
        for index in range(count):
            os.unlink(os.path.join(folder, f"f{index:05}"))
    results["delete"] = count / timed(delete)
    os.rmdir(folder)


def synced_creates(folder, results, count):
    """What a sync at close costs on this file system, measured on the plain
    folder: the create workload with an fdatasync of each file before its
    close, and with the three syncs that make a new file safe in a cache
    (its data, its name in the folder, and an appended index record)."""
    data = os.urandom(FILE_SIZE)
    record = os.urandom(2 * FILE_SIZE)
    for key, syncs in (("create_1sync", 1), ("create_3syncs", 3)):
        files = os.path.join(folder, key)
        os.makedirs(files)
        folder_fd = os.open(files, os.O_RDONLY | os.O_DIRECTORY)
        log = os.open(os.path.join(folder, key + ".log"), os.O_WRONLY | os.O_CREAT | os.O_APPEND)

        def create():
            for index in range(count):
                out = os.open(os.path.join(files, f"f{index:05}"), os.O_WRONLY | os.O_CREAT)
                os.write(out, data)
                os.fdatasync(out)
                if syncs == 3:
                    os.fsync(folder_fd)
                    os.write(log, record)
                    os.fdatasync(log)
                os.close(out)
        try:
            results[key] = count / timed(create)
        finally:
            os.close(folder_fd)
            os.close(log)
        shutil.rmtree(files)


def tarball(target, results, archive, entries):
    folder = target.path("tree")
    os.makedirs(folder)
    start = now()
    subprocess.run(["tar", "-xf", archive, "-C", folder], check=True)
    results["untar"] = now() - start
    remote = os.path.join(target.remote, "tree")
    results["untar_remote"] = until_remote(
        start, lambda: sum(len(d) + len(f) for _, d, f in os.walk(remote)) >= entries)
    results["rm_rf"] = timed(lambda: subprocess.run(["rm", "-rf", folder], check=True))


def listing(target, results, count):
    """Needs the listing folder made on the remote before the mount."""
    folder = target.path("listing")
    ls = ["ls", "-lR", folder]
    subprocess.run(ls, stdout=subprocess.DEVNULL, check=True)
    results["ls_again"] = timed(lambda: subprocess.run(ls, stdout=subprocess.DEVNULL, check=True))
    target.unmount()
    target.mount()
    results["ls_remount"] = timed(lambda: subprocess.run(ls, stdout=subprocess.DEVNULL, check=True))
    time.sleep(2)
    names = [os.path.join(folder, f"d{index // 100:03}", f"e{index % 100:02}")
             for index in range(0, count, 2)]
    results["stat"] = len(names) / timed(lambda: [os.stat(name) for name in names])


def read_all(path):
    with open(path, "rb", buffering=0) as source:
        while source.read(1 << 20):
            pass


def big_file(target, results, size_mib, rest):
    path = target.path("big.bin")
    # This machine's virtual disk takes about 1 GiB at full speed, then
    # slows to about 120 MB/s until it has rested: after 30 s idle one dd ran
    # at 468 MB/s, right after another at 129. Each target's dd starts with
    # everything before it on the disk, the page cache emptied and the disk
    # equally rested. Without emptying the cache, what the earlier workloads
    # left in it decided the figure: alternating the passthrough and skarvo
    # on fresh images, the passthrough ran at 222-292 MiB/s and skarvo at
    # 234-730; with it, at 658-669 and 617-769.
    os.sync()
    with open("/proc/sys/vm/drop_caches", "w") as caches:
        caches.write("3")
    time.sleep(rest)
    start = now()
    subprocess.run(["dd", "if=/dev/zero", f"of={path}", "bs=1M", f"count={size_mib}",
                    "conv=fsync", "status=none"], check=True)
    results["dd_fsync"] = size_mib / (now() - start)
    remote = os.path.join(target.remote, "big.bin")
    results["dd_remote"] = until_remote(
        start, lambda: os.path.exists(remote) and os.path.getsize(remote) == size_mib << 20)
    target.unmount()
    target.mount()
    results["read_remount"] = size_mib / timed(lambda: read_all(path))
    results["read_again"] = size_mib / timed(lambda: read_all(path))
    target.unmount()
    target.mount()
    generator = random.Random(7)
    blocks = (size_mib << 20) // 4096
    reads = 20000

    def random_reads():
        descriptor = os.open(path, os.O_RDONLY)
        try:
            for _ in range(reads):
                os.pread(descriptor, 4096, generator.randrange(blocks) * 4096)
        finally:
            os.close(descriptor)
    results["random_iops"] = reads / timed(random_reads)
    os.unlink(path)


def prepare_listing(remote, count):
    for index in range(count):
        folder = os.path.join(remote, "listing", f"d{index // 100:03}")
        os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, f"e{index % 100:02}"), "wb") as out:
            out.write(b"x")


class FreshFileSystem:
    """A new, empty ext4 file system (mkfs.ext4's defaults: Debian's, with
    a journal) in an image file on the work folder's disk, mounted on
    `folder` for the life of the `with`.

    Each target's run gets one, so that every target starts from the same
    state. On the folder itself the figures depended on what ran before:
    this machine's root is ext4 without a journal, which, when it allocates
    an inode, passes over those freed in the last minute or so and pays a
    lookup for each (with a journal it does not). After another target's
    cleanup that made the passthrough create 1,279 files/s in one run and
    5,063 in the next."""

    def __init__(self, folder, gib):
        self.folder = folder
        self.image = folder.rstrip("/") + ".img"
        self.gib = gib

    def __enter__(self):
        os.makedirs(self.folder, exist_ok=True)
        with open(self.image, "wb") as image:
            image.truncate(self.gib << 30)
        # Inode tables and journal are written now, not by a kernel thread
        # in the background while the workloads run.
        subprocess.run(["mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0",
                        self.image], check=True)
        subprocess.run(["mount", "-o", "loop", self.image, self.folder], check=True)
        return self

    def __exit__(self, *exc):
        subprocess.run(["umount", self.folder], check=False)
        os.unlink(self.image)
        return False


def run_target(target, args, archive, entries):
    results = {}
    # Room for the 1 GiB file on the remote and in a cache, and the rest.
    gib = max(1, int(6 * args.scale + 0.999))
    with FreshFileSystem(os.path.dirname(target.remote), gib):
        for folder in (target.remote, target.cache, target.point):
            os.makedirs(folder)
        prepare_listing(target.remote, int(10000 * args.scale))
        target.mount()
        try:
            create_files(target, results, int(5000 * args.scale))
            if target.command() is None:
                synced_creates(target.path(), results, int(5000 * args.scale))
            tarball(target, results, archive, entries)
            listing(target, results, int(10000 * args.scale))
            big_file(target, results, int(1024 * args.scale), 30 * min(1.0, args.scale))
        finally:
            target.unmount()
    # A plain folder has no daemon.
    results["peak_mib"] = target.peak_mib if target.command() is not None else None
    return results


class FilesAndFolders:
    """A tar filter: the volume stores files and folders, not links, and
    its names are case-insensitive, so of names that differ only in case
    the first is kept."""

    def __init__(self):
        self.seen = set()

    def __call__(self, member):
        folded = member.name.lower()
        if not (member.isfile() or member.isdir()) or folded in self.seen:
            return None
        self.seen.add(folded)
        return member


def make_archive(work):
    """A tarball of the system's C and C++ headers: thousands of small
    source files in a deep tree, like a source release."""
    archive = os.path.join(work, "source.tar")
    entries = 0
    keep = FilesAndFolders()
    with tarfile.open(archive, "w") as tar:
        for top in ("/usr/include/c++", "/usr/include/linux", "/usr/include/x86_64-linux-gnu"):
            if os.path.isdir(top):
                tar.add(top, arcname=os.path.basename(top), filter=keep)
    with tarfile.open(archive) as tar:
        entries = len(tar.getmembers())
    return archive, entries


# (key, label, unit, higher is better)
WORKLOADS = [
    ("create", "create {n_small:,} files of 4 KiB", "files/s", True),
    ("create_remote", "  ... until all are on the remote", "s", False),
    ("delete", "delete them", "files/s", True),
    ("untar", "extract a {entries:,}-entry source tarball", "s", False),
    ("untar_remote", "  ... until all is on the remote", "s", False),
    ("rm_rf", "`rm -rf` of it", "s", False),
    ("ls_again", "`ls -lR` of {n_list:,} entries, second time", "s", False),
    ("ls_remount", "`ls -lR` after a remount", "s", False),
    ("stat", "`stat` of {n_stat:,} files 2 s after listing", "files/s", True),
    ("read_remount", "read {big} MiB after a remount, cached", "MiB/s", True),
    ("random_iops", "random 4 KiB reads after a remount", "IOPS", True),
    ("read_again", "read {big} MiB, second time", "MiB/s", True),
    ("dd_fsync", "`dd` {big} MiB with `conv=fsync`", "MiB/s", True),
    ("dd_remote", "  ... until it is on the remote", "s", False),
    ("peak_mib", "peak resident memory of the daemon", "MiB", False),
]
TARGETS = ["plain", "passthrough", "skarvo", "rclone"]


def ratio(key, higher, mine, other):
    """How many times better skarvo does than `other` (above 1 is better)."""
    if not mine or not other:
        return None
    return mine / other if higher else other / mine


def median(values):
    known = [value for value in values if value is not None]
    return statistics.median(known) if known else None


def fmt(value):
    if value is None:
        return "–"
    if value >= 1000:
        return f"{value:,.0f}"
    if value >= 10:
        return f"{value:.1f}"
    return f"{value:.3f}"


def sync_floor(medians, names):
    """The paragraph on what a sync at close costs, from the plain target's
    synced creates; empty when the plain folder did not run."""
    plain = medians.get("plain", {})
    one, three = plain.get("create_1sync"), plain.get("create_3syncs")
    if one is None or three is None:
        return []
    passthrough = medians.get("passthrough", {}).get("create")
    skarvo = medians.get("skarvo", {}).get("create")
    share = f" ({fmt(one / passthrough)} of the passthrough's create)" if passthrough else ""
    mine = (f" skarvo records each file in its index at close, which is enough to survive its "
            f"own crash, makes those three syncs in the release that follows, which close(2) "
            f"does not wait for, and creates {fmt(skarvo)} files/s." if skarvo else "")
    return ["", f"What a sync before each close would cost here: on the plain folder, creating "
            f"the {names['n_small']:,} files with an fdatasync of each before its close runs at "
            f"{fmt(one)} files/s{share}; adding an fsync of the folder and an fdatasync of "
            f"an appended index record, {fmt(three)} files/s.{mine} Where the targets are "
            f"missed, and why: [shortfalls.md](shortfalls.md)."]


def write_table(out, medians, args, entries):
    names = {"n_small": int(5000 * args.scale), "entries": entries,
             "n_list": int(10000 * args.scale), "n_stat": int(5000 * args.scale),
             "big": int(1024 * args.scale)}
    lines = [
        "# skarvo against a plain folder, the libfuse passthrough and rclone",
        "",
        f"Run {time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime())} on {platform.node()}: "
        f"{os.cpu_count()} cores, {os.sysconf('SC_PAGE_SIZE') * os.sysconf('SC_PHYS_PAGES') >> 30} GiB, "
        f"{platform.platform()}; median of {args.runs} runs; work folder on "
        f"{subprocess.run(['findmnt', '-no', 'FSTYPE', '-T', args.work], capture_output=True, text=True).stdout.strip()}.",
        "Ratios are how many times better skarvo does (above 1: skarvo is better).",
        "",
        "| workload | unit | plain | passthrough | skarvo | rclone full | skarvo ÷ passthrough | skarvo ÷ rclone |",
        "|---|---|---|---|---|---|---|---|",
    ]
    chart = []
    for key, label, unit, higher in WORKLOADS:
        row = [medians.get(t, {}).get(key) for t in TARGETS]
        vs_pass = ratio(key, higher, row[2], row[1])
        vs_rclone = ratio(key, higher, row[2], row[3])
        text = label.format(**names)
        lines.append(f"| {text} | {unit} | " + " | ".join(fmt(v) for v in row) +
                     f" | {fmt(vs_pass)} | {fmt(vs_rclone)} |")
        if not text.startswith(" "):
            chart.append((key, vs_pass or 0, vs_rclone or 0))
    lines += sync_floor(medians, names)
    with open(os.path.join(out, "latest.md"), "w") as md:
        md.write("\n".join(lines) + "\n\n![ratios](latest.png)\n")
    with open(os.path.join(out, "latest.json"), "w") as raw:
        json.dump({"runs": args.runs, "scale": args.scale, "medians": medians}, raw, indent=1)
    plot(out, chart)


def plot(out, chart):
    if shutil.which("gnuplot") is None:
        print("gnuplot is missing: no chart", file=sys.stderr)
        return
    data = os.path.join(out, ".ratios.dat")
    with open(data, "w") as dat:
        for key, vs_pass, vs_rclone in chart:
            dat.write(f"{key} {vs_pass:.3f} {vs_rclone:.3f}\n")
    script = f"""
set terminal pngcairo size 1100,500 noenhanced
set output '{os.path.join(out, "latest.png")}'
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.8
set yrange [0:*]
set ylabel 'how many times better skarvo does'
set xtics rotate by -30
set arrow from graph 0, first 1 to graph 1, first 1 nohead dt 2
plot '{data}' using 2:xtic(1) title 'skarvo ÷ passthrough', '' using 3 title 'skarvo ÷ rclone'
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=False)
    os.unlink(data)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--skarvo", required=True)
    parser.add_argument("--passthrough", required=True)
    parser.add_argument("--out", required=True)
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--scale", type=float, default=1.0)
    parser.add_argument("--work", default="/var/tmp")
    parser.add_argument("--targets", default=",".join(TARGETS),
                        help="which of them to run, comma-separated (the table needs all)")
    args = parser.parse_args()
    work = tempfile.mkdtemp(prefix="skarvo-bench-", dir=args.work)
    try:
        archive, entries = make_archive(work)
        targets = [Plain("plain", work), Passthrough(work, args.passthrough),
                   Skarvo(work, args.skarvo), Rclone(work)]
        targets = [t for t in targets if t.name in args.targets.split(",")]
        runs = {t.name: [] for t in targets}
        for run in range(args.runs):
            for target in targets:
                print(f"run {run + 1}/{args.runs}: {target.name}", flush=True)
                runs[target.name].append(run_target(target, args, archive, entries))
        medians = {name: {key: median([r[key] for r in results]) for key in results[0]}
                   for name, results in runs.items()}
        os.makedirs(args.out, exist_ok=True)
        write_table(args.out, medians, args, entries)
    finally:
        for name in TARGETS:
            for point in (os.path.join(work, name, "mnt"), os.path.join(work, name)):
                if is_mounted(point):
                    subprocess.run(["umount", "-l", point], check=False)
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
