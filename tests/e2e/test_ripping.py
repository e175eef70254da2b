"""Audio-CD ripping through the reference host, with doubles of the ripper
and of the eject program first on PATH that record their arguments."""
import os
import stat
import threading
import time
from pathlib import Path

import pytest

from conftest import DRIVES, make_fake

STATUS = Path("/tmp/RippingStatus.txt")
KILL = Path("/tmp/kill_paranoia")
OTHER_FILES = [Path("/tmp/TrackNumber.txt"), Path("/tmp/AlbumeName.txt"), Path("/tmp/list.txt")]
LOG = Path("/opt/vtrhttpd/double_log")
# Seconds the ripper double keeps running (it stops early on the marker).
RUN_FOR = Path("/opt/vtrhttpd/double_seconds")

DOUBLE = r"""
log=/opt/vtrhttpd/double_log
mkdir -p "$log"
n=$(ls "$log" | wc -l)
{ basename "$0"; for a in "$@"; do printf '%s\n' "$a"; done; } > "$log/.tmp.$$"
mv "$log/.tmp.$$" "$log/$(printf %03d "$n")"
echo "double $(basename "$0") ran"
[ "$(basename "$0")" = cdparanoia ] && [ "$1" != -Q ] || exit 0
limit=$(( $(cat /opt/vtrhttpd/double_seconds 2>/dev/null || echo 0) * 10 ))
i=0
while [ "$i" -lt "$limit" ]; do
    if [ -e /tmp/kill_paranoia ]; then
        echo stopped > "$log/stopped"
        exit 0
    fi
    sleep 0.1
    i=$((i + 1))
done
"""


def calls():
    """Each run of a double: [program, arg1, ...], in order."""
    if not LOG.exists():
        return []
    return [(LOG / name).read_text().splitlines() for name in sorted(os.listdir(LOG))
            if name[0].isdigit()]


@pytest.fixture
def doubles(fake_bin, drives):
    for p in [STATUS, KILL, *OTHER_FILES, RUN_FOR]:
        p.unlink(missing_ok=True)
    if LOG.exists():
        for p in LOG.iterdir():
            p.unlink()
    make_fake(fake_bin, "cdparanoia", DOUBLE)
    make_fake(fake_bin, "cdeject", DOUBLE)
    (drives / "USB").mkdir()
    yield drives
    for p in [STATUS, KILL, *OTHER_FILES, RUN_FOR]:
        p.unlink(missing_ok=True)


ROOT = str(DRIVES)


def rip(host, drive="/USB/", tracks="ALL", correction="true", music="false", fmt="WAV", album="Best"):
    return host.run("ripping", "start_ripping", drive, tracks, correction, music, fmt, album).result


def is_rip_folder(path):
    st = path.stat()
    return stat.S_ISDIR(st.st_mode) and stat.S_IMODE(st.st_mode) == 0o777 and (st.st_uid, st.st_gid) == (1001, 1001)


@pytest.mark.parametrize("fmt,correction,mode", [
    ("WAV", "true", "-wB"), ("WAV", "TRUE", "-wB"), ("WAV", "false", "-ZwB"), ("WAV", "yes", "-ZwB"),
    ("FLAC", "true", "-AB"), ("FLAC", "no", "-ZAB"), ("flac", "true", "-wB"),
])
def test_mode_slot(host, doubles, fmt, correction, mode):
    assert rip(host, fmt=fmt, correction=correction) == 0
    assert calls() == [["cdparanoia", mode, "1-TOTAL", f"{ROOT}/USB/Best/"]]


def test_tracks_music_folder_and_status_file(host, doubles):
    KILL.write_text("")
    assert rip(host, tracks="3-5", music="true", album="Live") == 0
    assert calls() == [["cdparanoia", "-wB", "3-5", f"{ROOT}/USB/Music/Live/"]]
    assert is_rip_folder(doubles / "USB" / "Music") and is_rip_folder(doubles / "USB" / "Music" / "Live")
    assert STATUS.exists() and STATUS.read_bytes() == b""
    assert not KILL.exists()


