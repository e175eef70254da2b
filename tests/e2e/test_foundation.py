"""The plug-in frame: the descriptor, dispatch refusals, released answer trees, exported and imported symbols."""
import shutil
import subprocess

import pytest

from conftest import CROSS, EMULATOR, PLUGIN, REPO, VTR_HOST, host_env


def test_describe_shows_the_factory_values():
    out = subprocess.run([*EMULATOR, str(VTR_HOST), "describe"], capture_output=True, env=host_env(), cwd="/",
                         timeout=120, check=True).stdout.decode()
    assert dict(line.split(": ", 1) for line in out.splitlines()) == {
        "name": "file_operation", "value40": "200", "value52": "10", "value56": "10", "value60": "0",
        "run": "exported run entry", "host words": "untouched"}


def test_refusals_protocol_errors_and_released_trees(fresh_host):
    for words in (["no_such_command"], ["read_user_storage_file", "a", "b", "c", "d"]):  # 1 and an empty document
        assert ((a := fresh_host.run(*words)).result, a.tree.tag, a.tree.children, a.tree.text) == (1, "response", [], b"")
    assert fresh_host.run("no_such_command", bytes(range(1, 256)), "é").result == 1  # every byte but NUL travels
    assert fresh_host.stats() == {"live_nodes": 0, "orphan_nodes": 0}


def dynamic_symbols(flag):
    tool = shutil.which("mipsel-linux-gnu-nm" if CROSS else "nm")
    p = subprocess.run([tool or "nm", "-D", flag, str(PLUGIN)], capture_output=True, text=True)
    if tool is None or p.returncode != 0:
        pytest.skip("no nm for this target")
    return {line.split()[-1].split("@")[0] for line in p.stdout.splitlines() if line.strip()}


def test_only_listed_names_are_exported_and_host_functions_stay_imported():
    body = (REPO / "plugin" / "exports.map").read_text()
    allowed = {w.strip() for w in body.split("global:")[1].split("local:")[0].split(";") if w.strip()}
    defined, undefined = dynamic_symbols("--defined-only"), dynamic_symbols("--undefined-only")
    assert {"VANTOR_COMMAND_SERVER_func_create_command_file_operation_descriptor",
            "VANTOR_COMMAND_SERVER_func_run_command_file_operation"} <= defined <= allowed
    assert {"vtr_get_smb_nfs_network_url", "get_partition_free_space", "isfileexist", "filereadline"} <= undefined
