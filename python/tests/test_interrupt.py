"""Ctrl-C during a blocking call of the main thread: the wait is stopped as
the manager stops one, and KeyboardInterrupt is raised at once."""
import json
import signal
import subprocess
import sys

import pytest

SETUP = """if True:
    import json, signal, threading, time, zuresource as zr
    broker, done = zr.Broker(), threading.Event()
    head, arm, leg, stand = zr.Resource("Head"), zr.Resource("Arm"), zr.Resource("Leg"), zr.StateResource("Stand")
    broker.add_module("Other", lambda name: None)  # never lets go
    slow = broker.add_module("Slow", lambda name: done.wait(30))
    me, other = zr.Owner("me", "Me", broker), zr.Owner("other", "Other", broker)
    arm.wait_for(other)
    leg.wait_for(me)  # held before
    stand.set_state(True)
    stand.wait_for(other)

    def start_slow_call():  # Slow's handler runs until `done`
        x = zr.Resource("X")
        x.wait_for(zr.Owner("s", "Slow", broker))
        threading.Thread(target=x.wait_for, args=(zr.Owner("t", "T"), 0), daemon=True).start()
        while not slow.started_tasks:
            time.sleep(0.01)

    def handled(*args):  # a handler of SIGINT that does not raise
        print("handled", flush=True)
        threading.Timer(0.3, arm.release, args=(other,)).start()

    def tell_when(ready):  # the parent sends SIGINT once the main thread blocks
        while not ready():
            time.sleep(0.01)
        print("blocked", flush=True)
"""

REPORT = """
    try:
        threading.Thread(target=tell_when, args=(lambda: {ready},), daemon=True).start()
        {call}
        print("returned")
    except KeyboardInterrupt:
        done.set()
        print(json.dumps(dict(holders=[r.holder for r in (head, arm, leg)], state=stand.holders,
                              waits=[w["waiter"] for w in zr.waits() if w["waiter"] == "me"], stopped=me.stopped)))
"""

WAITING = "zr.waits()"
# The wait is gone, the owner is not stopped, and it keeps what it held before (Leg).
HELD = {"holders": ["emptyOwner", "other", "me"], "state": ["other"], "waits": [], "stopped": False}
ROWS = [
    ("wait_for", WAITING, "arm.wait_for(me)", HELD),
    ("wait_for with a time limit", WAITING, "arm.wait_for(me, timeout=600)", HELD),
    ("entering a with block", WAITING, "with zr.Group('Body', [head, arm]).acquired(me): pass", HELD),
    ("waiting for activation", WAITING, "stand.set_state(False); stand.wait_for(me)", HELD),
    ("wait_idle", "slow.started_tasks", "start_slow_call(); slow.wait_idle()", HELD),
    ("a handler that does not raise lets the wait go on", WAITING,
     "signal.signal(signal.SIGINT, handled); print(arm.wait_for(me, 600), arm.holder, me.stopped)",
     "handled\n[] me False\nreturned\n"),
]


@pytest.mark.parametrize("ready,call,expected", [r[1:] for r in ROWS], ids=[r[0] for r in ROWS])
def test_ctrl_c_in_a_blocking_call(ready, call, expected, child_env):
    script = SETUP + REPORT.format(ready=ready, call=call)
    child = subprocess.Popen([sys.executable, "-c", script], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             text=True, env=child_env)
    assert child.stdout.readline() == "blocked\n", child.stderr.read()
    child.send_signal(signal.SIGINT)
    # Without the fix, each call here waits for ten minutes or for ever.
    out, err = child.communicate(timeout=20)
    assert (child.returncode, err) == (0, "")
    assert (out if isinstance(expected, str) else json.loads(out)) == expected

