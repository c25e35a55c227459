"""Daemon mode: the double fork, the PID file and the daemon's process state.

    +----------------- hub (netns) -----------------+      +--- ap (netns) ---+
    |  private mount namespace, tmpfs on /run       |      |                  |
    |  caller --fork--> session leader (writes PID) |      |                  |
    |                      --fork--> daemon         |      |                  |
    |  veth0 192.0.2.1/24 --------------------------+------+- veth1           |
    +-----------------------------------------------+      +------------------+

The calling process exits 0 at once; the PID file is written a moment
later by the intermediate process, so the tests poll for it. Every daemon
is killed by pid at the end of its test (the lab kills whatever is left in
its namespaces as well).
"""

import os
import signal

import pytest

from netns import process_alive, process_cmdline, process_stat, wait_until


@pytest.fixture
def hub(lab):
    hub = lab.namespace("hub")
    ap = lab.namespace("ap")
    hub.add_veth("veth0", peer=ap, peer_name="veth1")
    hub.add_address("veth0", "192.0.2.1/24")
    hub.up("veth0")
    ap.up("veth1")
    return hub


def read_pid_file(path):
    def content():
        try:
            with open(path) as pid_file:
                text = pid_file.read()
        except FileNotFoundError:
            return None
        return text if text.endswith("\n") else None

    return wait_until(content, timeout=5, what=f"PID file {path}")


def assert_is_detached_daemon(pid, binary, caller_pid):
    assert pid != caller_pid
    assert process_alive(pid), f"daemon {pid} is not running"
    assert process_cmdline(pid)[0] == binary
    stat = process_stat(pid)
    # The writer of the PID file called setsid: it leads the daemon's session.
    # The daemon itself leads nothing, and the writer is gone.
    assert stat["session"] != pid
    assert stat["session"] != caller_pid
    wait_until(lambda: process_stat(pid)["ppid"] != stat["session"], timeout=5,
               what="the PID file writer to exit")
    # The intermediate process writes the PID file while the daemon goes on
    # with chdir and umask, so the file can name the daemon a moment before
    # both are done.
    wait_until(lambda: os.readlink(f"/proc/{pid}/cwd") == "/", timeout=5,
               what="the daemon's working directory to become /")

    def umask_line():
        with open(f"/proc/{pid}/status") as status:
            return [line for line in status if line.startswith("Umask:")]

    wait_until(lambda: umask_line() == ["Umask:\t0000\n"], timeout=5,
               what="the daemon's umask to become 0")


def kill(pid):
    try:
        os.kill(pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    wait_until(lambda: not process_alive(pid), timeout=5, what=f"daemon {pid} to end")


def test_pid_file_names_the_running_daemon(lab, hub, vxbrd_binary, write_config, tmp_path):
    conf = write_config("")
    pid_path = str(tmp_path / "vxbrd.pid")
    caller = lab.start_vxbrd(hub, vxbrd_binary, ["-c", conf, "-p", pid_path])
    assert caller.wait_exit(timeout=10, drain=0) == 0
    text = read_pid_file(pid_path)
    assert text.strip().isdigit() and text == f"{int(text)}\n"
    pid = int(text)
    try:
        assert_is_detached_daemon(pid, vxbrd_binary, caller.pid)
        assert pid in hub.pids()
        # Syslog mode: nothing of the daemon's logging reaches the inherited stderr.
        assert caller.stderr() == ""
        assert caller.stdout() == ""
    finally:
        kill(pid)


def test_default_pid_file_under_run(lab, hub, vxbrd_binary, write_config):
    conf = write_config("")
    # The wrapper shell shares the daemon's private /run: let it show the file.
    epilogue = ("i=0; while [ ! -s /var/run/vxbrd.pid ] && [ $i -lt 100 ]; do "
                "sleep 0.05; i=$((i+1)); done; cat /var/run/vxbrd.pid")
    wrapper = lab.start_vxbrd(hub, vxbrd_binary, ["-c", conf], epilogue=epilogue)
    assert wrapper.wait_exit(timeout=15, drain=0) == 0
    text = wrapper.wait_for_output("\n", stream="stdout")
    pid = int(text)
    try:
        assert text == f"{pid}\n"
        assert process_alive(pid)
        assert process_cmdline(pid)[0] == vxbrd_binary
        assert os.path.exists(f"/proc/{pid}/root/run/vxbrd.pid")
    finally:
        kill(pid)


def test_unwritable_pid_path_leaves_a_running_daemon(lab, hub, vxbrd_binary, write_config,
                                                     tmp_path):
    conf = write_config("")
    pid_path = str(tmp_path / "no-such-directory" / "vxbrd.pid")
    caller = lab.start_vxbrd(hub, vxbrd_binary, ["-c", conf, "-p", pid_path])
    assert caller.wait_exit(timeout=10, drain=0) == 0

    def running_daemons():
        return [pid for pid in hub.pids()
                if process_alive(pid) and process_cmdline(pid)[:1] == [vxbrd_binary]]

    pids = wait_until(running_daemons, timeout=5, what="the daemon in the namespace")
    try:
        assert len(pids) == 1
        assert_is_detached_daemon(pids[0], vxbrd_binary, caller.pid)
        assert not os.path.exists(pid_path)
        # The warning went to syslog, never to the inherited stderr.
        assert caller.stderr() == ""
    finally:
        for pid in pids:
            kill(pid)


def test_foreground_neither_forks_nor_writes_a_pid_file(lab, hub, vxbrd_binary, write_config,
                                                        tmp_path):
    conf = write_config("")
    pid_path = str(tmp_path / "vxbrd.pid")
    daemon = lab.start_vxbrd(hub, vxbrd_binary, ["-f", "-v", "-c", conf, "-p", pid_path])
    daemon.wait_for_log("Listening on interface: veth0 (192.0.2.1)")
    # The process that was started is the daemon itself, still our child.
    assert daemon.process.poll() is None
    assert process_cmdline(daemon.pid)[0] == vxbrd_binary
    assert process_stat(daemon.pid)["ppid"] == os.getpid()
    assert [pid for pid in hub.pids() if process_alive(pid)] == [daemon.pid]
    assert not os.path.exists(pid_path)
    assert not os.path.exists(f"/proc/{daemon.pid}/root/run/vxbrd.pid")
    # Foreground keeps the directory it was started in.
    assert os.readlink(f"/proc/{daemon.pid}/cwd") == os.getcwd()
    daemon.stop()
