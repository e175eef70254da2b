"""Search and file index over a network share: the network client's request lines, the answers, the error mapping.
(Local searches and indexes: unit.)"""
from pathlib import Path

URL = "smb://nas/public"


def search(host, path, folders="true", keyword="", sub="false"):
    return host.run("search_user_storage_file", path, "0", "0", folders, "true", "true", "", keyword, sub)


names = lambda answer: sorted(f.text_of("name").decode() for f in answer.tree.find("fileList").children)  # noqa
client_line = lambda: Path("/tmp/netfs_client.log").read_text().splitlines()[-1]  # noqa: E731


def index(host, entry, flt=""):
    a = host.run("get_user_storage_file_index", entry, flt, "", "true", "true")
    return a.result, a.tree.text_of("index"), a.tree.text_of("total")


def test_network_search_index_and_errors(host, drives, config):
    root = config.share(0, "Public", URL)
    for f in ["clips/clip_deep.avi", "clip_top.avi", "other.mp3", "Clip folder/x"]:
        (root / f).parent.mkdir(parents=True, exist_ok=True) or (root / f).write_bytes(b"d")
    assert names(search(host, URL + "/", keyword="clip")) == ["Clip folder", "clip_top.avi", "clips"]
    assert "keyword=clip" in client_line() and "&level=0" not in client_line()
    assert names(search(host, URL, folders="false", keyword="clip", sub="true")) == ["clip_deep.avi", "clip_top.avi"]
    assert "offset=0&range=99999&listtype=2&filter=0&keyword=clip&level=0" in client_line()
    # counted by name: Clip folder, clips (folders), clip_top.avi, other.mp3
    assert index(host, URL + "/clip_top.avi") == (0, b"3", b"4")
    assert index(host, URL + "/other.mp3", flt="video") == (0, b"", b"3")
    assert "cmd=4&outfile=/tmp/smb.out&listtype=1&filter=1&sort=0" in client_line()
    assert index(host, URL + "/none.avi")[0] == 11
    config["netfs_client_exit"] = "7"
    assert search(host, URL, keyword="clip").result == 1007
    assert index(host, URL + "/clip_top.avi")[0] == 1007
