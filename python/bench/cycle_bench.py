"""The uncontended cycle (wait_for on a free resource, then release by the
holder) from Python, against the same cycle run in C++ by the same build of the
module. Prints one row of zuresource-bench's table.

    PYTHONPATH=build-release/python /usr/bin/python3 python/bench/cycle_bench.py

Like zuresource-bench, it counts the fastest of several repetitions in
processor time of the running thread, the repetitions of both cases
interleaved at random."""
import random
import time

import zuresource as zr

CYCLES, REPETITIONS = 200_000, 9
GOAL_NS = 1000  # the most that Python may add to one cycle

head, owner = zr.Resource("Head"), zr.Owner("bench", "Bench")


def from_python(cycles):
    wait_for, release = head.wait_for, head.release
    for _ in range(cycles):
        wait_for(owner)
        release(owner)


def in_cpp(cycles):
    zr._cycle_in_cpp(head, owner, cycles)


def main():
    best = {from_python: float("inf"), in_cpp: float("inf")}
    runs = [case for case in best for _ in range(REPETITIONS)]
    random.shuffle(runs)
    for case in runs:
        start = time.thread_time_ns()
        case(CYCLES)
        best[case] = min(best[case], (time.thread_time_ns() - start) / CYCLES)
    py, cpp = best[from_python], best[in_cpp]
    baseline = f"same cycle in C++ {cpp:.1f} ns, {py - cpp:+.0f} ns"
    holds = "yes" if py - cpp <= GOAL_NS else "no"
    print(f"{'cycle from Python':<36}{py:>13.1f} ns  {baseline:<46}{py / cpp:>6.2f}  {'+ <= 1 us':<11}{holds}")

if __name__ == "__main__":
    main()
