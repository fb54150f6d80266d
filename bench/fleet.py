#!/usr/bin/env python3
"""A simulated fleet registering with one directory, for days, in minutes.

    bench/fleet.py [--build build] [--hosts 200] [--days 3] [--changing 0.1]
                   [--jobs 2] [--seed 1]

Each host has its own document (about 12 KB), symbol file and spool. Every
simulated day a share of the hosts (--changing) changes its document once, at
a random time of the day (a symbol's value). The real kivreg program runs at
the times its timer would start it, under faketime (libfaketime) for the
clock, against the local directory server (tools/kivreg_dirserver.py), in two
schedules:

  daily     today's units: OnCalendar=daily, RandomizedDelaySec=4h (a new
            delay each day), every run sends;
  hourly    OnCalendar=hourly, RandomizedDelaySec=59min with FixedRandomDelay
            (each host keeps its minute), --if-changed --resend-after 1d.

It prints, for each, the requests and bytes per host per day the directory
took over the simulated days, and the median and longest time from a change
to the directory's 200 for it. The runs go on after the last day until every
change has reached the directory; they are not counted in the load.
Needs faketime (Debian's faketime package) and python3.
"""

import argparse
import concurrent.futures
import itertools
import os
import random
import re
import signal
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SERVER = os.path.join(HERE, "..", "tools", "kivreg_dirserver.py")
FAKETIME = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1"
START = 1767571200  # Mon 2026-01-05 00:00:00 UTC
DAY = 86400
HOUR = 3600


def document(host):
    rows = "".join(
        '<instance inst_id="%s-disk-%d"><property name="Size" sourceformat="text">'
        "<value>%d GB</value></property><property name=\"Firmware\" sourceformat=\"text\">"
        "<value>${firmware}</value></property></instance>\n" % (host, i, 100 + i)
        for i in range(60))
    return ('<?xml version="1.0" encoding="UTF-8"?>\n'
            '<kivinfo supplier_name="fleet %s" supplier_version="1">\n'
            '<group name="Hardware" group_type="SPECIFIC"><class name="Disk">\n%s'
            "</class></group></kivinfo>\n" % (host, rows))


def timer(schedule, rng):
    """The start times of a host's runs from START on, as its timer makes them."""
    minute = rng.uniform(0, 59 * 60)
    for k in itertools.count():
        if schedule == "daily":
            yield START + k * DAY + rng.uniform(0, 4 * HOUR)
        else:
            yield START + k * HOUR + minute


class Directory:
    def __init__(self, store):
        self.store = store
        self.proc = subprocess.Popen(
            [sys.executable, SERVER, "--quiet", "--user", "fleet", "--password", "pw",
             "--store", store], stdout=subprocess.PIPE, text=True)
        line = self.proc.stdout.readline()
        match = re.search(r"listening on .*:(\d+)", line)
        if not match:
            self.stop()
            raise SystemExit("directory server did not start: %r" % line)
        self.port = match.group(1)

    def taken(self):
        names = [n for n in os.listdir(self.store) if n.endswith(".xml")]
        return len(names), sum(os.path.getsize(os.path.join(self.store, n)) for n in names)

    def stop(self):
        self.proc.send_signal(signal.SIGTERM)
        self.proc.wait(timeout=20)


def register(program, directory, hostdir, when, if_changed):
    env = dict(os.environ, TZ="UTC", LD_PRELOAD=FAKETIME, FAKETIME="@" + time.strftime(
        "%Y-%m-%d %H:%M:%S", time.gmtime(when)), FAKETIME_DONT_FAKE_MONOTONIC="1")
    for name in ("http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY"):
        env.pop(name, None)
    args = [program, "-file", os.path.join(hostdir, "doc.xml"),
            "-symbolfile", os.path.join(hostdir, "symbols"), "-user", "fleet", "-pass", "pw",
            "-host", "127.0.0.1", "-port", directory.port,
            "--spool", os.path.join(hostdir, "spool")]
    if if_changed:
        args += ["--if-changed", "--resend-after", "1d"]
    r = subprocess.run(args, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                       text=True)
    if r.returncode != 0:
        raise SystemExit("kivreg failed at %s:\n%s" % (when, r.stdout))
    return "HTTP response: Success" in r.stdout


