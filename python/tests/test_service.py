"""The Python client of the resource service, against a real zuresourced."""
import os
import queue
import signal
import subprocess
import tempfile

import pytest

import zuresource as zr

ZURESOURCED = os.environ.get("ZURESOURCED", "")
pytestmark = pytest.mark.skipif(not ZURESOURCED, reason="ZURESOURCED names no service program")


@pytest.fixture
def service():
    """A zuresourced on a socket of its own; yields its address."""
    with tempfile.TemporaryDirectory() as folder:
        target = f"unix:{folder}/zuresource.sock"
        process = subprocess.Popen([ZURESOURCED, "--listen", target],
                                   stdout=subprocess.PIPE, text=True)
        assert process.stdout.readline().startswith("zuresourced: listening")
        yield target, process
        process.send_signal(signal.SIGTERM)
        process.wait(timeout=30)


def holders(session, leaf):
    return next(r["holders"] for r in session.snapshot()["resources"] if r["name"] == leaf)


def test_acquired_holds_in_the_block_and_gives_back_after(service):
    target, _ = service
    with zr.ServiceSession("Wave", target) as session:
        with session.acquired("wave", "Arms", timeout=5) as held:
            assert holders(session, "LeftArm") == ["wave"]
            assert not held.lost
        assert holders(session, "LeftArm") == []
        # The in-process module's shapes: NotObtained with names, Error with
        # the library's text.
        with zr.ServiceSession("Other", target) as other:
            with other.acquired("other", "Head", timeout=5):
                with pytest.raises(zr.NotObtained) as refused:
                    with session.acquired("wave", "Body", timeout=5, no_wait=["Head"]):
                        pass
                assert refused.value.names == ["Head"]
                assert holders(session, "LeftArm") == []
                with pytest.raises(zr.Error) as failed:
                    session.acquire("wave", "Head", timeout=1)
                assert failed.value.description == zr.WAIT_TIMED_OUT_PREFIX + "Head"


def test_refusals_are_service_errors_with_their_code(service):
    target, _ = service
    with zr.ServiceSession("Wave", target) as session:
        cases = {
            "NOT_FOUND": lambda: session.acquire("wave", "Tail", timeout=1),
            "INVALID_ARGUMENT": lambda: session.acquire("", "Head", timeout=1),
            "ALREADY_EXISTS": lambda: zr.ServiceSession("Wave", target),
        }
        for code, call in cases.items():
            with pytest.raises(zr.ServiceError) as refused:
                call()
            assert refused.value.code == code
        with pytest.raises(ValueError):
            session.acquired("wave", "Head", timeout=0)


def test_holder_told_it_is_wanted_lets_go_from_its_handler(service):
    target, _ = service
    told = []

    def on_wanted(notice):
        told.append((notice.resource, notice.owner))
        holder.release("holder", "Head")

    holder = zr.ServiceSession("Holder", target, on_wanted=on_wanted)
    holder.acquire("holder", "Head", timeout=5)
    with zr.ServiceSession("Waiter", target) as waiter:
        with waiter.acquired("waiter", "Head", timeout=30):
            assert told == [("Head", "holder")]
    holder.close()


@pytest.mark.parametrize("stop", [signal.SIGTERM, signal.SIGKILL])
def test_stopped_or_killed_service_ends_the_session_and_the_acquisition_knows(service, stop):
    target, process = service
    ended = queue.Queue()
    session = zr.ServiceSession("Holder", target, on_ended=ended.put)
    with pytest.raises(zr.ServiceError) as lost:
        with session.acquired("holder", "Head", timeout=5) as held:
            process.send_signal(stop)
            notice = ended.get(timeout=30)
            assert held.lost
            reason = held.lost_reason
    assert not session.alive
    assert process.wait(timeout=30) == (0 if stop == signal.SIGTERM else -stop)
    assert notice.code == "UNAVAILABLE"
    assert lost.value.code == "ABORTED"
    if stop == signal.SIGTERM:
        assert reason == notice.reason == "the service is stopping"
        assert "the service is stopping" in lost.value.reason
    session.close()
