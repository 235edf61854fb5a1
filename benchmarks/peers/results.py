"""Reads the measurements that compare.py wrote, and makes tables of their medians."""
import csv
import statistics
from collections import defaultdict

CASES = ["ring", "half", "steep", "front", "creep", "steady", "walk", "derivatives", "memory"]


class Measured:
    """Repetitions of one measurement: counts, and seconds (or bytes, or levels)."""

    def __init__(self):
        self.counts, self.seconds = [], []
        self.steps = 1  # that a count and its seconds are the sum of

    def per_count(self):
        return [s / max(c, 1) for s, c in zip(self.seconds, self.counts)]

    @property
    def count(self):
        return statistics.median(self.counts)

    @property
    def total(self):
        return statistics.median(self.seconds)

    @property
    def median(self):
        return statistics.median(self.per_count())

    @property
    def range(self):
        return min(self.per_count()), max(self.per_count())


def read_results(path):
    """{(case, about): {(side, what): Measured}}, in the order of CASES and sizes."""
    results = defaultdict(lambda: defaultdict(Measured))
    with open(path) as file:
        lines = (line for line in file if not line.startswith("#"))
        for row in csv.DictReader(lines):
            case = "memory" if row["case"].startswith("memory") else row["case"]
            one = results[case, int(row["about"])][row["side"], row["what"]]
            one.counts.append(int(row["count"]))
            one.seconds.append(float(row["seconds"]))
    for measured in results.values():
        if ("both", "steps") in measured:
            steps = measured["both", "steps"].count
            for one in measured.values():
                one.steps = steps
    return dict(sorted(results.items(), key=lambda item: (CASES.index(item[0][0]), item[0][1])))


def machine_of(path):
    """What the results were measured on and with."""
    with open(path) as file:
        return file.readline().lstrip("# ").strip()


def peer_of(case, measured, what=""):
    """What a measurement of ours is compared with."""
    if case == "derivatives":
        return measured.get(("eigen", "lu"))
    if case == "memory":
        return measured.get(("p4est", what))
    return measured.get(("p4est", "all"))


NOT_A_TIME = {"steps", "too coarse", "finest", "updates", "rounds", "inserted and removed"}


def rows_of(results):
    """(case, about, side, what, Measured, ratio to the peer or None) of every time or memory."""
    for (case, about), measured in results.items():
        for (side, what), one in measured.items():
            if what in NOT_A_TIME:
                continue
            peer = peer_of(case, measured, what) if side == "ours" else None
            yield case, about, side, what, one, one.median / peer.median if peer else None


def text_table(results):
    lines = [f"{'case':12}{'about':>9}  {'side':6}{'what':36}{'nodes/cells':>12}{'seconds':>10}"
             f"{'ns each':>9}  {'range':15}{'ours/theirs':>12}{'at equal hmin':>14}"]
    last = None
    for case, about, side, what, one, ratio in rows_of(results):
        if last not in (None, (case, about)):
            lines.append("")
        last = case, about
        if case == "memory":
            seconds, scale, unit = f"{one.total / 2**20:.1f} MiB", 1.0, " B"
        else:
            seconds, scale, unit = f"{one.total:.4f}", 1e9, ""
        low, high = one.range
        spread = f"{low * scale:.0f} to {high * scale:.0f}" if len(one.counts) > 1 else ""
        line = (f"{case:12}{about:>9}  {side:6}{what:36}{one.count / one.steps:>12.0f}{seconds:>10}"
                f"{one.median * scale:>9.1f}{unit}  {spread:15}")
        if ratio is not None:
            peer = peer_of(case, results[case, about], what)
            line += f"{ratio:>12.2f}{one.total / peer.total:>14.2f}"
        lines.append(line)
    for (case, about), measured in results.items():
        left = measured.get(("ours", "too coarse"))
        updates = measured.get(("ours", "updates"))
        finest = measured.get(("both", "finest"))
        churn = measured.get(("ours", "inserted and removed"))
        notes = []
        if finest:
            notes.append(f"finest spacing {finest.total:g}")
        if updates:
            notes.append(f"{updates.count:.0f} updates of ours")
        rounds = measured.get(("p4est", "rounds"))
        if rounds:
            notes.append(f"{rounds.count:.0f} rounds of p4est's refining and balancing")
        if left:
            notes.append(f"{left.count:.0f} nodes stay coarser than wanted, "
                         f"by {left.total:.2f} levels at most")
        if churn:
            notes.append(f"{churn.count:.0f} nodes inserted and removed again")
        if notes:
            lines.append(f"{case} {about}: " + ", ".join(notes))
    return "\n".join(lines)
