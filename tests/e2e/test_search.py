"""search_user_storage_file and get_user_storage_file_index through the host:
a local deep search, network searches and file indexes through the network
client (its request lines), and the network error mapping. (Classification,
paging, counting and sort tables are unit tests over the same commands.)"""
from pathlib import Path

URL = "smb://nas/public"


def search(host, path, folders="true", keyword="", sub="false"):
    return host.run("search_user_storage_file", path, "0", "0", folders, "true", "true", "", keyword, sub)


def names(answer):
    return sorted(f.text_of("name").decode() for f in answer.tree.find("fileList").children)


def index(host, entry, flt="", sort="", folders="true", files="true"):
    a = host.run("get_user_storage_file_index", entry, flt, sort, folders, files)
    return a.result, a.tree.text_of("index"), a.tree.text_of("total")


def client_line():
    return Path("/tmp/netfs_client.log").read_text().splitlines()[-1]


def test_local_search_and_index(host, drives):
    films = drives / "USB_DRIVE_1" / "Films"
    for f in ["Holiday Film/film_a.avi", ".private/film_secret.avi", "System Volume Information/film_sys.avi",
              "DVD film/VIDEO_TS/VIDEO_TS.IFO", "film10.mkv", "Film2.mkv", "song.mp3"]:
        (films / f).parent.mkdir(parents=True, exist_ok=True)
        (films / f).write_bytes(b"x")
    a = search(host, "USB_DRIVE_1/Films/", keyword="FILM", sub="TRUE")
    assert names(a) == ["DVD film", "Film2.mkv", "Holiday Film", "film10.mkv", "film_a.avi", "film_sys.avi"]
    assert a.tree.tags == ["fileList", "totalFile", "availableFolder", "availableFile", "convertPath"]
    assert [a.tree.text_of(t) for t in ("totalFile", "availableFolder", "availableFile", "convertPath")] == [
        b"6", b"1", b"5", str(films).encode()]
    # counted by name: DVD film, Holiday Film (folders), Film2.mkv, film10.mkv, song.mp3
    assert index(host, f"{films}/film10.mkv") == (0, b"4", b"5")
    assert index(host, f"{films}/DVD film//", sort="NAME_DSC") == (0, b"2", b"5")
    assert index(host, f"{films}/film10.mkv/")[0] == 11  # tested for existence before the "/" go


def test_network_search_index_and_errors(host, drives, config):
    root = config.share(0, "Public", URL)
    for f in ["clips/clip_deep.avi", "clip_top.avi", "other.mp3", "Clip folder/x"]:
        (root / f).parent.mkdir(parents=True, exist_ok=True)
        (root / f).write_bytes(b"d")
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
