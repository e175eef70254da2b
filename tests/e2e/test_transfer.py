"""The selection and the batch copy, move and delete commands, their event lines read from a real FIFO and compared
whole; a host killed in the middle of a move."""
import hashlib
import os
import re
from pathlib import Path

import pytest

from conftest import DRIVES, mount

FSLIST = Path("/tmp/fslist")
BATCH_LIST = Path("/tmp/fslist.batch")  # the list a running batch took
MiB, GiB = 1 << 20, 1 << 30

FIELDS = re.compile(r"<(\w+)>([^<]*)</\1>")


def parse(lines):  # each line's fields by name (numbers as int); a line must be nothing but its fields
    out = []
    for line in lines:
        fields = FIELDS.findall(line)
        assert line == "swf=" + "".join(f"<{k}>{v}</{k}>" for k, v in fields) + "\n", line
        out.append({"frm" if k == "from" else k: int(v) if v.lstrip("-").isdigit() and k != "filename" else v
                    for k, v in fields})
    return out


@pytest.fixture
def usb(drives):  # two drives with display names
    Path("/tmp/usb_name.txt").write_text("USB1|Stick\nUSB2|Disk\nTINY|Tiny\n")
    for d in ("USB1", "USB2"):
        (drives / d).mkdir()
    return drives / "USB1", drives / "USB2"


def select_paths(host, *paths):
    assert [host.run("select_user_storage_file_to_list", str(p), "select").result for p in paths] == [0] * len(paths)


def batch(host, events, command, *words, select=()):  # selects, starts a batch and returns its lines to the end
    select_paths(host, *select) or events.clear()
    assert host.run(f"{command}_user_storage_file_from_list", *map(str, words)).result == 0
    return events.wait_end()


def make(path, content=b"c"):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(content)


def copy_line(to, count, status, percent=100, whole=101):  # a batch's start or end line
    return (f"swf=<event>copy_from_list</event><filename></filename><from></from><to>{to}</to>"
            f"<item>{count}</item><total>{count}</total><percent>{percent}</percent><whole>{whole}</whole>"
            f"<time_left>0</time_left><status>{status}</status>\n")


def delete_line(name, frm, item, total, whole, status=0):
    return (f"swf=<event>delete_from_list</event><filename>{name}</filename><from>{frm}</from>"
            f"<item>{item}</item><total>{total}</total><whole>{whole}</whole><status>{status}</status>\n")




def test_selection_records_and_refusals(host, usb, config):
    src, _ = usb
    config.share(0, "Films", "smb://nas/films")
    assert host.run("select_user_storage_file_to_list", "smb://nas/films//x//y.mkv", "select").result == 0
    assert FSLIST.read_text() == f"1|Films|{DRIVES}/NETWORK_SHARE/Films/x/y.mkv\n"
    assert host.run("select_user_storage_file_to_list", "smb://nas/other/y", "select").result == 8
    (src / "file").write_text("x")
    for words in ([""], [f"{src}/file"], [f"{src}/none"], ["smb://nas/none"]):  # refused before a thread starts
        assert [host.run(f"{c}_user_storage_file_from_list", *words).result for c in ("copy", "move")] == [8, 8]
    mount(DRIVES / "RO", "-t", "tmpfs", "-o", "size=1m,ro", "x")
    assert host.run("copy_user_storage_file_from_list", str(DRIVES / "RO")).result == 60


def test_three_entries_each_a_third_unique_names_and_vanished_entries(host, usb, events):
    src, dst = usb
    [make(f, c) for f, c in [*((src / n, b"z" * 3000) for n in "abc"), (dst / "a", b"old")]]
    lines = batch(host, events, "copy", dst, select=[src / n for n in "abc"])
    assert lines[0] == copy_line("Disk", 0, 0, 0, 0) and lines[-1] == copy_line("Disk", 3, 0)
    assert [(e["filename"], e["item"], e["percent"], e["whole"]) for e in parse(lines)] == [
        ("", 0, 0, 0), ("a", 1, 0, 0), ("a", 1, 100, 33), ("b", 2, 0, 33), ("b", 2, 100, 66), ("c", 3, 0, 66),
        ("c", 3, 100, 100), ("", 3, 100, 101)]
    assert (dst / "a").read_bytes() == b"old" and (dst / "copy_1_of_a").read_bytes() == b"z" * 3000 and not FSLIST.exists()
    assert (dst / "copy_1_of_a").stat().st_uid == 1001
    events.clear()
    select_paths(host, *(src / n for n in "abc"))
    (src / "b").unlink()
    assert host.run("copy_user_storage_file_from_list", str(dst)).result == 0
    assert [(e["filename"], e["status"]) for e in parse(events.wait_end())] == [
        ("", 0), ("a", 0), ("a", 0), ("b", 12), ("c", 0), ("c", 0), ("", 4)]
    assert not FSLIST.exists()  # the last entry succeeded
    (src / "f" / "inner").mkdir(parents=True)  # a folder into itself
    assert [e["status"] for e in parse(batch(host, events, "copy", src / "f", select=[src / "f"]))] == [0, 11, 4]
    assert FSLIST.read_text() == f"1|Stick|{src}/f\n" and not (src / "f" / "f").exists()  # kept for another try


def test_move_renames_on_one_drive_and_copies_across(host, usb, events):
    src, other = usb
    mount(other, "-t", "tmpfs", "-o", "size=64m", "x")
    (src / "dst").mkdir()
    make(src / "m.avi", b"movie") or make(src / "tree" / "sub" / "f", b"1")
    moved = parse(batch(host, events, "move", src / "dst", select=[src / "m.avi"]))
    assert [(e["event"], e["percent"], e["status"]) for e in moved] == [
        ("move_from_list", 0, 0), ("move_from_list", 0, 0), ("move_from_list", 100, 0), ("move_from_list", 100, 0)]
    assert not (src / "m.avi").exists() and (src / "dst" / "m.avi").read_bytes() == b"movie"
    assert parse(batch(host, events, "move", other, select=[src / "tree"]))[-1]["status"] == 0
    assert (other / "tree" / "sub" / "f").read_text() == "1" and (other / "tree").stat().st_uid == 1001 and not (src / "tree").exists()


