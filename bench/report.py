"""Runs the benchmarks on one core, puts each case beside its peer, and holds the ratios against the goals.

A ratio is our time, or memory, divided by the peer's; below its goal is better.  A time is the processor time
of the fastest of several runs that take turns, since whatever else the machine does only adds to it; the
spread tells by how much the median of our runs was slower."""

import argparse
import json
import os
import re
import statistics
import subprocess
import sys

# case, what is compared, the goal for ours / peer, the peer
GOALS = [
    ("download", "time", 1.25, "formatting the lines alone"),
    ("trace_line", "time", 1.0, "spdlog, line made"),
    ("trace_write", "time", None, "spdlog, line not made"),
    ("walk", "time", 1.0, "libmnl"),
    ("requests", "time", 1 / 1.5, "standard containers"),
    ("requests", "bytes", 0.7, "standard containers"),
    ("tree_insert_boost", "time", 1.0, "boost::intrusive::set"),
    ("tree_lookup_boost", "time", 1.0, "boost::intrusive::set"),
    ("tree_insert_map", "time", 1.0, "std::map"),
    ("tree_lookup_map", "time", 1.0, "std::map"),
    ("event_matched", "time", 1.2, "switch"),
    ("event_unmatched", "time", 1.2, "switch"),
    ("diagnose", "time", 1.25, "formatting the text once"),
    ("sockets", "time", 2.0, "raw datagrams, lines formatted"),
    ("sockets_bare", "time", None, "raw datagrams"),
]
GROWTH_GOAL = 3.0
UNITS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
# What callgrind counts: benchmark, records or items a run, the functions of the library that do the work.
COUNTED = [
    ("counted_download", "delivered record", ["ND_LIB_MsgProcess"]),
    ("counted_requests", "subscribed item", ["ND_LIB_Subscribe", "ND_LIB_MsgProcess"]),
]

parser = argparse.ArgumentParser()
parser.add_argument("programs")
parser.add_argument("plots")
parser.add_argument("--quick", action="store_true")
parser.add_argument("--json", action="store_true")
parser.add_argument("--instructions", action="store_true")
options = parser.parse_args()


def run(program, *arguments):
    print(f"running {program} {' '.join(arguments)}", file=sys.stderr)
    core = max(os.sched_getaffinity(0))
    command = ["taskset", "-c", str(core), f"{options.programs}/{program}", "--benchmark_format=json", *arguments]
    return json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout)


def measure():
    """Returns {(case, side, parameters): {"time": [...ns an item...], "bytes": [...]}}."""
    common = ["--benchmark_enable_random_interleaving=true"]
    if options.quick:
        common += ["--benchmark_repetitions=3", "--benchmark_min_time=0.01"]
        select = "--benchmark_filter=-counted|/10{5,}/|trace_write"
    else:
        common += ["--benchmark_repetitions=9", "--benchmark_min_time=0.1"]
        select = "--benchmark_filter=-counted|/10{5,}/"
    results = [run("pegeir-bench", select, *common)]
    if not options.quick:
        results.append(run("pegeir-bench", "--benchmark_filter=requests/.*/10{5,}/", "--benchmark_repetitions=3"))
    results.append(run("pegeir-bench-sockets", "--benchmark_repetitions=" + ("3" if options.quick else "9")))
    samples = {}
    for result in results:
        for row in result["benchmarks"]:
            if row["run_type"] != "iteration":
                continue
            if row.get("error_occurred"):
                sys.exit(f"error: {row['name']}: {row['error_message']}")
            name = re.sub(r"/(iterations:\d+|repeats:\d+|manual_time)", "", row["name"])
            case, side, *parameters = name.split("/")
            values = samples.setdefault((case, side, "/".join(parameters)), {"time": [], "bytes": []})
            time = row["real_time"] if case.startswith("sockets") else row["cpu_time"]
            values["time"].append(time * UNITS[row["time_unit"]])
            if "bytes" in row:
                values["bytes"].append(row["bytes"])
    return samples, results[0]["context"]