def test_album_folder_candidates(host, doubles):
    usb = doubles / "USB"
    assert rip(host) == 0
    STATUS.unlink()
    assert rip(host) == 0  # Best/ exists: Best_0/
    STATUS.unlink()
    (usb / "Best_1").mkdir()
    assert rip(host) == 0  # Best_1/ taken as well: Best_2/
    assert [c[3] for c in calls()] == [f"{ROOT}/USB/Best/", f"{ROOT}/USB/Best_0/", f"{ROOT}/USB/Best_2/"]
    assert all(is_rip_folder(usb / name) for name in ["Best", "Best_0", "Best_2"])


def test_all_album_candidates_taken_uses_the_last(host, doubles):
    usb = doubles / "USB"
    for name in ["Full"] + [f"Full_{n}" for n in range(101)]:
        (usb / name).mkdir()
    assert rip(host, album="Full") == 0
    assert calls()[0][3] == f"{ROOT}/USB/Full_100/"


def test_unknown_album_folders(host, doubles):
    usb = doubles / "USB"
    assert rip(host, album="UnknownAlbum") == 0
    STATUS.unlink()
    assert rip(host, album="UnknownAlbum") == 0
    assert [c[3] for c in calls()] == [f"{ROOT}/USB/Unknown_Artist_0/", f"{ROOT}/USB/Unknown_Artist_1/"]
    assert is_rip_folder(usb / "Unknown_Artist_1")
    STATUS.unlink()
    for n in range(2, 101):
        (usb / f"Unknown_Artist_{n}").mkdir()
    assert rip(host, album="UnknownAlbum") == 0  # all taken: the drive itself
    assert calls()[-1][3] == f"{ROOT}/USB/"


def test_a_rip_under_way_answers_4_after_preparing_folders(host, doubles):
    STATUS.write_text("42%")
    (doubles / "USB" / "Best").mkdir()
    assert rip(host) == 4
    assert (doubles / "USB" / "Best_0").is_dir()
    assert calls() == []
    assert STATUS.read_text() == "42%"


def test_missing_drive(run_cli, doubles):
    KILL.write_text("")
    p = run_cli("ripping", "start_ripping", "/NOPE/", "ALL", "true", "false", "WAV", "Best")
    assert p.stdout.decode().splitlines()[0] == "result: -1"
    assert b"No device detected System will be aborted \n" in p.stderr
    assert calls() == [] and not STATUS.exists() and not KILL.exists()


def test_messages_and_counter_line_come_before_the_ripper(run_cli, doubles):
    p = run_cli("ripping", "start_ripping", "/USB/", "ALL", "true", "false", "WAV", "Best")
    assert p.stdout.decode().splitlines()[0] == "result: 0"
    err = p.stderr.decode()
    created = f"{ROOT}/USB/Best/ created successfully\n"
    full = f"The Full Path is {ROOT}/USB/Best/ \n"
    counter = "Command counter  = 3\n"
    ran = "double cdparanoia ran\n"
    for text in (created, full, counter, ran):
        assert text in err
    assert err.index(created) < err.index(counter) < err.index(ran)
    STATUS.unlink()
    p = run_cli("ripping", "start_ripping", "/USB/", "ALL", "true", "false", "WAV", "UnknownAlbum")
    assert f"Full path is now {ROOT}/USB/Unknown_Artist_0/\n" in p.stderr.decode()


def test_blanks_stay_inside_their_argument(host, doubles):
    (doubles / "My Drive").mkdir()
    assert rip(host, drive="/My Drive/", tracks="1-2 3", album="Greatest Hits") == 0
    assert calls() == [["cdparanoia", "-wB", "1-2 3", f"{ROOT}/My Drive/Greatest Hits/"]]


