"""The Python package against the simulator: a configured acquisition comes back whole and in order and analyzes as
the tool does; waits end at max_wait and on Ctrl-C; out-of-range numbers, read-only arrays and analysis failures are
refused with their own texts; a capture loads the same from CSV and HDF5; pip installs the package into a virtual
environment that then finds the build's libraries by itself."""

import os
import selectors
import signal
import subprocess
import threading

import numpy as np
import pytest

import oltb

ADDRESS = "127.0.12.1"


def first_line(process, seconds):
    """The first line of a child's output, waiting at most `seconds`."""
    with selectors.DefaultSelector() as selector:
        selector.register(process.stdout, selectors.EVENT_READ)
        assert selector.select(seconds), "no output within %s s" % seconds
        return process.stdout.readline()


@pytest.fixture(scope="module")
def simulator():
    process = subprocess.Popen([os.environ["OLTB_SIM"], "--address", ADDRESS, "--speed", "10"],
                               stdout=subprocess.PIPE, text=True)
    assert first_line(process, 10).startswith("oltb-sim listening on")
    yield
    process.terminate()
    process.wait(timeout=5)


@pytest.fixture
def client(simulator):
    with oltb.connect(ADDRESS) as connection:
        connection.configure("Head0TxX,Head0TxY,Head0RxX,Head0RxY,Gate,label")
        connection.start()
        yield connection


def test_acquisition_comes_back_whole_and_in_order(client):
    assert client.configuration() == ["Gate", "Head0TxX", "Head0TxY", "Head0RxX", "Head0RxY", "Label"]
    job = client.acquire(1, 2, signed=True)
    assert np.all(np.diff(job["timestamp"].astype(np.int64)) >= 0)
    assert list(job["value"][job["type"] == oltb.SIGNAL_TYPES["Label"]]) == list(range(10, 18))
    x, y = (job[job["type"] == oltb.SIGNAL_TYPES[name]] for name in ("Head0TxX", "Head0TxY"))
    assert len(x) == len(y) > 50000 and np.all(np.diff(x["timestamp"]) == 640)
    assert job["time"][0] >= 0 and np.abs(x["value"]).max() == 350000
    figures = oltb.analyze(job)  # the simulator's default servo lags by 250 us
    assert abs(figures["tracking_error_us"]["x"] - 250) < 2 and len(figures["marks"]) == 4
    for arguments, text in [({"head": 2}, "^head must be 0 or 1$"),
                            ({"settle_band": float("nan")}, "^the settle band must be a positive number"),
                            ({"head": 1 << 32}, "^head must be within")]:
        with pytest.raises(oltb.Error, match=text):
            oltb.analyze(job, **arguments)


def silent_read():
    with oltb.connect(ADDRESS) as client:  # tracing not started: nothing comes
        client.read_timeout = -1
        client.read(10)


def test_waits_end_at_max_wait_and_on_ctrl_c(client):
    with pytest.raises(oltb.Error, match=r"^no start label 99 within 0.3 s \(max_wait\)$"):
        client.acquire(99, 100, max_wait=0.3)
    with pytest.raises(oltb.Error, match=r"^start label 10 came, but no end label 100 within 1 s \(max_wait\)$"):
        client.acquire(10, 100, max_wait=1)
    client.read_timeout = -1  # without limit: only Ctrl-C ends the next waits, on a stream and on silence
    for wait in (lambda: client.acquire(99, 100, max_wait=60), lambda: client.close() or silent_read()):
        timer = threading.Timer(0.2, os.kill, (os.getpid(), signal.SIGINT))
        timer.start()
        try:
            with pytest.raises(KeyboardInterrupt):
                wait()
        finally:
            timer.join()


