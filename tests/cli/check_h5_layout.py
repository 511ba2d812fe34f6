"""An acquisition's HDF5 file as h5py sees it: the documented groups, datasets, types, filters and attributes (texts
of fixed length, outside the global heap), holding the rows of the CSV written beside it; the same file stored as one
chunk per dataset reads back to the CSV; edited copies and a foreign HDF5 file are refused as usage errors.
Usage: check_h5_layout.py OLTB OLTB_SIM. Exits 77 (skipped) without h5py."""
import csv, datetime, os, shutil, subprocess, sys, tempfile

try:
    import h5py
except ImportError:
    sys.exit(77)

tool, simulator, address = sys.argv[1], sys.argv[2], "127.0.0.68"
columns = {"timestamp_ticks": "uint64", "time_us": "float64", "value": "int32", "overflow": "uint8", "sequence": "uint64"}
with tempfile.TemporaryDirectory() as work:
    trace, table = os.path.join(work, "job.h5"), os.path.join(work, "job.csv")
    server = subprocess.Popen([simulator, "--address", address], stdout=subprocess.PIPE, text=True)
    try:
        assert server.stdout.readline() == f"oltb-sim listening on {address}:9495\n"
        subprocess.run([tool, "acquire", address, "--start", "1", "--end", "2", "--signals", "Head0RxX,Gate", "-q",
                        "-o", trace, "-o", table], check=True, timeout=60, stdout=subprocess.DEVNULL)
    finally:
        server.terminate()
        server.wait(timeout=10)
    with open(table, newline="") as rows_file:
        rows = list(csv.DictReader(rows_file))
    with h5py.File(trace, "r") as f:
        attrs = {k: v.decode() if isinstance(v, bytes) else v for k, v in f.attrs.items()}
        assert not any(f.attrs.get_id(k).get_type().is_variable_str() for k in ("tool", "server", "start_time_utc"))
        assert {k: attrs[k] for k in ("tool", "server", "traced_signals", "start_label", "end_label")} == {
            "tool": "oltb", "server": address, "traced_signals": "Gate,Head0RxX,Label", "start_label": 1, "end_label": 2}
        assert attrs["tool_version"] and datetime.datetime.fromisoformat(attrs["start_time_utc"][:-1])
        assert sorted(f) == ["Gate", "Head0RxX", "Label"]
        places = []
        for name, group in f.items():
            assert dict(group.attrs) == {"Gate": {"event_type": 22, "bits_per_sample": 1, "signed": 0},
                                         "Head0RxX": {"event_type": 40, "bits_per_sample": 32, "signed": 1},
                                         "Label": {"event_type": 126, "bits_per_sample": 16, "signed": 0}}[name]
            for column, kind in columns.items():
                data = group[column]
                assert (data.dtype, data.compression, data.shuffle, data.chunks) == (kind, "gzip", True, (4096,))
                assert column == "sequence" or data[:].tolist() == [float(r[column]) for r in rows
                                                                    if r["signal"] == name], (name, column)
            places += group["sequence"][:].tolist()
        assert len(rows) > 50000 and sorted(places) == list(range(len(rows)))

    def edited(name, change):
        copy = os.path.join(work, name + ".h5")
        shutil.copy(trace, copy)
        with h5py.File(copy, "r+") as f:
            for group in f.values():
                for column in list(group):
                    data = group[column][:]
                    del group[column]
                    change(group, column, data)
        return subprocess.run([tool, "convert", copy, "-"], capture_output=True, text=True, timeout=60)

    def rewrite(type_name, column, wrong):
        def change(group, name, data):
            if group.name == "/" + type_name and name == column:
                data = data.astype(type(wrong))
                data[-1] = wrong
            group.create_dataset(name, data=data, chunks=(max(len(data), 1),), compression="gzip")
        return change
    whole = edited("one-chunk", rewrite("", "", 0))
    assert whole.returncode == 0 and whole.stdout == open(table).read(), whole.stderr
    for name, change, text in [("int64", rewrite("Head0RxX", "value", 2**40), "value 1099511627776 lies outside"),
                               ("label", rewrite("Label", "value", 70000), "value 70000 does not fit the 16 bits"),
                               ("nan", rewrite("Gate", "time_us", float("nan")), "time_us is not a finite number")]:
        result = edited(name, change)
        assert result.returncode == 2 and "not an event of an oltb capture: " + text in result.stderr, result.stderr

    foreign = os.path.join(work, "foreign.h5")
    with h5py.File(foreign, "w") as f:
        f["Gate/value"] = [1, 0]
    result = subprocess.run([tool, "convert", foreign, os.path.join(work, "x.csv")], capture_output=True, text=True,
                            timeout=30)
    assert result.returncode == 2 and "no capture written by oltb" in result.stderr, result
print("h5 layout: 1 passed, 0 failed")