def table(samples):
    rows = []
    for case, what, goal, peer in GOALS:
        for (found, side, parameters), values in samples.items():
            if found != case or side != "ours" or not values[what]:
                continue
            if what == "bytes" and parameters.split("/")[0] != "10000":
                continue
            ours = min(values[what])
            theirs = min(samples[case, "peer", parameters][what])
            rows.append({"case": case, "parameters": parameters, "what": what, "peer": peer, "ours": ours,
                         "theirs": theirs, "ratio": ours / theirs, "goal": goal,
                         "spread": statistics.median(values[what]) / ours - 1})
    each = {int(parameters.split("/")[0]): min(values["time"]) / int(parameters.split("/")[0])
            for (case, side, parameters), values in samples.items()
            if case == "requests" and side == "ours" and "key:4/types:1/random:1" in parameters}
    most = max(each)
    rows.append({"case": "growth", "parameters": str(most), "what": "time", "peer": "an item of 1000",
                 "ours": each[most], "theirs": each[1000], "ratio": each[most] / each[1000],
                 "goal": GROWTH_GOAL, "spread": 0.0})
    return rows


def plot(samples):
    """Draws the time an item takes over the number of items."""
    data = []
    for side in ("ours", "peer"):
        points = sorted((int(p.split("/")[0]), min(v["time"]))
                        for (case, s, p), v in samples.items()
                        if case == "requests" and s == side and "key:4/types:1/random:1" in p)
        data.append("\n".join(f"{items} {time / items / 1000:.3f}" for items, time in points))
    script = f"""set terminal svg size 640,400 background rgb 'white'
set output '{options.plots}/requests.svg'
set logscale xy
set xlabel 'items pending at once'
set ylabel 'microseconds an item'
set yrange [0.5:50]
set key left top
set title 'Subscribe, send, acknowledge, delete'
$ours << EOD
{data[0]}
EOD
$peer << EOD
{data[1]}
EOD
plot $ours with linespoints title 'pegeir', $peer with linespoints title 'standard containers'
"""
    os.makedirs(options.plots, exist_ok=True)
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def count_instructions():
    for name, unit, functions in COUNTED:
        command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
                   *(f"--toggle-collect={function}" for function in functions),
                   f"{options.programs}/pegeir-bench", f"--benchmark_filter={name}", "--benchmark_format=json"]
        done = subprocess.run(command, check=True, capture_output=True, text=True)
        items = json.loads(done.stdout)["benchmarks"][0]["items"]
        total = int(re.search(r"Collected : (\d+)", done.stderr).group(1))
        print(f"{total / items:8.0f} instructions a {unit}")


def show(value, what, case):
    if what == "bytes":
        return f"{value:.0f} B"
    for unit, size in (("ms", 1e6), ("us", 1e3)):
        if value >= size:
            return f"{value / size:.2f} {unit}"
    return f"{value:.1f} ns"


if options.instructions:
    count_instructions()
    sys.exit(0)
samples, context = measure()
rows = table(samples)
if not options.quick:
    plot(samples)
judged = [row for row in rows if row["goal"] is not None]
met = [row for row in judged if row["ratio"] <= row["goal"]]
idle = {p: min(v["time"]) for (case, _, p), v in samples.items() if case == "idle"}
if options.json:
    print(json.dumps({"cases": rows, "idle_ns": idle, "met": len(met), "goals": len(judged),
                      "mhz": context["mhz_per_cpu"]}, indent=1))
else:
    print("| case | ours | peer | | ratio | goal | spread |\n|---|---:|---:|---|---:|---:|---:|")
    for row in rows:
        name = " ".join(filter(None, [row["case"], row["parameters"], "memory" if row["what"] == "bytes" else ""]))
        goal = "" if row["goal"] is None else f"{row['goal']:.2f}" + ("" if row in met else " **missed**")
        print(f"| {name} | {show(row['ours'], row['what'], row['case'])} | "
              f"{show(row['theirs'], row['what'], row['case'])} | {row['peer']} | {row['ratio']:.2f} | {goal} | "
              f"{100 * row['spread']:.0f} % |")
    for waiting, time in idle.items():
        print(f"\nA second in the ready state, nothing due, {waiting} waiting: {show(time, 'time', 'idle')}")
print(f"\n{len(met)} of {len(judged)} goals met", file=sys.stderr if options.json else sys.stdout)
sys.exit(1 if any(row["ratio"] > 2 * row["goal"] for row in judged) else 0)