class Host:
    def __init__(self, hostdir, schedule, rng, changes):
        self.dir = hostdir
        self.schedule = schedule
        self.times = timer(schedule, rng)
        self.next = next(self.times)
        self.changes = sorted(changes)
        self.version = 0
        self.pending = []  # times of changes the directory does not have yet
        self.delays = []   # from each change to its 200, in seconds
        os.makedirs(hostdir)
        with open(os.path.join(hostdir, "doc.xml"), "w") as out:
            out.write(document(os.path.basename(hostdir)))

    def run(self, program, directory, until):
        """Runs the timer's runs before `until`, or with until None, until
        the directory has every change."""
        while (self.next < until) if until else (self.pending or self.changes):
            when = self.next
            self.next = next(self.times)
            while self.changes and self.changes[0] <= when:
                self.pending.append(self.changes.pop(0))
                self.version += 1
            with open(os.path.join(self.dir, "symbols"), "w") as out:
                out.write("firmware=%d\n" % self.version)
            if register(program, directory, self.dir, when, self.schedule == "hourly"):
                self.delays += [when - c for c in self.pending]
                self.pending = []


def simulate(program, schedule, hosts, days, changing, jobs, seed, work):
    rng = random.Random(seed)
    changes = {h: [] for h in range(hosts)}
    for d in range(days):
        for h in rng.sample(range(hosts), round(hosts * changing)):
            changes[h].append(START + d * DAY + rng.uniform(0, DAY))
    fleet = [Host(os.path.join(work, schedule, "host-%03d" % h), schedule,
                  random.Random(seed * 100003 + h), changes[h]) for h in range(hosts)]
    directory = Directory(os.path.join(work, schedule, "store"))
    try:
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            # The load: the simulated days, every host.
            list(pool.map(lambda host: host.run(program, directory, START + days * DAY), fleet))
            requests, size = directory.taken()
            # Then on until the last changes have reached the directory.
            list(pool.map(lambda host: host.run(program, directory, None), fleet))
    finally:
        directory.stop()
    delays = sorted(d for host in fleet for d in host.delays)
    return {
        "requests": requests / hosts / days,
        "bytes": size / hosts / days,
        "changes": len(delays),
        "median": statistics.median(delays) / 60,
        "longest": delays[-1] / 60,
    }


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--build", default="build")
    p.add_argument("--hosts", type=int, default=200)
    p.add_argument("--days", type=int, default=3)
    p.add_argument("--changing", type=float, default=0.1)
    p.add_argument("--jobs", type=int, default=2)
    p.add_argument("--seed", type=int, default=1)
    a = p.parse_args()
    if not os.path.exists(FAKETIME):
        raise SystemExit("faketime is not installed (apt-get install faketime)")
    program = os.path.abspath(os.path.join(a.build, "kivreg"))
    print("%d hosts, %d days, %.0f%% of the hosts changing per day" %
          (a.hosts, a.days, a.changing * 100))
    print("%-38s %10s %14s %8s %14s %14s" % ("schedule", "requests", "bytes", "changes",
                                            "change to 200", ""))
    print("%-38s %10s %14s %8s %14s %14s" % ("", "/host/day", "/host/day", "", "median min",
                                            "longest min"))
    labels = {"daily": "daily (RandomizedDelaySec=4h)",
              "hourly": "hourly --if-changed --resend-after 1d"}
    with tempfile.TemporaryDirectory(prefix="kivreg-fleet.") as work:
        for schedule in ("daily", "hourly"):
            started = time.monotonic()
            r = simulate(program, schedule, a.hosts, a.days, a.changing, a.jobs, a.seed, work)
            print("%-38s %10.3f %14.0f %8d %14.1f %14.1f   (%.0f s)" % (
                labels[schedule], r["requests"], r["bytes"], r["changes"], r["median"],
                r["longest"], time.monotonic() - started), flush=True)


if __name__ == "__main__":
    main()
