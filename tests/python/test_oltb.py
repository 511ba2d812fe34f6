"""The Python package against the simulator: a configured acquisition comes back whole and in order and analyzes as
the tool does, failures carry the library's texts, and a capture loads the same from CSV and HDF5."""

import os
import subprocess
import time

import numpy as np
import pytest

import oltb

ADDRESS = "127.0.7.1"


@pytest.fixture(scope="module")
def simulator():
    process = subprocess.Popen([os.environ["OLTB_SIM"], "--address", ADDRESS, "--speed", "10"],
                               stdout=subprocess.PIPE, text=True)
    assert process.stdout.readline().startswith("oltb-sim listening on")
    yield
    process.terminate()
    process.wait(timeout=5)


def test_acquisition_comes_back_whole_and_in_order(simulator):
    with oltb.connect(ADDRESS) as client:
        client.configure("Head0TxX,Head0TxY,Head0RxX,Head0RxY,Gate,label")
        assert client.configuration() == ["Gate", "Head0TxX", "Head0TxY", "Head0RxX", "Head0RxY", "Label"]
        client.read_timeout = 5000
        client.start()
        job = client.acquire(1, 2, signed=True)
    assert np.all(np.diff(job["timestamp"].astype(np.int64)) >= 0)
    assert list(job["value"][job["type"] == oltb.SIGNAL_TYPES["Label"]]) == list(range(10, 18))
    x, y = (job[job["type"] == oltb.SIGNAL_TYPES[name]] for name in ("Head0TxX", "Head0TxY"))
    assert len(x) == len(y) > 50000 and np.all(np.diff(x["timestamp"]) == 640)
    assert job["time"][0] >= 0 and np.abs(x["value"]).max() == 350000
    figures = oltb.analyze(job)  # the simulator's default servo lags by 250 us
    assert abs(figures["tracking_error_us"]["x"] - 250) < 2 and len(figures["marks"]) == 4


def test_failures_carry_the_library_texts(simulator):
    with pytest.raises(oltb.Error, match="^Could not connect to the tracebuffer server on address 127.0.7.99. "):
        oltb.connect("127.0.7.99")
    with oltb.connect(ADDRESS) as client:
        client.read_timeout = 100
        with pytest.raises(oltb.Error, match="^Nothing received from trace buffer server within the specified"):
            client.read(10)
        assert len(client.read(10, wait=False)) == 0
        with pytest.raises(ValueError, match="unknown signal 'Head2TxX'"):
            client.configure(["Head2TxX"])


def test_a_capture_loads_the_same_from_csv_and_hdf5(simulator, tmp_path):
    pytest.importorskip("h5py")
    csv, h5 = tmp_path / "job.csv", tmp_path / "job.h5"
    subprocess.run([os.environ["OLTB_TOOL"], "acquire", ADDRESS, "--start", "10", "--end", "11", "-q",
                    "-s", "Head0TxX,Gate", "-o", str(csv), "-o", str(h5)], check=True, timeout=60)
    from_csv, from_h5 = oltb.load(csv), oltb.load(h5)
    assert len(from_csv) > 1000 and np.array_equal(from_csv, from_h5)
    assert np.array_equal(oltb.load(h5, signals="Gate"), from_csv[from_csv["type"] == 22])
