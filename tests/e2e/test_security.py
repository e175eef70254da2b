"""Hostile names, planted links, concurrent batches and the opt-in confinement of client paths to the drives root."""
import shutil
from pathlib import Path

import pytest

from conftest import DRIVES, OPT, make_fake

FSLIST = Path("/tmp/fslist")
OUTSIDE = OPT / "outside"  # beside the drives root: "../outside" from it


@pytest.fixture
def usb(drives, fake_bin):
    shutil.rmtree(OUTSIDE, ignore_errors=True)
    OUTSIDE.mkdir()
    (OUTSIDE / "secret.txt").write_text("secret")
    Path("/tmp/usb_name.txt").write_text("USB1|Stick\n")
    (drives / "USB1").mkdir()
    make_fake(fake_bin, "wget", "exit 0\n")  # the server probe answers
    return drives / "USB1"


def run_batch(host, pipe, selected, *words):  # selects one path and runs a batch to its end
    assert host.run("select_user_storage_file_to_list", selected, "select").result == 0
    assert host.run(*words).result == 0
    pipe.wait_end()


@pytest.mark.parametrize("batch", [["delete_user_storage_file_from_list"],
                                   ["copy_user_storage_file_from_list", str(OUTSIDE / "dst")]])
def test_line_breaks_never_forge_selection_records(host, usb, events, batch):
    (OUTSIDE / "dst").mkdir()
    (OUTSIDE / "victim").write_text("v")
    forged = usb / "clip.mkv\n1|victim\n1|x.mkv"
    forged.write_text("f")
    for name in (str(forged), f"{usb}/a\rb"):
        assert host.run("select_user_storage_file_to_list", name, "select").result == 8
    assert not FSLIST.exists()
    # A damaged selection file with relative records (the host works in "/"): reported, skipped.
    (usb / "go").write_text("g")
    FSLIST.write_text(f"1|L|opt/vtrhttpd/outside/victim\n1|Stick|{usb}/go\n")
    assert host.run(*batch).result == 0
    lines = events.wait_end()
    assert sum("<status>11</status>" in l for l in lines) == 1
    assert (OUTSIDE / "victim").read_text() == "v" and forged.exists()
    assert sorted(p.name for p in (OUTSIDE / "dst").iterdir()) == (["go"] if len(batch) > 1 else [])
    assert (usb / "go").exists() == (len(batch) > 1)


# (command, arguments, result with the switch off, result with it on)
CONFINED = [
    ("read_user_storage_file", ["USB1/in.txt", "0", "0"], 0, 0),
    ("read_user_storage_file", ["../outside/secret.txt", "0", "0"], 0, 1),
    ("read_user_storage_file", ["USB1/out/secret.txt", "0", "0"], 0, 1),  # a link leading out
    ("read_user_storage_file", ["USB1/out/../in.txt", "0", "0"], 401, 1),  # the link's "..", not the text's
    ("create_user_storage_file", [f"{DRIVES}/../outside/new.txt"], 0, 11),
    ("create_user_storage_file", [f"{DRIVES}/USB1/new.txt"], 0, 0),
    ("calculate_user_storage_file_hash", [str(OUTSIDE / "secret.txt")], 0, 8),
    ("calculate_user_storage_file_hash", [f"{DRIVES}/USB1/out/secret.txt"], 0, 8),
    ("verify_user_storage_download_status", [str(OUTSIDE)], 0, 11),
    ("download_user_storage_file", [str(OUTSIDE / "out"), "http://x/a.jpg", "a.jpg"], 12, 11),
    ("list_user_storage_file", ["../outside", "0", "0", "true", "true", "false", ""], 0, 11),
    ("select_user_storage_file_to_list", [str(OUTSIDE / "secret.txt"), "select"], 0, 8),
    ("copy_user_storage_file_from_list", [str(OUTSIDE)], 0, 8),
]


@pytest.mark.parametrize("confine", [False, True])
def test_confinement_switch(host, usb, config, events, confine):
    (usb / "in.txt").write_text("in")
    (usb / "out").symlink_to(OUTSIDE)
    if confine:
        config["file_operation_confine"] = "1"
    got = [host.run(name, *args).result for name, args, _, _ in CONFINED]
    assert got == [on if confine else off for _, _, off, on in CONFINED]
    assert (OUTSIDE / "new.txt").exists() != confine
    if not confine:
        events.wait_end()


def copy_folder_with_link(host, usb, pipe):
    (usb / "f").mkdir()
    (usb / "f" / "inside").symlink_to(OUTSIDE)
    (usb / "f" / "kept.txt").write_text("k")
    (usb / "dst").mkdir()
    run_batch(host, pipe, f"{usb}/f", "copy_user_storage_file_from_list", f"{usb}/dst")
    assert sorted(p.name for p in (usb / "dst" / "f").iterdir()) == ["kept.txt"]


def copy_onto_dangling_link(host, usb, pipe):
    (usb / "a.txt").write_text("a")
    (usb / "dst").mkdir()
    (usb / "dst" / "a.txt").symlink_to(OUTSIDE / "made.txt")
    run_batch(host, pipe, f"{usb}/a.txt", "copy_user_storage_file_from_list", f"{usb}/dst")
    assert not (OUTSIDE / "made.txt").exists()


def probe_through_link(host, usb, pipe):
    (usb / ".permission_test.pvx").symlink_to(OUTSIDE / "secret.txt")
    assert host.run("verify_user_storage_download_status", str(usb)).result == 60


def write_through_link(host, usb, pipe):
    (usb / "w.txt").symlink_to(OUTSIDE / "secret.txt")
    assert host.run("write_user_storage_file", f"{usb}/w.txt", "false", "x", "0").result == 1


def delete_link_to_folder(host, usb, pipe):
    (usb / "l").symlink_to(OUTSIDE)
    run_batch(host, pipe, f"{usb}/l", "delete_user_storage_file_from_list")
    assert not (usb / "l").is_symlink()


@pytest.mark.parametrize("case", [copy_folder_with_link, copy_onto_dangling_link, probe_through_link,
                                  write_through_link, delete_link_to_folder])
def test_planted_links_are_never_followed_out(host, usb, events, case):
    case(host, usb, events)
    assert (OUTSIDE / "secret.txt").read_text() == "secret"


def test_a_batch_owns_its_selection(host, usb, events, fake_bin):
    # A slow "mv" keeps a move on one drive busy, then fails and stops it.
    make_fake(fake_bin, "mv", "sleep 2\nexit 1\n")
    (usb / "dst").mkdir()
    (usb / "a").write_text("a")
    (usb / "b").write_text("b")
    assert host.run("select_user_storage_file_to_list", f"{usb}/a", "select").result == 0
    assert host.run("move_user_storage_file_from_list", f"{usb}/dst").result == 0
    assert host.run("delete_user_storage_file_from_list").result == 2
    assert host.run("copy_user_storage_file_from_list", str(OUTSIDE)).result == 2
    assert host.run("select_user_storage_file_to_list", f"{usb}/b", "select").result == 0
    lines = events.wait_end()
    assert (usb / "b").exists() and all("<total>1</total>" in l for l in lines[1:-1])
    # The unfinished record goes back in front of the newer selection.
    assert FSLIST.read_text() == f"1|Stick|{usb}/a\n1|Stick|{usb}/b\n"
    events.clear()
    assert host.run("copy_user_storage_file_from_list", str(OUTSIDE)).result == 0
    events.wait_end()
