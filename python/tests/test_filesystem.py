"""Stores in fsspec, pandas and dask."""
import importlib.util
import pathlib
import pickle

import hxcrate
import pytest

fsspec = pytest.importorskip("fsspec")
ROWS = {f"{n}.csv": "a,b\n" + "".join(f"{n},{m}\n" for m in range(100)) for n in range(4)}


@pytest.fixture
def url(tmp_path):
    with hxcrate.open("f.st", "w") as store:
        for name, text in ROWS.items():
            store["d/" + name] = text.encode()
        store["note"] = b"0123456789"
    fsspec.filesystem("memory").pipe("/f.st", (tmp_path / "f.st").read_bytes())
    return f"file://{tmp_path}/f.st"


@pytest.mark.parametrize("chain", ["{url}", "memory://f.st", "simplecache::memory://f.st"])
def test_a_store_is_a_file_system(url, chain):
    fs, path = fsspec.core.url_to_fs("hxcrate://d/*.csv::" + chain.format(url=url))
    for fs in (fs, pickle.loads(pickle.dumps(fs))):
        assert fs.glob(path) == [f"d/{n}.csv" for n in range(4)] and fs.isdir("d") and not fs.exists("x")
        assert fs.ls("", detail=False) == ["d", "note"] and fs.ls("note")[0]["size"] == 10
        assert fs.cat_file("note", 2, -1) == b"2345678" and fs.cat("d/1.csv") == ROWS["1.csv"].encode()
        assert fs.find("") == ["d/0.csv", "d/1.csv", "d/2.csv", "d/3.csv", "note"]
        with fs.open("note") as file:
            assert file.seek(3) == 3 and file.read(2) == b"34"
        with pytest.raises(FileNotFoundError):
            fs.info("x")
        with pytest.raises(FileNotFoundError):
            fs.open("d/x")
        with pytest.raises(ValueError):
            fs.open("new", "wb")


def test_an_update_gets_in_between_and_is_seen(url):
    fs, _ = fsspec.core.url_to_fs("hxcrate://::" + url)
    assert not fs.exists("later")
    with hxcrate.open("f.st", "r+") as store:
        store["later"] = b"here"
    assert fs.cat("later") == b"here"


def test_pandas_reads_by_url(url):
    pandas = pytest.importorskip("pandas")
    assert pandas.read_csv(f"hxcrate://d/2.csv::{url}").b.sum() == 4950


def test_dask_reads_in_two_processes(url):
    pytest.importorskip("pandas")
    dask, dataframe = pytest.importorskip("dask"), pytest.importorskip("dask.dataframe")
    distributed = pytest.importorskip("distributed")
    dask.config.set({"distributed.comm.timeouts.connect": "200s"})  # on a machine that is busy
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster, distributed.Client(cluster) as client:
        frame = dataframe.read_csv(f"hxcrate://d/*.csv::{url}")
        assert frame.npartitions == 4 and frame.groupby("a").b.sum().compute().to_dict() == dict.fromkeys(range(4), 4950)
        assert len(client.scheduler_info()["workers"]) == 2


def test_behind_a_url_only_what_is_asked_for_is_read(tmp_path, monkeypatch):
    if not list(pathlib.Path(hxcrate.__file__).parents[2].glob("libhxremote.so.1")):
        pytest.skip("libhxremote.so is not built")
    server = pathlib.Path(__file__).parents[2] / "tests/range_server.py"
    spec = importlib.util.spec_from_file_location("served", server)
    served = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(served)
    sent, answer = [], served.Handler.answer

    def count(self, status, body=b"", *more, **heads):
        sent.append(len(body))
        answer(self, status, body, *more, **heads)
    monkeypatch.setattr(served.Handler, "answer", count)
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path / "cache"))
    with hxcrate.open("served.st", "w", page_size=65536) as store:
        store["large"] = bytes(range(256)) * 65536
        store["a.csv"] = b"a,b\n1,2\n"
    url = served.Server(str(tmp_path)).url + "/-/served.st"
    with hxcrate.open(url) as store, store.view("large") as view:
        assert sorted(store) == ["a.csv", "large"] and store["a.csv"] == b"a,b\n1,2\n"
        assert pickle.loads(pickle.dumps(view)).read(4, 3) == b"\3\4\5\6" and store.filename == url
        with pytest.raises(OSError):
            hxcrate.open(url, "r+")
    fs, path = fsspec.core.url_to_fs("hxcrate://a.csv::" + url)
    assert pickle.loads(pickle.dumps(fs)).cat(path) == b"a,b\n1,2\n" and fs.ukey(path)
    with fsspec.open("hxcrate://a.csv::" + url, "rt") as file:
        assert file.readline() == "a,b\n"
    assert 0 < sum(sent) < 2_000_000, f"of 16 MiB: {sent}"
