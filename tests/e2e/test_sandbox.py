"""Relative paths land in the hosts' private working folder; network addresses stay inside their share."""
import os
from pathlib import Path

import pytest

from conftest import CROSS

WORK = Path(os.environ.get("VTR_HOST_WORKDIR", "/"))


def test_relative_paths_land_in_the_private_working_directory(make_host, run_cli, tmp_path):
    host = make_host(cwd=tmp_path)  # wherever it was started from
    try:
        assert host.run("create_user_storage_file", "probe.txt").result == 0
        assert os.readlink(f"/proc/{host.proc.pid}/cwd") == str(WORK) != "/"
        assert (WORK / "probe.txt").exists()
        if not CROSS:  # vtr-host --drives makes a namespace of its own
            p = run_cli("create_user_storage_file", "probe.txt", options=("--drives", str(tmp_path)))
            assert p.stdout.startswith(b"result: 0"), p.stderr
        assert not Path("/probe.txt").exists()
    finally:
        for leftover in (f for f in (Path("/probe.txt"), WORK / "probe.txt") if f.exists()):
            leftover.unlink()


@pytest.mark.parametrize("rest, result", [("a/../f.txt", 0), ("../" * 6 + "etc/hostname", 1)])
def test_network_addresses_stay_inside_their_share(host, config, rest, result):
    (config.share(0, "Public", "smb://nas/public") / "f.txt").write_bytes(b"f")
    assert host.run("read_user_storage_file", "smb://nas/public/" + rest, "0", "0").result == result
