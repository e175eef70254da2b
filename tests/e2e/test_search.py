"""search_user_storage_file and get_user_storage_file_index through the
reference host: local deep and flat searches, network searches through the
network client, the file index locally and on a share, and the network
error mapping."""
import pytest

URL = "smb://nas/public"


def search(host, path, offset="0", rng="0", folders="true", files="true", details="true", flt="",
           keyword="", sub="false"):
    return host.run("search_user_storage_file", path, offset, rng, folders, files, details, flt, keyword, sub)


def names(answer):
    lst = answer.tree.find("fileList")
    return [] if lst is None else [f.text_of("name").decode() for f in lst.findall("file")]


def index(host, entry, flt="", sort="", folders="true", files="true"):
    a = host.run("get_user_storage_file_index", entry, flt, sort, folders, files)
    return a.result, (None if a.result else (a.tree.text_of("index").decode(), a.tree.text_of("total").decode()))


@pytest.fixture
def usb(drives):
    root = drives / "USB_DRIVE_1"
    (root / "Films" / "Holiday Film").mkdir(parents=True)
    (root / "Films" / "Holiday Film" / "film_a.avi").write_bytes(b"a" * 10)
    (root / "Films" / ".private").mkdir()
    (root / "Films" / ".private" / "film_secret.avi").write_bytes(b"s")
    (root / "Films" / "System Volume Information").mkdir()
    (root / "Films" / "System Volume Information" / "film_sys.avi").write_bytes(b"s")
    (root / "Films" / "DVD film" / "VIDEO_TS").mkdir(parents=True)
    (root / "Films" / "DVD film" / "VIDEO_TS" / "VIDEO_TS.IFO").write_bytes(b"i")
    (root / "Films" / "film10.mkv").write_bytes(b"b" * 3)
    (root / "Films" / "Film2.mkv").write_bytes(b"c" * 3)
    (root / "Films" / "song.mp3").write_bytes(b"m")
    return root


def test_deep_search_local(host, usb):
    # Paging, hidden starts, flat order and the failures have their cases in
    # the unit tests (the same command over the simulator); this is the wiring.
    a = search(host, "USB_DRIVE_1/Films/", keyword="FILM", sub="TRUE")
    assert a.result == 0
    assert sorted(names(a)) == sorted(["Holiday Film", "film_a.avi", "DVD film", "film10.mkv", "Film2.mkv",
                                       "film_sys.avi"])
    assert a.tree.tags == ["fileList", "totalFile", "availableFolder", "availableFile", "convertPath"]
    assert [a.tree.text_of(t) for t in ("totalFile", "availableFolder", "availableFile")] == [b"6", b"1", b"5"]
    assert a.tree.text_of("convertPath") == str(usb / "Films").encode()
    dvd = [f for f in a.tree.find("fileList").findall("file") if f.text_of("name") == b"DVD film"][0]
    assert dvd.tags == ["name", "path", "isFolder", "type", "size", "modifyDate", "lastAccessDate"]
    assert dvd.text_of("type") == b"dvd_rip" and dvd.text_of("isFolder") == b"no"


@pytest.fixture
def share(drives, config):
    root = config.share(0, "Public", URL)
    (root / "clips").mkdir()
    (root / "clips" / "clip_deep.avi").write_bytes(b"d" * 5)
    (root / "clip_top.avi").write_bytes(b"t" * 5)
    (root / "Clip folder").mkdir()
    (root / "other.mp3").write_bytes(b"m")
    return root


def client_log():
    with open("/tmp/netfs_client.log") as f:
        return f.read().splitlines()


def test_network_search(host, share):
    flat = search(host, URL + "/", keyword="clip")
    assert flat.result == 0
    assert sorted(names(flat)) == ["Clip folder", "clip_top.avi", "clips"]
    assert "keyword=clip" in client_log()[-1] and "&level=0" not in client_log()[-1]
    deep = search(host, URL, keyword="clip", sub="true", folders="false")
    assert deep.result == 0
    assert sorted(names(deep)) == ["clip_deep.avi", "clip_top.avi"]
    line = client_log()[-1]
    assert "cmd=4&outfile=/tmp/smb.out&offset=0&range=99999&listtype=2&filter=0&keyword=clip&level=0" in line


def test_network_errors(host, share, config):
    config["netfs_client_exit"] = "7"
    assert search(host, URL, keyword="clip").result == 1007
    assert index(host, URL + "/clip_top.avi")[0] == 1007


def test_file_index_local(host, usb):
    # The counting table, sorts and path forms: unit tests (file_index_test).
    films = str(usb / "Films")
    # counted by name: DVD film, Holiday Film (folders), Film2.mkv, film10.mkv, song.mp3
    assert index(host, films + "/film10.mkv") == (0, ("4", "5"))
    assert index(host, films + "/DVD film//", sort="NAME_DSC") == (0, ("2", "5"))
    # the existence test is made before the trailing "/" are removed
    assert index(host, films + "/film10.mkv/") == (11, None)
    assert index(host, films + "/Holiday Film", folders="false") == (0, ("", "4"))


def test_file_index_network(host, share):
    # counted by name: Clip folder, clips (folders), clip_top.avi, other.mp3
    assert index(host, URL + "/clip_top.avi") == (0, ("3", "4"))
    assert index(host, URL + "/clips", files="false") == (0, ("2", "2"))
    assert index(host, URL + "/other.mp3", flt="video") == (0, ("", "3"))
    line = client_log()[-1]
    assert "cmd=4&outfile=/tmp/smb.out&listtype=1&filter=1&sort=0" in line and "offset" not in line
    assert index(host, URL + "/none.avi") == (11, None)
