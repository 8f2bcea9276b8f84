"""The interpreter exits cleanly while daemon threads are inside the module."""
import subprocess
import sys

import pytest

# Each loop runs in four daemon threads, after its setup; the main thread leaves while they run.
# Most of each loop runs in the library with the GIL let go.
LOOPS = {
    "acquire/release": ("", "zr._cycle_in_cpp(mine, owner, 5000); head.wait_for(owner, 5); head.release(owner)"),
    "http_get": ("", "mine.http_get(100000)"),
    "observer": ("observer = zr.Observer(lambda event: event['kind'])", "zr._cycle_in_cpp(mine, owner, 100)"),
    # The holder's handler is told at exit, and the waits go on polling.
    "wait behind a holder": ("head.wait_for(zr.Owner('holder', 'Holder', broker))", "head.wait_for(owner, 30)"),
}

SCRIPT = """if True:
    import sys, threading, time, zuresource as zr
    broker, head = zr.Broker(), zr.Resource("Head")
    broker.add_module("Holder", lambda name: time.sleep(0.05))
    broker.add_module("M", lambda name: None)
    {setup}
    started = threading.Barrier(5)
    def loop(owner):
        mine = zr.Resource(owner.name)
        started.wait()
        while True:
            {loop}
    for i in range(4):
        threading.Thread(target=loop, args=(zr.Owner(f"o{{i}}", "M", broker),), daemon=True).start()
    started.wait()
    time.sleep(0.05)
"""


@pytest.mark.parametrize("name", LOOPS)
def test_exit_while_daemon_threads_call_in(name, child_env):
    script = SCRIPT.format(setup=LOOPS[name][0], loop=LOOPS[name][1])
    # The abort came at the first of eight tries, usually: several at once.
    runs = [subprocess.Popen([sys.executable, "-c", script], stderr=subprocess.PIPE, text=True, env=child_env)
            for _ in range(6)]
    results = [(run.wait(timeout=60), run.stderr.read()) for run in runs]
    assert results == [(0, "")] * len(runs)
