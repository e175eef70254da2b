"""Audio-CD ripping with doubles of the ripper and the eject program that record their arguments. (StopRipping during a
rip: test_cmdserver.py.)"""
import os
import shutil
import stat
from pathlib import Path

import pytest

from conftest import DRIVES, make_fake

STATUS = Path("/tmp/RippingStatus.txt")
KILL = Path("/tmp/kill_paranoia")
OTHER_FILES = [Path("/tmp/TrackNumber.txt"), Path("/tmp/AlbumeName.txt"), Path("/tmp/list.txt")]
LOG = Path("/opt/vtrhttpd/double_log")

DOUBLE = r"""
log=/opt/vtrhttpd/double_log
mkdir -p "$log"
n=$(ls "$log" | wc -l)
{ basename "$0"; for a in "$@"; do printf '%s\n' "$a"; done; } > "$log/.tmp.$$"
mv "$log/.tmp.$$" "$log/$(printf %03d "$n")"
echo "double $(basename "$0") ran"
"""


def calls():  # each run of a double: [program, arg1, ...], in order
    return [(LOG / n).read_text().splitlines() for n in sorted(os.listdir(LOG)) if n[0].isdigit()] if LOG.exists() else []


@pytest.fixture
def doubles(fake_bin, drives):
    shutil.rmtree(LOG, True)
    for name in ("cdparanoia", "cdeject"):
        make_fake(fake_bin, name, DOUBLE)
    (drives / "USB").mkdir()  # the drives fixture removed the state files in /tmp
    return drives


ROOT = str(DRIVES)


def rip(host, drive="/USB/", tracks="ALL", correction="true", music="false", fmt="WAV", album="Best"):
    return host.run("ripping", "start_ripping", drive, tracks, correction, music, fmt, album).result


def is_rip_folder(path):
    st = path.stat()
    return stat.S_ISDIR(st.st_mode) and stat.S_IMODE(st.st_mode) == 0o777 and (st.st_uid, st.st_gid) == (1001, 1001)


def test_ripper_arguments_and_album_folders(host, doubles):
    usb = doubles / "USB"
    for fmt, correction, mode in [("WAV", "TRUE", "-wB"), ("WAV", "yes", "-ZwB"), ("FLAC", "true", "-AB"),
                                  ("FLAC", "no", "-ZAB"), ("flac", "true", "-wB")]:
        assert (rip(host, fmt=fmt, correction=correction), STATUS.unlink()) == (0, None)
        assert calls()[-1][:2] == ["cdparanoia", mode], (fmt, correction)
    [(usb / f"Best_{n}").mkdir() for n in range(4, 101)]
    assert (rip(host), STATUS.unlink()) == (0, None)  # every candidate taken: the last
    assert [c[3] for c in calls()] == [f"{ROOT}/USB/Best{s}/" for s in ["", "_0", "_1", "_2", "_3", "_100"]]
    assert all(is_rip_folder(usb / n) for n in ["Best", "Best_0", "Best_3"])
    for _ in range(2):
        assert (rip(host, album="UnknownAlbum"), STATUS.unlink()) == (0, None)
    [(usb / f"Unknown_Artist_{n}").mkdir() for n in range(2, 101)]
    assert rip(host, album="UnknownAlbum") == 0  # all taken: the drive itself
    assert [c[3] for c in calls()[-3:]] == [f"{ROOT}/USB/Unknown_Artist_0/", f"{ROOT}/USB/Unknown_Artist_1/",
                                            f"{ROOT}/USB/"]
    KILL.write_text("")
    STATUS.unlink()
    (doubles / "My Drive").mkdir()
    assert rip(host, drive="/My Drive/", tracks="1-2 3", music="true", album="Greatest Hits") == 0
    assert calls()[-1] == ["cdparanoia", "-wB", "1-2 3", f"{ROOT}/My Drive/Music/Greatest Hits/"]
    assert is_rip_folder(doubles / "My Drive" / "Music") and STATUS.read_bytes() == b"" and not KILL.exists()
    STATUS.write_text("42%")  # a rip under way: 4, after preparing folders
    (usb / "Live").mkdir()
    assert rip(host, album="Live") == 4 and (usb / "Live_0").is_dir() and STATUS.read_text() == "42%"


def test_results_and_output_order(run_cli, host, doubles):
    # The plug-in's own lines are flushed before the ripper writes to the same stream.
    p = run_cli("ripping", "start_ripping", "/USB/", "ALL", "true", "false", "WAV", "Best")
    err = p.stderr.decode()
    assert p.stdout.decode().splitlines()[0] == "result: 0"
    assert err.index(f"{ROOT}/USB/Best/ created successfully") < err.index("double cdparanoia ran")
    KILL.write_text("")
    for words, result in [(["start_ripping", "/NOPE/", "ALL", "true", "false", "WAV", "Best"], -1), (["eject", "now"], 4),
                          (["Create_Directory", "/USB/", "Rips"], 0), (["Create_Directory", "/USB/", "Rips"], 0),
                          (["Create_Directory", "/NOPE/", "Rips"], -1)]:
        assert host.run("ripping", *words).result == result, words
    assert len(calls()) == 1 and not KILL.exists() and is_rip_folder(doubles / "USB" / "Rips")
    [p.write_text("x") for p in [STATUS, *OTHER_FILES]]
    assert host.run("ripping", "done").result == 0
    assert not STATUS.exists() and not OTHER_FILES[0].exists() and OTHER_FILES[1].exists()


def test_action_words_counts_and_limits(host, doubles):
    [p.write_text("x") for p in [STATUS, *OTHER_FILES]]
    assert host.run("ripping", "Initialize").result == 0
    assert not any(p.exists() for p in [STATUS, *OTHER_FILES])
    for words, result in [(["nothing"], 0), (["StopRipping"], 0), (["StopRipping", "x"], 4),
                          (["gettrack", "x", "y"], 4), (["start_ripping", "/USB/"], 4),
                          (["start_ripping", "/USB/", "ALL", "true", "false", "WAV"], 4),
                          (["Create_Directory", "/USB/"], 4), (["Create_Directory", "/USB/", "n" * 5000], 4)]:
        assert ((a := host.run("ripping", *words)).result, a.tree.children) == (result, []), words
    assert not KILL.exists()  # StopRipping without a rip leaves no marker
    assert rip(host, album="a" * 600) == rip(host, drive="/" + "d" * 5000 + "/") == rip(host, tracks="1" * 600) == 4
    assert calls() == [] and os.listdir(doubles / "USB") == []
    assert host.run("ripping").result == host.run("ripping", "gettrack").result == 0
    assert host.run("ripping", "cdeject").result == 0
    assert calls() == [["cdparanoia", "-Q"], ["cdeject"]]
