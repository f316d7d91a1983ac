"""What is measured of the agent each second, as a table and as a plot."""
import threading
import time
from dataclasses import dataclass, field

PERIOD = 1.0
INTERVALS = 10
POINTS = 300
SERIES = (("resident memory, KiB", "rss"), ("descriptors", "descriptors"), ("threads", "threads"))


@dataclass
class Sample:
    at: float  # seconds since the start
    rss: int
    anonymous: int
    descriptors: int
    threads: int
    counts: dict = field(default_factory=dict)
    allocated: int = 0  # KiB that it has from malloc; at rest alone


class Sampler(threading.Thread):
    """Measures until `stop`. `counts` gives what was done so far, by name."""

    def __init__(self, agent, counts):
        super().__init__(daemon=True)
        self.agent, self.counts = agent, counts
        self.begin, self.samples, self.ends = time.monotonic(), [], threading.Event()

    def elapsed(self):
        return time.monotonic() - self.begin

    def take(self):
        found = self.agent.measure()
        sample = Sample(self.elapsed(), found["VmRSS"], found["RssAnon"], found["descriptors"],
                        found["Threads"], dict(self.counts()))
        self.samples.append(sample)
        return sample

    def run(self):
        while not self.ends.wait(PERIOD):
            try:
                self.take()
            except (OSError, KeyError):
                return  # the agent has ended, which others judge

    def stop(self):
        self.ends.set()
        self.join()


def clock(seconds):
    return f"{int(seconds) // 60}:{int(seconds) % 60:02}"


def table(samples):
    """Rows of equal time: the highest values within, and what was done within."""
    names = list(samples[-1].counts)
    length = samples[-1].at / INTERVALS
    rows = [["until", "RSS KiB", "own KiB", "descriptors", "threads", *names]]
    before = dict.fromkeys(names, 0)
    for number in range(1, INTERVALS + 1):
        inside = [one for one in samples if min(int(one.at / length), INTERVALS - 1) == number - 1]
        if not inside:
            continue
        done = inside[-1].counts
        rows.append([clock(number * length)] + [str(max(getattr(one, name) for one in inside))
                                               for name in ("rss", "anonymous", "descriptors", "threads")]
                    + [str(done[name] - before[name]) for name in names])
        before = done
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    return "\n".join("  ".join(text.rjust(width) for text, width in zip(row, widths)) for row in rows) + "\n"


STYLE = """<style>
svg{--ink:#24292f;--line:#0b62c4;--grid:#d0d7de;--fault:#b35900;--rest:#8c959f}
@media (prefers-color-scheme:dark){svg{--ink:#e6edf3;--line:#6cb6ff;--grid:#3d444d;--fault:#f0a050;--rest:#768390}}
text{font:12px sans-serif;fill:var(--ink)}.line{fill:none;stroke:var(--line);stroke-width:1.5}
.grid{stroke:var(--grid)}.fault{stroke:var(--fault)}.rest{stroke:var(--rest);stroke-dasharray:4 3}
</style>"""
WIDTH, PANEL, GAP, LEFT, RIGHT, TOP = 760, 110, 34, 64, 16, 30


def bounds(values):
    """A range with round ends around the values; small changes stay small in it."""
    low, high = min(values), max(values)
    steps = (size * 10 ** power for power in range(9) for size in (1, 2, 5))
    step = next(step for step in steps if step * 4 >= high - low)
    low = max(0, low - low % step - step)
    return low, high - high % step + step


def panel(samples, title, name, top, length):
    values = [getattr(one, name) for one in samples]
    low, high = bounds(values)
    inner = WIDTH - LEFT - RIGHT

    def x(at):
        return LEFT + inner * at / length

    def y(number):
        return top + PANEL * (high - number) / (high - low)
    drawn = [f'<text x="{LEFT}" y="{top - 6}">{title}</text>']
    for number in (low, (low + high) // 2, high):
        drawn.append(f'<path class="grid" d="M{LEFT} {y(number):.1f}h{inner}"/>'
                     f'<text x="{LEFT - 6}" y="{y(number) + 4:.1f}" text-anchor="end">{number}</text>')
    every = max(1, -(-len(samples) // POINTS))
    # The highest of each group, so that no peak is left out.
    groups = [samples[i:i + every] for i in range(0, len(samples), every)]
    points = " ".join(f"{x(group[-1].at):.1f},{y(max(getattr(one, name) for one in group)):.1f}" for group in groups)
    drawn.append(f'<polyline class="line" points="{points}"/>')
    return drawn


def plot(samples, faults, warm):
    """An SVG; `faults` are seconds, `warm` is when the warm-up ended."""
    length = samples[-1].at
    height = TOP + len(SERIES) * (PANEL + GAP) + 24
    inner = WIDTH - LEFT - RIGHT
    drawn = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" role="img">', STYLE]
    for number, (title, name) in enumerate(SERIES):
        drawn += panel(samples, title, name, TOP + number * (PANEL + GAP), length)
    bottom = TOP + len(SERIES) * (PANEL + GAP) - GAP
    warm_x = LEFT + inner * warm / length
    drawn.append(f'<path class="rest" d="M{warm_x:.1f} {TOP}V{bottom}"/>'
                 f'<text x="{warm_x + 4:.1f}" y="{TOP + 12}">warm</text>')
    every = max(1, len(faults) // 400 + 1)
    ticks = "".join(f"M{LEFT + inner * at / length:.1f} {bottom + 4}v6" for at in faults[::every])
    drawn.append(f'<path class="fault" d="{ticks or "M0 0"}"/>')
    for part in range(5):
        at = length * part / 4
        x = LEFT + inner * part / 4
        drawn.append(f'<text x="{x:.0f}" y="{bottom + 26}" text-anchor="middle">{clock(at)}</text>')
    drawn.append(f'<text x="{LEFT - 6}" y="{bottom + 12}" text-anchor="end">faults</text></svg>')
    return "\n".join(drawn) + "\n"
