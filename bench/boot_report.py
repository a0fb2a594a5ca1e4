#!/usr/bin/env python3
"""Prints the figures of bench/boot_bench.sh from the virtual device's output.

usage: boot_report.py VM_OUTPUT

Reads the RESULT, LOG and TRACE lines of bench/boot_bench_guest.sh and
prints three tables: daemon against floor per scenario, the daemon's time
per phase, and the kernel calls of the traced run.
"""
import collections
import re
import statistics
import sys

TARGETS = {"64MiB": 1.15, "256MiB": 1.15, "10x16MiB": 1.25}
RSS_LIMIT_KIB = 10 * 1024

# The daemon's phases, in order. Their boundaries are lines of its own log
# (see phases_of): each such line ends a phase, which gets the time since the
# previous boundary. The trial and the real pass log the same texts; which
# pass is running decides the phase.
TRIAL, REAL = "trial", "real"
PHASES = [
    "process start",
    "scan: messages, state, configs",
    "selection, failed-boot count",
    "open, checks, loop attach + tuning (trial)",
    "AVB check (trial)",
    "verity create (trial)",
    "verity read (trial)",
    "trial teardown, pre-allocation",
    "loop attach + tuning (real)",
    "AVB check (real)",
    "verity create (real)",
    "verity read + ext4 mount (real)",
    "overlays",
    "judgement, state and message files",
    "exit",
]
PACKAGE_PHASES = PHASES[3:12]


def phases_of(lines, wall_ms):
    """Milliseconds per phase of one stamped daemon log."""
    spent = collections.Counter()
    last = 0.0
    stage = None  # None before the first package, else TRIAL or REAL
    seen_digest = False
    first = True

    def close(phase, at):
        nonlocal last
        spent[phase] += at - last
        last = at

    for at, text in lines:
        if first:
            close("process start", at)
            first = False
        elif "startSyncMendRepair" in text or "startASyncMendRepair" in text:
            close("scan: messages, state, configs", at)
        elif "startMount : " in text:
            close("selection, failed-boot count" if stage is None
                  else "verity read + ext4 mount (real)", at)
            stage = TRIAL
            seen_digest = False
        elif "CreateAndConfigureLoopDevice end" in text:
            close("open, checks, loop attach + tuning (trial)" if stage == TRIAL
                  else "loop attach + tuning (real)", at)
        elif "Rpk_File  root_digest" in text:
            close(f"AVB check ({stage})", at)
            seen_digest = True
        elif "ConfigureReadAhead end" in text and seen_digest:
            close(f"verity create ({stage})", at)
            seen_digest = False
        elif "First_mount  End" in text:
            close("verity read (trial)", at)
            stage = REAL
        elif "idle loopback devices" in text and stage == REAL:
            close("trial teardown, pre-allocation", at)
        elif "startOverlay : " in text:
            close("verity read + ext4 mount (real)", at)
        elif "isPackageOverlaySucces" in text and "overlays" not in spent:
            close("overlays", at)
    if lines:
        close("judgement, state and message files", lines[-1][0])
    close("exit", wall_ms)
    return spent


LOG_LINE = re.compile(r"^LOG (\S+) (\d+) +(\d+\.\d+) (.*)$")


def parse(path):
    results = collections.defaultdict(dict)  # (label, round) -> kind -> fields
    logs = collections.defaultdict(list)  # (label, round) -> [(ms, text)]
    trace = []
    order = []
    for raw in open(path, errors="replace"):
        line = raw.rstrip("\n")
        if line.startswith("RESULT "):
            fields = line.split()
            key = (fields[1], int(fields[2]))
            if fields[1] not in order:
                order.append(fields[1])
            results[key][fields[3]] = fields[4:]
        elif line.startswith("LOG "):
            match = LOG_LINE.match(line)
            if match:
                label, round_, ms, text = match.groups()
                logs[(label, int(round_))].append((float(ms), text))
        elif line.startswith("TRACE "):
            trace.append(line[6:])
    return order, results, logs, trace


