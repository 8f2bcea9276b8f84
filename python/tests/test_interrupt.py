"""Ctrl-C during a blocking call of the main thread: the wait is stopped as
the manager stops one, and KeyboardInterrupt is raised at once."""
import json
import signal
import subprocess
import sys

import pytest

SETUP = """if True:
    import json, threading, time, zuresource as zr
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
# What the owner held before (Leg) it may lose only where a failed group wait
# gives every member back.
HELD = {"holders": ["emptyOwner", "other", "leg"], "state": ["other"], "waits": [], "stopped": False}
ROWS = [
    ("wait_for", WAITING, "arm.wait_for(me)", HELD),
    ("wait_for with a time limit", WAITING, "arm.wait_for(me, timeout=600)", HELD),
    ("entering a with block", WAITING, "with zr.Group('Body', [head, arm]).acquired(me): pass", HELD),
    ("waiting for activation", WAITING, "stand.set_state(False); stand.wait_for(me)", HELD),
    ("wait_idle", "slow.started_tasks", "start_slow_call(); slow.wait_idle()", HELD),
]
for row in ROWS:
    row[3]["holders"][2] = "me"


@pytest.mark.parametrize("ready,call,expected", [r[1:] for r in ROWS], ids=[r[0] for r in ROWS])
def test_ctrl_c_stops_the_wait(ready, call, expected, child_env):
    script = SETUP + REPORT.format(ready=ready, call=call)
    child = subprocess.Popen([sys.executable, "-c", script], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             text=True, env=child_env)
    assert child.stdout.readline() == "blocked\n", child.stderr.read()
    child.send_signal(signal.SIGINT)
    # Without the fix, each call here waits for ten minutes or for ever.
    out, err = child.communicate(timeout=20)
    assert (child.returncode, err) == (0, "")
    assert json.loads(out) == expected


def test_a_handler_that_does_not_raise_lets_the_wait_go_on(child_env):
    script = SETUP + """
    def handled(*args):
        print("handled", flush=True)
        threading.Timer(0.3, arm.release, args=(other,)).start()
    signal.signal(signal.SIGINT, handled)
    threading.Thread(target=tell_when, args=(zr.waits,), daemon=True).start()
    print(arm.wait_for(me, 600), arm.holder, me.stopped)
    """
    child = subprocess.Popen([sys.executable, "-c", script.replace("import json,", "import json, signal,")],
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=child_env)
    assert child.stdout.readline() == "blocked\n", child.stderr.read()
    child.send_signal(signal.SIGINT)
    assert child.communicate(timeout=20) == ("handled\n[] me False\n", "")
