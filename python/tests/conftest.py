"""Every test runs against kavrel_direct_sim on virtual time, starting from
the simulator's world at load and closing what it opened."""
import pytest

import kavrel
from kavrel import sim


def pytest_sessionstart(session):
    try:
        kavrel.load(simulated=True)
    except kavrel.LibraryNotFoundError as error:
        pytest.exit(str(error), returncode=1)


@pytest.fixture(autouse=True)
def world():
    sim.reset()
    sim.set_virtual_time(True)
    yield
    kavrel.close_all(simulated=True)
    sim.reset()