def print_results(order, results):
    """Per scenario: both floors, then each daemon run against them."""
    kinds = ["daemon"] + (["baseline"] if any("baseline" in e for e in results.values()) else [])
    print()
    print(f"{'scenario':10}{'run':16}{'seconds: median (min-max)':>28}"
          f"{'/ floor':>23}{'/ direct floor':>23}  peak RSS")
    for label in order:
        entries = [results[key] for key in sorted(results) if key[0] == label]
        entries = [e for e in entries
                   if all(k in e for k in kinds + ["floor", "floor_direct"])]
        if not entries:
            print(f"{label:10}no complete round")
            continue
        floor = [float(e["floor"][0]) / 1000 for e in entries]
        direct = [float(e["floor_direct"][0]) / 1000 for e in entries]
        print(f"{label:10}{'floor (dd)':16}{spread(floor, '7.2f'):>28}")
        print(f"{'':10}{'floor (dd, dio)':16}{spread(direct, '7.2f'):>28}")
        for kind in kinds:
            wall = [float(e[kind][0]) / 1000 for e in entries]
            over = [w / f for w, f in zip(wall, floor)]
            over_direct = [w / f for w, f in zip(wall, direct)]
            peak = max(int(e[kind][1]) for e in entries) / 1024
            failed = sum(e[kind][2] != "0" for e in entries)
            target = TARGETS.get(label) if kind == "daemon" else None
            verdict = ""
            if target is not None:
                verdict = f" (target {target:.2f}: {'met' if median(over) <= target else 'MISSED'})"
            if kind == "daemon":
                verdict += " RSS " + ("ok" if peak * 1024 < RSS_LIMIT_KIB else "OVER 10 MiB")
            print(f"{'':10}{kind:16}{spread(wall, '7.2f'):>28}{spread(over, '5.3f'):>23}"
                  f"{spread(over_direct, '5.3f'):>23}  {peak:5.2f} MiB{verdict}"
                  + (f"  [{failed} runs failed]" if failed else ""))
    rounds = len(set(r for (_, r) in results))
    print(f"{rounds} rounds; each ratio is taken within one round; all runs from cold caches")


def median(values):
    return statistics.median(values)


def spread(values, fmt):
    return (f"{format(median(values), fmt)} ({format(min(values), fmt).strip()}-"
            f"{format(max(values), fmt).strip()})")


def print_phases(order, results, logs):
    per_label = {}
    for label in order:
        runs = [phases_of(lines, float(results[key]["daemon"][0]))
                for key, lines in logs.items()
                if key[0] == label and "daemon" in results.get(key, {})]
        if runs:
            per_label[label] = {p: median(run[p] for run in runs) for p in PHASES}
    if not per_label:
        return
    labels = list(per_label)
    print()
    print("daemon time per phase, ms (median over the rounds; the package rows per package)")
    print(f"{'phase':46}" + "".join(f"{label:>10}" for label in labels))
    for phase in PHASES:
        scale = (lambda l: packages(l)) if phase in PACKAGE_PHASES else (lambda l: 1)
        print(f"{phase:46}" + "".join(f"{per_label[l][phase] / scale(l):10.1f}" for l in labels))
    print(f"{'total':46}" + "".join(f"{sum(per_label[l].values()):10.1f}" for l in labels))
    reads = ("verity read (trial)", "verity read + ext4 mount (real)")
    print(f"{'all but the two reads, per package':46}" + "".join(
        f"{(sum(per_label[l].values()) - sum(per_label[l][p] for p in reads)) / packages(l):10.1f}"
        for l in labels))


def packages(label):
    match = re.match(r"(\d+)x", label)
    return int(match.group(1)) if match else 1


TRACE_LINE = re.compile(r"^\d+\s+(\d+\.\d+) (\w+)\((.*)\)\s+= .*<(\d+\.\d+)>$")
IOCTL_NAME = re.compile(r"^\d+, (\w+)")


def print_trace(trace):
    """Device and mount calls of the traced run that took 1 ms or more, summed by kind."""
    if not trace:
        return
    totals = collections.Counter()
    counts = collections.Counter()
    for line in trace:
        match = TRACE_LINE.match(line)
        if not match or float(match.group(4)) < 0.001:
            continue
        _, call, args, duration = match.groups()
        if call == "ioctl":
            name = IOCTL_NAME.match(args)
            kind = "ioctl " + (name.group(1) if name else "?")
        elif call == "mount":
            kind = "mount " + args.split(", ")[2].strip('"')
        elif call in ("read", "write"):
            kind = call
        else:
            continue
        totals[kind] += float(duration)
        counts[kind] += 1
    print()
    print("ioctl, mount, read and write calls of 1 ms or more in one traced run of the"
          " first scenario (tracing slows it)")
    for kind, seconds in totals.most_common():
        print(f"  {kind:40} {seconds * 1000:9.1f} ms in {counts[kind]:4} calls")


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    order, results, logs, trace = parse(sys.argv[1])
    if not results:
        sys.exit("boot_report: no results in " + sys.argv[1])
    print_results(order, results)
    print_phases(order, results, logs)
    print_trace(trace)


if __name__ == "__main__":
    main()
