# SPDX-License-Identifier: BSD-3-Clause
"""A daemon of its own for each test, which must end well if it still runs."""

import tempfile

import pytest
from daemon import Daemon


@pytest.fixture
def daemon():
    with tempfile.TemporaryDirectory(prefix="gorv Util.") as folder:
        one = Daemon(folder)
        yield one
        assert not one.process or one.stop() == 0
