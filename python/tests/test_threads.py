"""Waits, notifications and lifetimes across Python threads and the broker's task threads."""
import concurrent.futures
import gc
import subprocess
import sys
import threading
import time
import types

import pytest
import zuresource as zr


def until(condition, seconds=5):
    deadline = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < deadline, "timed out"
        time.sleep(0.01)


# fn(*args) in a thread of its own, which ends with the call: a future of its result.
def in_thread(fn, *args):
    pool = concurrent.futures.ThreadPoolExecutor(1)
    future = pool.submit(fn, *args)
    pool.shutdown(wait=False)
    return future


def test_a_wait_lets_python_run_and_ends_at_its_limit():
    broker, head = zr.Broker(), zr.Resource("Head")
    broker.add_module("A", lambda name: None)
    head.wait_for(zr.Owner("a", "A", broker))
    started = time.monotonic()
    wait = in_thread(head.wait_for, zr.Owner("b", "B", broker), 1)
    # The registry lists a wait only while it runs: seeing it, this thread ran meanwhile.
    until(lambda: [(x["waiter"], x["holder"], x["resource"]) for x in zr.waits()] == [("b", "a", "Head")])
    assert wait.exception(timeout=10).description == zr.WAIT_TIMED_OUT_PREFIX + "Head"
    assert 1.0 <= time.monotonic() - started < 3


def test_a_handler_that_raises_is_reported_and_the_module_goes_on(monkeypatch):
    broker, head = zr.Broker(), zr.Resource("Head")
    a, calls, unraisable = zr.Owner("a", "A", broker), [], []
    monkeypatch.setattr(sys, "unraisablehook", lambda u: unraisable.append((u.exc_type, str(u.exc_value))))

    def handler(name):
        calls.append(name)
        if len(calls) == 1:
            module.wait_idle()  # would wait for itself: RuntimeError
        head.release(a)
    module = broker.add_module("A", handler)
    head.wait_for(a)
    with pytest.raises(zr.Error):
        head.wait_for(zr.Owner("b", "B", broker), timeout=0)
    module.wait_idle()
    assert head.wait_for(zr.Owner("c", "C", broker), timeout=5) == [] and head.holder == "c"
    assert calls == ["Head", "Head"]
    assert unraisable == [(RuntimeError, "cannot wait for module 'A' to be idle from its own handler")]


def drop_holder(w):
    del w.a
    gc.collect()
    w.head.release(zr.Owner("a", "A"))  # an owner of the same name lets go


def drop_module_while_its_call_runs(w):
    w.slow.wait()
    w.broker.remove_module("A")
    del w.module  # mostly the last handle: waits for the running call, which needs the GIL
    w.head.release(w.a)


def drop_broker(w):
    del w.broker, w.module
    gc.collect()
    w.head.release(w.a)


@pytest.mark.parametrize("drop", [drop_holder, drop_module_while_its_call_runs, drop_broker])
def test_dropping_the_last_python_reference_while_others_wait(drop):
    w = types.SimpleNamespace(broker=zr.Broker(), head=zr.Resource("Head"), slow=threading.Event())
    w.a = zr.Owner("a", "A", w.broker)

    def slow(name):
        w.slow.set()
        time.sleep(0.3)
    w.module = w.broker.add_module("A", slow)
    w.head.wait_for(w.a)
    wait = in_thread(w.head.wait_for, zr.Owner("b", "B", w.broker), 5)
    until(zr.waits)
    drop(w)
    assert wait.result(timeout=10) == [] and w.head.holder == "b"


def test_exit_while_a_handler_runs(child_env):
    script = """if True:
        import time, zuresource as zr
        broker, head = zr.Broker(), zr.Resource("Head")
        broker.add_module("A", lambda name: (time.sleep(0.3), print("done", name, flush=True)))
        head.wait_for(zr.Owner("a", "A", broker))
        try:
            head.wait_for(zr.Owner("b", "B", broker), timeout=0)
        except zr.Error:
            pass
    """
    run = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=60, env=child_env)
    assert (run.returncode, run.stdout) == (0, "done Head\n"), run.stderr


def test_an_observer_sees_the_handover_from_both_threads_until_closed():
    broker, head = zr.Broker(), zr.Resource("Head")
    t, s, seen = zr.Owner("t", "T", broker), zr.Owner("s", "S", broker), []
    broker.add_module("T", lambda name: head.release(t))
    main = threading.get_ident()

    def observe(e):  # may call back into the library
        seen.append((e["kind"], e["owner"], e["holder"], threading.get_ident() == main,
                     head.http_get() if e["kind"] == "granted" else None))
    with zr.Observer(observe):
        head.wait_for(t)
        head.wait_for(s, timeout=5)
    head.release(s)
    # The tracker's module may release before the waiter reports the notification.
    assert sorted(seen, key=str) == sorted([
        ("requested", "t", "", True, None), ("granted", "t", "", True, "---Head -> T eStrong null 0<br />"),
        ("requested", "s", "", True, None), ("waiting", "s", "t", True, None),
        ("notified", "s", "t", True, None), ("released", "t", "", False, None),
        ("granted", "s", "", True, "---Head -> S eStrong null 0<br />")], key=str)