def test_numbers_and_arrays_the_library_cannot_take_are_refused(client):
    for call, text in [(lambda: client.acquire(65537, 65538), "^start_label must be within 0..65535, not 65537$"),
                       (lambda: client.acquire(1, -1), "^end_label must be within 0..65535, not -1$"),
                       (lambda: setattr(client, "read_timeout", 1 << 31), "^read_timeout must be within"),
                       (lambda: client.read(1 << 32), "^max_events must be within"),
                       (lambda: client.acquire(1, 2, max_wait=float("inf")), "^max_wait must be a positive")]:
        with pytest.raises(oltb.Error, match=text) as raised:
            call()
        assert isinstance(raised.value, ValueError)
    assert client.read_timeout == 10000
    frozen = bytes(oltb.EVENT_DTYPE.itemsize * 2)
    for array in (np.frombuffer(frozen, dtype=oltb.EVENT_DTYPE), np.zeros(4, dtype=oltb.EVENT_DTYPE)[::2]):
        with pytest.raises(oltb.Error, match="convert a copy"):
            oltb.to_signed(array)
    assert frozen == bytes(len(frozen))


def test_failures_carry_the_library_texts(simulator):
    with pytest.raises(oltb.Error, match="^Could not connect to the tracebuffer server on address 127.0.12.99. "):
        oltb.connect("127.0.12.99")
    with oltb.connect(ADDRESS) as client:
        client.read_timeout = 150  # the last of two short waits gives the library's own text
        with pytest.raises(oltb.Error, match="^Nothing received from trace buffer server within the specified"):
            client.read(10)
        assert len(client.read(10, wait=False)) == 0
        with pytest.raises(oltb.Error, match="unknown signal 'Head2TxX'"):
            client.configure(["Head2TxX"])


def test_a_capture_loads_the_same_from_csv_and_hdf5(simulator, tmp_path):
    pytest.importorskip("h5py")
    csv, h5 = tmp_path / "job.csv", tmp_path / "job.h5"
    subprocess.run([os.environ["OLTB_TOOL"], "acquire", ADDRESS, "--start", "10", "--end", "11", "-q",
                    "-s", "Head0TxX,Gate", "-o", str(csv), "-o", str(h5)], check=True, timeout=60)
    from_csv, from_h5 = oltb.load(csv), oltb.load(h5)
    assert from_csv.dtype == from_h5.dtype == oltb.EVENT_DTYPE
    assert len(from_csv) > 1000 and np.array_equal(from_csv, from_h5)
    assert np.array_equal(oltb.load(h5, signals="Gate"), from_csv[from_csv["type"] == 22])
    assert oltb.analyze(from_h5)["events"] == len(from_h5) and oltb.to_signed(from_h5) is from_h5


def test_the_signals_are_the_librarys():
    listed = subprocess.run([os.environ["OLTB_TOOL"], "signals"], capture_output=True, text=True, timeout=30,
                            check=True).stdout.split("\n")
    rows = [row.split() for row in listed if row.split()[1:2] in (["Conf0"], ["Conf1"], ["Conf2"], ["Conf3"])]
    assert oltb.SIGNAL_TYPES == {row[0]: int(row[2]) for row in rows}


def test_the_namespace_is_the_api():
    assert [name for name in dir(oltb) if not name.startswith("_")] == sorted(oltb.__all__)
    assert oltb.__version__ == os.environ["OLTB_VERSION"]


def test_pip_installs_into_a_virtual_environment_that_finds_the_build(simulator, tmp_path):
    source = os.path.join(os.path.dirname(__file__), "..", "..")
    venv = tmp_path / "venv"
    subprocess.run(["/usr/bin/python3", "-m", "venv", "--system-site-packages", str(venv)], check=True, timeout=120)
    subprocess.run([str(venv / "bin" / "pip"), "install", "-q", "--no-index", "--no-build-isolation",
                    "--disable-pip-version-check", "--no-cache-dir", os.path.join(source, "python")],
                   check=True, timeout=120)
    session = ("import oltb, sys\n"
               "with oltb.connect(%r) as client:\n"
               "    client.configure('Head0TxX,Label'); client.start()\n"
               "    print(len(client.acquire(10, 11, max_wait=30)), oltb.analyze(client.read(100))['events'])\n"
               % ADDRESS)
    environment = {name: value for name, value in os.environ.items()
                   if name not in ("PYTHONPATH", "OLTB_LIBRARY", "OLTB_ANALYSIS_LIBRARY")}
    result = subprocess.run([str(venv / "bin" / "python"), "-c", session], cwd=tmp_path, env=environment,
                            capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stderr
    acquired, analyzed = map(int, result.stdout.split())
    assert acquired > 1000 and analyzed == 100
