"""What the tests share."""
import os

import pytest


@pytest.fixture
def child_env():
    """The environment of a child interpreter that a test starts.

    A child exits while the module's threads are still inside it or exiting:
    what they used is never freed, by the interpreter's design, and a leak
    check at exit (AddressSanitizer's) reports it, or its tracer crashes while
    it stops those threads. So the children run without it.
    """
    return dict(os.environ, ASAN_OPTIONS=os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0")
