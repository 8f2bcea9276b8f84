"""Objects that hold Python callables take part in the cycle collector."""
import gc
import os
import weakref

import pytest
import zuresource as zr


def threads():
    return len(os.listdir("/proc/self/task"))


class Behaviour:
    """Holds its broker, whose module's handler reaches back to it, and an
    observer whose callback does too."""

    def __init__(self, handler, seen):
        self.broker, self.calls = zr.Broker(), []
        self.observer = zr.Observer(lambda event: seen.append((event["kind"], len(self.calls))))
        self.module = self.broker.add_module("A", handler(self))
        self.owner = zr.Owner("a", "A", self.broker)

    def on_resource(self, name):
        self.calls.append(name)


HANDLERS = [
    ("bound method", lambda b: b.on_resource),
    ("closure", lambda b: lambda name: b.calls.append(name)),
    ("object with on_resource", lambda b: b),
]


@pytest.mark.parametrize("handler", [h[1] for h in HANDLERS], ids=[h[0] for h in HANDLERS])
def test_a_behaviour_holding_its_broker_is_freed_with_module_and_task_thread(handler):
    before, head, seen = threads(), zr.Resource("Head"), []
    behaviour = Behaviour(handler, seen)
    head.wait_for(behaviour.owner)
    with pytest.raises(zr.Error):
        head.wait_for(zr.Owner("b", "B"), timeout=0)
    behaviour.module.wait_idle()
    assert (behaviour.calls, threads()) == (["Head"], before + 1)
    head.release(behaviour.owner)
    freed = weakref.ref(behaviour)
    del behaviour
    gc.collect()
    assert (freed(), threads()) == (None, before)
    told = len(seen)
    zr.Resource("Leg").wait_for(zr.Owner("x", "X"))  # the observer is no longer called
    assert len(seen) == told > 0