def test_free_space_full_device_and_the_4_gib_rule(host, usb, events, config):
    (src, dst), tiny = usb, DRIVES / "TINY"
    mount(tiny, "-t", "tmpfs", "-o", "size=1m", "x")
    open(src / "big", "wb").truncate(2 * MiB)  # sparse
    lines = batch(host, events, "copy", tiny, select=[src / "big"])
    assert [e["status"] for e in parse(lines)] == [0, 22, 4] and lines[-1] == copy_line("Tiny", 1, 4)
    FSLIST.unlink()
    [make(src / "many" / f"f{i}") for i in range(300)]  # the counted bytes fit, the pages do not: ENOSPC while writing
    assert [e["status"] for e in parse(batch(host, events, "copy", tiny, select=[src / "many"]))][-2:] == [29, 4]
    config["vtrsim_fat_paths"] = str(dst)  # a FAT drive: 4 GiB refused before anything is opened (the bound: unit)
    open(src / "four", "wb").truncate(4 * GiB)
    FSLIST.unlink()  # a failed entry stays selected
    assert [(e["filename"], e["status"]) for e in parse(batch(host, events, "copy", dst, select=[src / "four"]))] == [
        ("", 0), ("four", 4), ("", 4)]
    assert not (dst / "four").exists()


def test_killed_host_leaves_every_source_intact(fresh_host, usb, events):  # only the entry in flight is partial
    src, other = usb
    mount(other, "-t", "tmpfs", "-o", "size=2g", "x")
    block = os.urandom(MiB)
    digests = {}
    for name, blocks in (("first", 8), ("second", 600), ("third", 8)):
        with open(src / name, "wb") as f:
            f.writelines([block] * blocks)
        digests[name] = hashlib.sha256((src / name).read_bytes()).hexdigest()
    select_paths(fresh_host, *(src / n for n in digests))
    assert fresh_host.run("move_user_storage_file_from_list", str(other)).result == 0
    events.wait_text("<filename>second</filename>")
    fresh_host.proc.kill()
    fresh_host.proc.wait()
    for name in "second", "third":  # whole
        assert hashlib.sha256((src / name).read_bytes()).hexdigest() == digests[name], name
    assert not (src / "first").exists() and (other / "first").read_bytes() == block * 8
    assert (other / "second").stat().st_size < 600 * MiB and not (other / "third").exists()
    # The batch's private copy; the next selection or batch puts it back.
    assert BATCH_LIST.read_text() == f"0|Stick|{src}/first\n1|Stick|{src}/second\n1|Stick|{src}/third\n"


COMPANIONS = [".fanart.jpg", ".jpg", ".nfo", ".ass", ".idx", ".ssa", ".smi", ".srt", ".sub"]


@pytest.mark.parametrize("switch, companions_go", [(["true"], True), (["True"], False), ([], False)])
def test_delete_three_entries_with_companions(host, usb, events, switch, companions_go):
    src = usb[0]
    for f in ["Movie.avi", "photo.jpg", "photo.nfo", "disc/BDMV/index.bdmv", "disc/BDMV/MovieObject.bdmv", "disc.jpg",
              *(f"Movie{c}" for c in COMPANIONS)]:
        make(src / f)
    select_paths(host, src / "Movie.avi", src / "photo.jpg", src / "disc")
    assert host.run("delete_user_storage_file_from_list", *switch).result == 0
    assert events.wait_end() == [delete_line("Movie.avi", "Stick", 1, 3, 0), delete_line("Movie.avi", "Stick", 1, 3, 33),
                                 delete_line("photo.jpg", "Stick", 2, 3, 66), delete_line("disc", "Stick", 3, 3, 100),
                                 delete_line("", "", 3, 3, 101)]
    for c in COMPANIONS:
        assert (src / f"Movie{c}").exists() != companions_go, c
    assert (src / "disc.jpg").exists() != companions_go and (src / "photo.nfo").exists()
    assert not (src / "Movie.avi").exists() and not (src / "disc").exists() and not FSLIST.exists()


def test_delete_stops_at_hidden_file_and_goes_on_after_vanished(host, usb, events):
    assert host.run("delete_user_storage_file_from_list", "true").result == 0  # nothing selected
    assert events.wait_end() == [delete_line("", "", 0, 0, 101)]
    events.clear()
    src, _ = usb
    for f in ("gone", "last", "after", "keep/visible/.inner", "keep/.hidden"):
        make(src / f)
    (src / "keep" / "visible" / "deep").mkdir()
    select_paths(host, *(src / n for n in ("gone", "last", "keep", "after")))
    (src / "gone").unlink()
    assert host.run("delete_user_storage_file_from_list").result == 0
    assert [(e["filename"], e["item"], e["whole"], e["status"]) for e in parse(events.wait_end())] == [
        ("gone", 1, 0, 0), ("gone", 1, 25, 12), ("last", 2, 50, 0), ("keep", 3, 75, 4), ("", 3, 101, 4)]
    assert (src / "keep" / ".hidden").exists() and not (src / "keep" / "visible").exists()
    assert (src / "after").exists()
    assert FSLIST.read_text() == (f"1|Stick|{src}/gone\n0|Stick|{src}/last\n"
                                  f"1|Stick|{src}/keep\n1|Stick|{src}/after\n")
