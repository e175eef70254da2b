"""The network-share client double: request lines served from the folder
that the share URL maps to, answer file in the network lister's format."""
import os
import subprocess
import time

import pytest

from conftest import NETFS_CLIENT

URL = "smb://nas/public"
LIST = "cmd=4&outfile=/tmp/smb.out&offset={o}&range={r}&listtype={l}&filter={f}&sort={s}"


@pytest.fixture
def share(drives, config):
    root = config.share(3, "Public", URL)
    files = {
        "b.mkv": 300, "A.mp3": 100, "c.JPG": 50, "d.torrent": 10, "e.txt": 5, "f.iso": 40,
        "g.swf": 1, ".hidden.mp4": 7,
    }
    for i, (name, size) in enumerate(files.items()):
        p = root / name
        p.write_bytes(b"x" * size)
        os.utime(p, (1_600_000_000 + i * 1000, 1_600_000_000 + i * 1000))
    (root / "Zeta").mkdir()
    (root / "alpha").mkdir()
    (root / "alpha" / "deep_b.avi").write_bytes(b"v" * 20)
    (root / "alpha" / "inner").mkdir()
    (root / "alpha" / "inner" / "B-side.flac").write_bytes(b"a" * 3)
    movie = root / "Movie"
    (movie / "VIDEO_TS").mkdir(parents=True)
    (movie / "VIDEO_TS" / "VIDEO_TS.IFO").write_bytes(b"i" * 12)
    return root


def client(line, url=URL, check_exit=0):
    p = subprocess.run([str(NETFS_CLIENT), line, url], capture_output=True, timeout=60)
    if check_exit is not None:
        assert p.returncode == check_exit, p.stderr
    return p


def records(path="/tmp/smb.out"):
    lines = open(path, "rb").read().decode().split("\n")
    assert lines[-1] == ""
    lines = lines[:-1]
    assert len(lines) % 2 == 0
    out = []
    for fields, url in zip(lines[0::2], lines[1::2]):
        assert url.startswith("url=")
        out.append((fields.split("|"), url[4:]))
    return out


def entries(path="/tmp/smb.out"):
    recs = records(path)
    assert recs[0][0][3] == "10"  # the summary comes first
    return recs[0], [(f[0], f[3]) for f, _ in recs[1:]]


def test_plain_listing_codes_urls_and_summary(share):
    client(LIST.format(o=0, r=0, l=1, f=0, s=0))
    recs = records()
    (summary, folder_url), rest = recs[0], recs[1:]
    assert summary[:2] == ["8", "2"] and summary[3] == "10" and folder_url == URL
    assert [(f[0], f[3]) for f, _ in rest] == [
        ("alpha", "1"), ("Zeta", "1"),
        ("A.mp3", "2"), ("b.mkv", "4"), ("c.JPG", "3"), ("d.torrent", "7"), ("e.txt", "5"),
        ("f.iso", "13"), ("g.swf", "8"), ("Movie", "12"),
    ]
    by_name = {f[0]: (f, u) for f, u in rest}
    assert by_name["b.mkv"][0][1] == "300"
    assert by_name["b.mkv"][1] == URL + "/b.mkv"
    assert by_name["Movie"][0][1] == "12"  # a disc folder: the size of its files
    # The date field reads back with the lister's format as local time.
    date = by_name["A.mp3"][0][2]
    assert time.mktime(time.strptime(date, "%a %b %d %H:%M:%S %Y")) == 1_600_000_000 + 1000


@pytest.mark.parametrize("line_args, expected", [
    ({"l": 2, "f": 0}, ["A.mp3", "b.mkv", "c.JPG", "d.torrent", "e.txt", "f.iso", "g.swf", "Movie"]),
    ({"l": 3, "f": 0}, ["alpha", "Zeta"]),
    ({"l": 1, "f": 1}, ["alpha", "Zeta", "b.mkv", "f.iso", "Movie"]),
    ({"l": 2, "f": 2}, ["A.mp3"]),
    ({"l": 2, "f": 3}, ["c.JPG"]),
    ({"l": 2, "f": 4}, ["d.torrent"]),
    ({"l": 2, "f": 5}, ["e.txt", "g.swf"]),
])
def test_listtype_and_filter(share, line_args, expected):
    client(LIST.format(o=0, r=0, s=0, **line_args))
    assert [n for n, _ in entries()[1]] == expected


