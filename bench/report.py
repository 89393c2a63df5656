"""Tables, charts and the page about performance, from the results of a run."""

import json
import statistics
import subprocess

import claims
from quiet import MOST_LOAD
from rows import BYTES, RATE, TRIP

NAMES = {"jactor": "jactor", "pipe": "the limit", "fifo": "the limit", "czmq": "CZMQ",
         "nng": "nng", "seqpacket": "SEQPACKET"}
COLUMNS = [("jactor", ["jactor"]), ("the limit", ["pipe", "fifo"]), ("CZMQ", ["czmq"]),
           ("nng", ["nng"]), ("SEQPACKET", ["seqpacket"])]


def figure(row, result, cpu_time=False):
    """The number that a row compares."""
    if row.kind == BYTES:
        return result["bytes_each"]
    if cpu_time:
        each = result["cpu_seconds"] / result["messages"]
        return 1 / each if row.kind == RATE else each * 1e6
    if row.kind == RATE:
        return result["rate"]
    return result["median_us"] if row.kind == TRIP else 1e6 / result["rate"]


def ratios(row, results, to, cpu_time=False):
    """The ratio of this library's figure to a system's or another row's, by repetition."""
    own = results[row.key]["jactor"]
    others = results[to]["jactor"] if to in results else results[row.key].get(to, [])
    return [figure(row, mine, cpu_time) / figure(row, other, cpu_time)
            for mine, other in zip(own, others)]


def number(value):
    if value >= 100:
        return f"{value:,.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def cell(row, runs, cpu_time):
    if not runs:
        return "-"
    value = statistics.median(figure(row, run, cpu_time) for run in runs)
    if row.kind == RATE:
        return f"{number(value / 1000)} k/s"
    if row.kind == BYTES:
        return f"{value / 1024:,.1f} KiB"
    if row.kind == TRIP and not cpu_time:
        p99 = statistics.median(run["p99_us"] for run in runs)
        return f"{number(value)} us ({number(p99)})"
    return f"{number(value)} us"


def runs_of(results, row, systems):
    return [run for system in systems for run in results[row.key].get(system, [])]


def figures_table(rows, results, cpu_time):
    lines = ["| Row | " + " | ".join(title for title, _ in COLUMNS) + " |",
             "|---" * (len(COLUMNS) + 1) + "|"]
    for row in rows:
        cells = [cell(row, runs_of(results, row, systems), cpu_time) for _, systems in COLUMNS]
        lines.append(f"| {row.title} | " + " | ".join(cells) + " |")
    return "\n".join(lines)


def aim_line(row, aim, results):
    values = ratios(row, results, aim.to)
    if not values:
        return None
    ratio = statistics.median(values)
    what = "rate" if row.kind == RATE else "time"
    # For pairs that run in parallel only the elapsed time means anything.
    processor = "-"
    to = "that of 1 pair"
    if aim.to in NAMES:
        to = NAMES[aim.to] + "'s"
        processor = f"{statistics.median(ratios(row, results, aim.to, cpu_time=True)):.2f}"
    met = ratio <= aim.limit if aim.at_most else ratio >= aim.limit
    return (f"| {row.title} | {what} to {to} | {'at most' if aim.at_most else 'at least'} "
            f"{aim.limit:.2f} | {ratio:.2f} | {min(values):.2f} to {max(values):.2f} | "
            f"{processor} | {'yes' if met else 'no'} |")


def aims_table(rows, results):
    lines = ["| Row | jactor's | Aim | Measured | Lowest to highest | By processor time | Met |",
             "|---|---|---|---|---|---|---|"]
    for row in rows:
        lines += filter(None, (aim_line(row, aim, results) for aim in row.aims))
    return "\n".join(lines)


def machine_text(machine):
    libraries = ", ".join(f"{name} {version}" for name, version in machine["libraries"].items())
    lines = [
        f"- Measured {machine['date']} at commit {machine['commit'] or 'unknown'}; "
        f"{machine['repetitions']} repetitions of {machine['seconds_of_a_run']} s a run.",
        f"- {machine['processors']} processors, {machine['processor']} (hypervisor: "
        f"{machine['hypervisor']}), Linux {machine['kernel']}; load before the run: "
        f"{machine['load_before']:.2f}.",
        f"- {machine['compiler']}, Release; {libraries}.",
    ]
    if machine["load_before"] > MOST_LOAD:
        lines.append("- **The machine was busy with other things: take these figures as rough.**")
    return "\n".join(lines)


