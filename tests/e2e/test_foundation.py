"""The plug-in frame seen through the reference host: loading, the
descriptor, dispatch refusals, the exported and imported symbols."""
import os
import shutil
import subprocess

import pytest

from conftest import BUILD_DIR, CROSS, EMULATOR, PLUGIN, VTR_HOST, host_env


def test_describe_shows_the_factory_values():
    out = subprocess.run([*EMULATOR, str(VTR_HOST), "describe"], capture_output=True,
                         env=host_env(), cwd="/", timeout=120, check=True).stdout.decode()
    fields = dict(line.split(": ", 1) for line in out.splitlines())
    assert fields == {
        "name": "file_operation", "value40": "200", "value52": "10", "value56": "10",
        "value60": "0", "run": "exported run entry", "host words": "untouched",
    }


# The group and count rules have their table in the unit tests (dispatch).
@pytest.mark.parametrize("words", [
    ["no_such_command"],
    ["nothing_app_here", "a"],
    ["read_user_storage_file", "a", "b", "c", "d"],  # wrong count
    ["create_app_storage"],
    ["delete_user_storage_file_from_list", "a", "b"],
])
def test_unknown_names_and_wrong_counts_answer_1_and_nothing(host, words):
    a = host.run(*words)
    assert a.result == 1
    assert a.tree.tag == "response" and a.tree.children == [] and a.tree.text == b""


def test_cli_run_prints_result_and_document(run_cli):
    p = run_cli("no_such_command", "x")
    assert p.returncode == 0
    assert p.stdout.decode().splitlines() == ["result: 1", "<response/>"]


def test_serve_stdio_reports_malformed_lines_and_keeps_serving(fresh_host):
    for bad in ['', 'not json', '["unterminated', '[1, 2]', '["a"] x', '["\\u0000"]',
                '["\\u0100"]', '{"a": 1}', '[]', '["bad \\q escape"]']:
        obj = fresh_host.request_line(bad)
        assert set(obj) == {"error"}, bad
    assert fresh_host.run("no_such_command").result == 1
    # Every byte but NUL travels; raw UTF-8 in the line is read as code points.
    assert fresh_host.run("no_such_command", bytes(range(1, 256)), "é").result == 1
    assert fresh_host.request_line('["no_such_command", "\u00e9", "é"]')["result"] == 1
    assert "error" in fresh_host.request_line('["€"]')


def nm_tool():
    if not CROSS:
        return "nm"
    return shutil.which("mipsel-linux-gnu-nm")


def dynamic_symbols(defined):
    tool = nm_tool()
    if tool is None:
        pytest.skip("no nm for this target")
    flag = "--defined-only" if defined else "--undefined-only"
    p = subprocess.run([tool, "-D", flag, str(PLUGIN)], capture_output=True, text=True)
    if p.returncode != 0:
        pytest.skip(f"{tool} cannot read the plug-in: {p.stderr.strip()}")
    return {line.split()[-1].split("@")[0] for line in p.stdout.splitlines() if line.strip()}


def exports_map():
    text = (BUILD_DIR.parent / "plugin" / "exports.map")
    if not text.exists():
        text = __import__("pathlib").Path(__file__).resolve().parents[2] / "plugin" / "exports.map"
    body = text.read_text()
    glob = body.split("global:")[1].split("local:")[0]
    return {w.strip() for w in glob.split(";") if w.strip()}


HOST_FUNCTIONS = {
    "VANTOR_SIMPLE_XML_new_node", "VANTOR_SIMPLE_XML_new_node_binary", "VANTOR_SIMPLE_XML_add_child_node",
    "vtr_get_smb_nfs_network_url", "vtr_network_error_handler",
    "isfileexist", "isdir", "filesize", "filesize64", "statfilesize", "write_permission",
    "samerootdrive", "get_partition_free_space", "get_mounted_filesystem_type", "get_disc_type",
    "get_image_dimension", "jpeg_exif_orient_database_read_only", "get_cmd_output", "get_var_mem",
    "filereadline",
}


def test_only_listed_names_are_exported():
    defined = dynamic_symbols(defined=True)
    allowed = exports_map()
    assert {"VANTOR_COMMAND_SERVER_func_create_command_file_operation_descriptor",
            "VANTOR_COMMAND_SERVER_func_run_command_file_operation"} <= defined
    assert defined <= allowed, sorted(defined - allowed)


def test_host_functions_stay_undefined():
    defined = dynamic_symbols(defined=True)
    undefined = dynamic_symbols(defined=False)
    # Imported, never bundled: the host resolves them when it loads the
    # library. The path translation and free-space check of the frame use
    # the network mapping and the partition query from the start.
    assert not (HOST_FUNCTIONS & defined), sorted(HOST_FUNCTIONS & defined)
    assert {"vtr_get_smb_nfs_network_url", "get_partition_free_space"} <= undefined


@pytest.mark.cross_only
def test_cross_build_is_mips32_little_endian():
    for path in (PLUGIN, VTR_HOST):
        out = subprocess.run(["file", "-L", str(path)], capture_output=True, text=True).stdout
        assert "ELF 32-bit LSB" in out and "MIPS" in out, out


@pytest.mark.native_only
def test_drives_option_binds_a_folder_in_a_private_namespace(tmp_path, drives):
    # The plug-in is loaded from inside the bound folder: that only works
    # when DIR really appears at the drives root, and only for vtr-host.
    own = tmp_path / "mydrives"
    own.mkdir()
    shutil.copy2(PLUGIN, own / "plugin.so")
    cmd = [str(VTR_HOST), "--drives", str(own), "--plugin", str(drives / "plugin.so"), "describe"]
    p = subprocess.run(cmd, capture_output=True, text=True, env=host_env(), cwd="/", timeout=120)
    assert p.returncode == 0, p.stderr
    assert "name: file_operation" in p.stdout
    assert not (drives / "plugin.so").exists()


def test_answer_trees_are_released_after_each_request(fresh_host):
    for _ in range(3):
        assert fresh_host.run("no_such_user_command", "x").result == 1
    assert fresh_host.stats() == {"live_nodes": 0, "orphan_nodes": 0}


def test_framework_pipe_fixture_collects_lines(framework_pipe):
    # What a batch thread does: open write-only without blocking, write lines.
    fd = os.open("/tmp/vtr_framework_pipe", os.O_WRONLY | os.O_NONBLOCK)
    os.write(fd, b"first line\nsecond ")
    os.write(fd, b"line\n")
    os.close(fd)
    assert framework_pipe.wait_for(lambda lines: len(lines) >= 2, timeout=10) == ["first line", "second line"]