@pytest.mark.parametrize("sort, expected", [
    (1, ["Zeta", "alpha", "Movie", "g.swf", "f.iso", "e.txt", "d.torrent", "c.JPG", "b.mkv", "A.mp3"]),
    (2, ["alpha", "Zeta", "g.swf", "e.txt", "d.torrent", "Movie", "f.iso", "c.JPG", "A.mp3", "b.mkv"]),
    (3, ["alpha", "Zeta", "b.mkv", "A.mp3", "c.JPG", "f.iso", "Movie", "d.torrent", "e.txt", "g.swf"]),
    (4, ["alpha", "Zeta", "b.mkv", "A.mp3", "c.JPG", "d.torrent", "e.txt", "f.iso", "g.swf", "Movie"]),
    (5, ["alpha", "Zeta", "Movie", "g.swf", "f.iso", "e.txt", "d.torrent", "c.JPG", "A.mp3", "b.mkv"]),
])
def test_sort_orders_keep_folders_first(share, sort, expected):
    now = time.time()
    os.utime(share / "Movie", (now, now))
    for d in ("alpha", "Zeta"):
        os.utime(share / d, (1_500_000_000, 1_500_000_000))
    client(LIST.format(o=0, r=0, l=1, f=0, s=sort))
    names = [n for n, _ in entries()[1]]
    if sort in (4, 5):  # folders' own order by date: equal dates fall back to the name
        assert names[2:] == expected[2:]
    else:
        assert names == expected


def test_paging_counts_the_whole_folder(share):
    client(LIST.format(o=3, r=2, l=1, f=0, s=0))
    summary, names = entries()
    assert summary[0][:2] == ["8", "2"]
    assert [n for n, _ in names] == ["b.mkv", "c.JPG"]
    client(LIST.format(o=50, r=5, l=1, f=0, s=0))
    assert entries()[1] == []


def test_keyword_search_recursive_and_flat(share):
    line = "cmd=4&outfile=/tmp/smb.out&offset=0&range=0&listtype=1&filter=0&keyword=A"
    client(line)
    recs = records()
    assert [(f[0], u) for f, u in recs[1:]] == [
        ("alpha", URL + "/alpha"), ("Zeta", URL + "/Zeta"), ("A.mp3", URL + "/A.mp3")]
    client(line.replace("keyword=A", "keyword=b") + "&level=0")
    recs = records()
    assert [(f[0], u) for f, u in recs[1:]] == [
        ("B-side.flac", URL + "/alpha/inner/B-side.flac"), ("b.mkv", URL + "/b.mkv"),
        ("deep_b.avi", URL + "/alpha/deep_b.avi")]
    assert recs[0][0][:2] == ["3", "0"]


def test_keyword_may_hold_ampersands(share):
    (share / "R&B hits.mp3").write_bytes(b"m")
    client("cmd=4&outfile=/tmp/smb.out&offset=0&range=0&listtype=2&filter=0&keyword=r&b")
    assert [n for n, _ in entries()[1]] == ["R&B hits.mp3"]


def test_index_form_and_other_outfile_and_subfolder_url(share):
    client("cmd=4&outfile=/tmp/other.out&listtype=2&filter=2&sort=0", URL + "/alpha/inner/")
    summary, names = entries("/tmp/other.out")
    assert names == [("B-side.flac", "2")]
    assert records("/tmp/other.out")[1][1] == URL + "/alpha/inner/B-side.flac"


def test_exit_codes_and_log(share, config):
    assert client("cmd=4&outfile=/tmp/smb.out", "smb://nas/unknown", check_exit=2)
    assert client("cmd=4&outfile=/tmp/smb.out", "smb://nas", check_exit=2)
    config["netfs_client_exit"] = 7
    client(LIST.format(o=0, r=0, l=1, f=0, s=0), check_exit=7)
    assert records()[0][0][3] == "10"  # answer written anyway
    log = open("/tmp/netfs_client.log").read().splitlines()
    assert log[-1] == f"{NETFS_CLIENT} {LIST.format(o=0, r=0, l=1, f=0, s=0)} {URL}"
    assert len(log) == 3