def test_stop_ripping_from_another_request(make_host, doubles):
    RUN_FOR.write_text("30")
    ripping_host, other = make_host(), make_host()
    answer = {}

    def start():
        t0 = time.monotonic()
        answer["result"] = rip(ripping_host)
        answer["seconds"] = time.monotonic() - t0

    worker = threading.Thread(target=start)
    worker.start()
    deadline = time.monotonic() + 20
    while not calls() and time.monotonic() < deadline:
        time.sleep(0.05)
    assert calls(), "the ripper did not start"
    time.sleep(0.5)
    assert worker.is_alive()  # the request lasts as long as the rip
    assert other.run("ripping", "StopRipping").result == 0
    assert KILL.exists()
    worker.join(timeout=20)
    assert not worker.is_alive()
    assert answer["result"] == 0 and answer["seconds"] < 15
    assert (LOG / "stopped").exists()
    # The next rip starts without the old marker; "done" clears the status.
    assert other.run("ripping", "done").result == 0
    RUN_FOR.write_text("0")
    assert rip(other) == 0
    assert not KILL.exists()


def test_done_and_initialize_clear_their_files(run_cli, host, doubles):
    for p in [STATUS, *OTHER_FILES]:
        p.write_text("x")
    p = run_cli("ripping", "done")
    assert p.stdout.decode().splitlines()[0] == "result: 0"
    assert p.stderr.decode() == "Delete some of the file \nDone Delete some of the file \n"
    assert not STATUS.exists() and not OTHER_FILES[0].exists()
    assert OTHER_FILES[1].exists() and OTHER_FILES[2].exists()
    for p in [STATUS, *OTHER_FILES]:
        p.write_text("x")
    assert host.run("ripping", "Initialize").result == 0
    assert not any(p.exists() for p in [STATUS, *OTHER_FILES])


def test_track_list_and_eject_run_their_programs(host, doubles):
    assert host.run("ripping", "gettrack").result == 0
    assert host.run("ripping", "cdeject").result == 0
    assert calls() == [["cdparanoia", "-Q"], ["cdeject"]]


@pytest.mark.parametrize("words,result", [
    (["ripping"], 0),
    (["ripping", "nothing"], 0),
    (["ripping", "StopRipping"], 0),
    (["ripping", "StopRipping", "x"], 4),
    (["ripping", "gettrack", "x", "y"], 4),
    (["ripping", "start_ripping", "/USB/"], 4),
    (["ripping", "start_ripping", "/USB/", "ALL", "true", "false", "WAV"], 4),
    (["ripping", "Create_Directory", "/USB/"], 4),
])
def test_action_words_and_counts(host, doubles, words, result):
    a = host.run(*words)
    assert a.result == result
    assert a.tree.children == []
    if words[1:2] != ["gettrack"] or result != 0:
        assert calls() == []
    assert not KILL.exists()  # StopRipping without a rip leaves no marker


def test_invalid_parameter_message(run_cli, doubles):
    p = run_cli("ripping", "eject", "now")
    assert p.stdout.decode().splitlines()[0] == "result: 4"
    assert b"invalid parameter\n" in p.stderr


def test_create_directory(run_cli, doubles):
    p = run_cli("ripping", "Create_Directory", "/USB/", "Rips")
    assert p.stdout.decode().splitlines()[0] == "result: 0"
    assert is_rip_folder(doubles / "USB" / "Rips")
    p = run_cli("ripping", "Create_Directory", "/USB/", "Rips")
    assert p.stdout.decode().splitlines()[0] == "result: 0"
    assert b"Path already exist Create folder fail \n" in p.stderr
    p = run_cli("ripping", "Create_Directory", "/NOPE/", "Rips")
    assert p.stdout.decode().splitlines()[0] == "result: -1"
    assert b"No device detected System will be aborted \n" in p.stderr


def test_over_long_arguments_answer_4_and_touch_nothing(host, doubles):
    assert rip(host, album="a" * 600) == 4
    assert rip(host, drive="/" + "d" * 5000 + "/") == 4
    assert rip(host, tracks="1" * 600) == 4
    assert host.run("ripping", "Create_Directory", "/USB/", "n" * 5000).result == 4
    assert calls() == [] and os.listdir(doubles / "USB") == []
