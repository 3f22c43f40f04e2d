# The package against vukra-sim on a pty, with a card image; ctest sets VUKRA_SIM,
# VUKRA_TABLE and MODBUS_VUKRA_LIBRARY (the build's).
import os
import subprocess

import pytest

import modbus_vukra


@pytest.fixture(scope="session", autouse=True)
def scratch(tmp_path_factory):
    # The library's local card ("sdcard0.o") lands in the working directory.
    here, path = os.getcwd(), tmp_path_factory.mktemp("work")
    os.chdir(path)
    yield path
    os.chdir(here)


@pytest.fixture(scope="session")
def start_sim(scratch):
    started = []

    def start(*options):
        card = f"card{len(started)}.o"  # a card is locked by its sim
        sim = subprocess.Popen([os.environ["VUKRA_SIM"], "--table", os.environ["VUKRA_TABLE"],
                                "--image", str(scratch / card), *options],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        started.append(sim)
        return sim.stdout.readline().strip()

    yield start
    for sim in started:
        sim.terminate()
        sim.wait()


@pytest.fixture(scope="module")
def dev(start_sim):
    # The table from another directory than the working one.
    # Replies at the line's 400000 baud, so that a transfer lasts long enough to follow.
    with modbus_vukra.open(start_sim("--baud", "400000"), table=os.environ["VUKRA_TABLE"]) as device:
        yield device