def text(rows, results, machine, cpu_time):
    """The machine and the tables, in Markdown."""
    unit = ("processor time of all threads and processes" if cpu_time else
            "elapsed time; in brackets the 99th percentile")
    parts = [machine_text(machine)]
    one_cpu = [row for row in rows if row.one_cpu]
    more_cpus = [row for row in rows if not row.one_cpu]
    if one_cpu:
        parts += [f"### On one CPU ({unit})", figures_table(one_cpu, results, cpu_time)]
    if more_cpus:
        parts += [f"### On two or all CPUs ({unit})",
                  figures_table(more_cpus, results, cpu_time)]
    if any(row.aims for row in rows):
        parts += ["### Ratios and aims", aims_table(rows, results)]
    return "\n\n".join(parts) + "\n"


def write_json(path, rows, results, machine):
    content = {"machine": machine,
               "rows": [{"key": row.key, "title": row.title, "kind": row.kind,
                         "runs": results[row.key]} for row in rows]}
    path.write_text(json.dumps(content, indent=1) + "\n", encoding="utf-8")


# The charts: file, title, axis label, logarithmic or not, and the rows with their short
# names.
CHARTS = [
    ("throughput", "One-way messages on one CPU (higher is better)", "thousand messages a second",
     True,
     [("oneway-32", "32 B"), ("oneway-1k", "1 KiB"), ("frames-8", "8 x 64 B"),
      ("process-32", "processes,\\n32 B"), ("process-1k", "processes,\\n1 KiB"),
      ("four-into-one", "four into\\none, 32 B")]),
    ("latency", "Round trips on one CPU, median (lower is better)", "microseconds", True,
     [("echo-8", "actor, 8 B"), ("echo-1k", "actor, 1 KiB"), ("echo-64k", "actor, 64 KiB"),
      ("process-trip", "processes, 32 B")]),
    ("pairs", "Pairs of threads, 32 B, all CPUs (higher is better)",
     "thousand messages of 32 B a second, all together", False,
     [("pairs-1", "1 pair"), ("pairs-2", "2 pairs"),
      ("pairs-4", "4 pairs")]),
]
COLOURS = ["#0b62a4", "#9e9e9e", "#d9822b", "#5a9e4b", "#8e6bb0"]


def chart_value(row, runs):
    if not runs:
        return "NaN"
    value = statistics.median(figure(row, run) for run in runs)
    return f"{value / 1000 if row.kind == RATE else value:.3f}"


def chart_script(path, title, label, logarithmic, named_rows, results):
    columns = [column for column in COLUMNS
               if any(runs_of(results, row, column[1]) for row, _ in named_rows)]
    if logarithmic:
        label += ", logarithmic"
    lines = ["set terminal svg size 860,420 font 'sans-serif,13' background '#ffffff'",
             f"set output '{path}'", f'set title "{title}"', f'set ylabel "{label}"',
             "set style data histogram", "set style histogram clustered gap 1",
             "set style fill solid 0.9 border -1", "set boxwidth 0.9",
             "set grid ytics lc rgb '#dddddd'", "set key outside right top",
             "set logscale y" if logarithmic else "set yrange [0:*]",
             "set bmargin 4", "set xtics nomirror", "set datafile missing 'NaN'", "$data << END"]
    for row, name in named_rows:
        values = [chart_value(row, runs_of(results, row, systems)) for _, systems in columns]
        lines.append(f'"{name}" ' + " ".join(values))
    lines.append("END")
    plots = [f"$data using {index + 2}:xtic(1) title '{column[0]}' lc rgb "
             f"'{COLOURS[COLUMNS.index(column)]}'" for index, column in enumerate(columns)]
    lines.append("plot " + ", ".join(plots))
    return "\n".join(lines) + "\n"


def write_charts(folder, rows, results):
    """Writes the charts whose rows were all measured. Result: their names."""
    by_key = {row.key: row for row in rows}
    written = []
    for name, title, label, logarithmic, wanted in CHARTS:
        if not all(key in by_key for key, _ in wanted):
            continue
        named_rows = [(by_key[key], short) for key, short in wanted]
        script = chart_script(folder / f"{name}.svg", title, label, logarithmic, named_rows,
                              results)
        subprocess.run(["gnuplot"], input=script, text=True, check=True)
        written.append(name)
    return written


def refresh_docs(docs, rows, results, measured):
    """Writes the charts under `docs`, the tables into its page, and README's sentences."""
    charts = docs / "performance"
    charts.mkdir(parents=True, exist_ok=True)
    titles = {name: title for name, title, *_ in CHARTS}
    images = [f"![{titles[name]}](performance/{name}.svg)"
              for name in write_charts(charts, rows, results)]
    page = docs / "performance.md"
    before, _, after = claims.marked(page)
    parts = [measured.rstrip(), *images]
    page.write_text(before + claims.BEGIN + "\n\n" + "\n\n".join(parts) + "\n\n" + claims.END +
                    after, encoding="utf-8")
    claims.update(docs.parent)
