#!/usr/bin/python3
"""The closed loop of tuning a head, run against the simulator: trace the job, analyze it, apply the suggested
settings (the files of oltb analyze --settings-out and --jump-table-out, which oltb-sim reads back), trace again. For each head and badly tuned start of the matrix below, every round prints what the
simulator's model says of the applied settings (oltb-sim --explain: the truth, not the analysis' own view) and the
loop stops once the settings hold:
  - every jump of the job settles before the next motion begins,
  - no jump waits more than a quarter longer than it needs (the longest settle time of the jumps up to its
    length, as a delay by length must cover them, plus one 10 us output period),
  - the laser switches where the mirror moves at 1/D of the mark speed (D = --max-edge-dose), or off where it
    reaches the end point: the edges of the median mark take D times the dose, within 10 %.

Usage: scripts/tune_loop.py [--rounds N] [--only NAME,NAME] [--address 127.0.13.40] [--build build/release]
Prints one line per round and a last line "converged N of M"; exits 1 when a case did not converge in --rounds.
"""
import argparse
import json
import os
import subprocess
import sys
import tempfile

SIGNALS = "Head0TxX,Head0TxY,Head0RxX,Head0RxY,Gate,LaserPower16,Label"
JOBS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools", "oltb-sim", "jobs")

# Heads (what the simulator models) and the card's settings to start from: far too short and too long laser
# delays, jump delays too short, damping 0.3 to 1.2, acceleration-limited heads, a driver filter, short marks.
CASES = [
    ("default head, laser far too early", [], ["--laser-on-delay-us", "0", "--laser-off-delay-us", "0"]),
    ("default head, laser far too late", [], ["--laser-on-delay-us", "900", "--laser-off-delay-us", "1200",
                                              "--mark-delay-us", "1200"]),
    ("jump delay too short", [], ["--jump-delay-us", "300"]),
    ("no jump delay", [], ["--jump-delay-us", "0"]),
    ("ringing, damping 0.3", ["--damping", "0.3"], []),
    ("damping 0.5, short jump delay", ["--damping", "0.5"], ["--jump-delay-us", "300"]),
    ("overdamped 1.2", ["--damping", "1.2"], ["--jump-delay-us", "600"]),
    ("acceleration-limited", ["--max-acceleration", "10000"], []),
    ("stiff, fast jumps", ["--tracking-error-us", "120", "--damping", "1.1"],
     ["--mark-speed", "12000", "--jump-speed", "60000", "--jump-delay-us", "600"]),
    ("driver filter", ["--driver-filter-us", "80"], ["--jump-delay-us", "500"]),
    ("slow head, corners", ["--tracking-error-us", "500", "--damping", "0.7"],
     ["--job", os.path.join(JOBS, "corner.job")]),
    ("many short marks", ["--damping", "0.8"], ["--job", os.path.join(JOBS, "dashes.job"), "--jump-delay-us", "200",
                                               "--laser-on-delay-us", "50", "--laser-off-delay-us", "500"]),
]

def run(*command, **kwargs):
    return subprocess.run(command, capture_output=True, text=True, timeout=120, check=True, **kwargs).stdout


def trace(build, address, options, directory, round_):
    """One run of the job acquired between labels 1 and 2 and analysed: the suggested settings go to the files that
    the simulator reads back (oltb analyze --settings-out, --jump-table-out)."""
    simulator = subprocess.Popen([f"{build}/tools/oltb-sim/oltb-sim", "--address", address, "--max-rate", *options],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        if "listening" not in simulator.stdout.readline():
            raise RuntimeError(simulator.stderr.read())
        capture = os.path.join(directory, f"round{round_}.csv")
        run(f"{build}/tools/oltb/oltb", "acquire", address, "--start", "1", "--end", "2", "--signals", SIGNALS,
            "-o", capture, "--quiet")
    finally:
        simulator.terminate()
        simulator.wait(timeout=10)
    settings = os.path.join(directory, f"settings{round_}.json")
    table = os.path.join(directory, f"jump-table{round_}.txt")
    run(f"{build}/tools/oltb/oltb", "analyze", capture, "--settings-out", settings, "--jump-table-out", table)
    return ["--settings", settings, "--jump-table", table]


def holds(truth, dose):
    """What the model says of the applied settings: (jumps settled, longest over-wait share, worst laser miss us)."""
    inside = [j for j in truth["jumps"] if j["window_us"] is not None]
    settled = all(j["settled"] for j in inside)
    # A delay by length cannot give a jump less than a shorter one needs, and it waits whole 10 us periods: a
    # quarter is counted over the most that the jumps up to its length need, plus one period.
    over = 0.0
    for jump in inside:
        need = max(j["settle_us"] for j in inside if j["length"] <= jump["length"] + 1)
        over = max(over, (jump["window_us"] - need) / (need + 10))
    # The laser edges on the part: the mirror's speed when the gate opens should be 1/D of the mark speed (the
    # edge takes D times the dose), and when it closes the same, or the mirror be at the end point. One delay
    # serves every mark and the marks differ a little (a mirror that settled within the band may still ring within
    # it), so the median mark counts. `laser` is how far off it is, in shares of the dose limit.
    def median(values):
        values = sorted(values)
        return values[len(values) // 2] if values else 0.0
    marks = [m for m in truth["marks"] if m["best_laser_on_delay_us"] is not None]
    start = median([abs(m["speed_at_on"] * dose - 1) for m in marks])
    end = median([0.0 if abs(m["end_missing"]) <= 5 else abs(m["speed_at_off"] * dose - 1) for m in marks])
    laser = max(start, end)
    return settled, over, laser


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=2)
    parser.add_argument("--only", default="")
    parser.add_argument("--address", default="127.0.13.40")
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--dose", type=float, default=2.0)
    parser.add_argument("--verbose", action="store_true", help="print the settings applied each round")
    arguments = parser.parse_args()
    converged = 0
    cases = [c for c in CASES if any(part in c[0] for part in arguments.only.split(","))]
    for name, head, card in cases:
        with tempfile.TemporaryDirectory() as directory:
            options = head + card
            for round_ in range(arguments.rounds + 1):
                truth = json.loads(run(f"{arguments.build}/tools/oltb-sim/oltb-sim", *options, "--explain",
                                       "--max-edge-dose", str(arguments.dose)))
                settled, over, laser = holds(truth, arguments.dose)
                good = settled and over <= 0.25 and laser <= 0.1
                print(f"{name:38s} round {round_}: jumps settled {'yes' if settled else 'NO '}, longest wait "
                      f"{over * 100:+5.0f} % over, edge dose {laser * 100:5.0f} % off the limit  {'holds' if good else ''}")
                if good:
                    converged += 1
                    break
                if round_ == arguments.rounds:
                    break
                options = head + card + trace(arguments.build, arguments.address, options, directory, round_)
                if arguments.verbose:
                    for path in options[-3], options[-1]:
                        print("    " + open(path).read().replace("\n", "\n    ").rstrip())
    print(f"converged {converged} of {len(cases)} within {arguments.rounds} rounds")
    return 0 if converged == len(cases) else 1


if __name__ == "__main__":
    sys.exit(main())
