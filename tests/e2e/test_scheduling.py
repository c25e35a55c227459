"""Where the daemon's threads run: the main thread, which only sleeps in
1000 us steps once start-up is done, sits in the idle scheduling class so
its wake-ups never pre-empt a tunnel thread; every other thread keeps the
normal class.

    +---------- hub (netns) ----------+
    |  vxbrd -f -v -c CONF            |
    |  veth0 192.0.2.1/24 --- veth1   |
    |  tap0 (VLAN 1)                  |
    +---------------------------------+
"""

import os
import time

from netns import wait_until


def test_main_thread_idles_and_the_tunnel_threads_do_not(lab, vxbrd_binary, write_config):
    hub = lab.namespace("hub")
    hub.add_veth("veth0", peer=hub, peer_name="veth1")
    hub.add_address("veth0", "192.0.2.1/24")
    hub.up("veth0")
    hub.add_tap("tap0")
    daemon = lab.start_vxbrd(hub, vxbrd_binary, ["-f", "-v", "-c", write_config("tap0 1\n")])
    daemon.wait_for_log("tap0 ready")
    pid = daemon.pid
    # Main moves itself once its last thread has started.
    wait_until(lambda: os.sched_getscheduler(pid) == os.SCHED_IDLE, timeout=5)
    threads = [int(t) for t in os.listdir(f"/proc/{pid}/task")]
    others = [t for t in threads if t != pid]
    # Control, one GRE thread per endpoint (veth0 IPv4) and the tap's thread.
    assert len(others) >= 3
    assert {t: os.sched_getscheduler(t) for t in others} == {t: os.SCHED_OTHER for t in others}
    time.sleep(0.05)
    assert daemon.process.poll() is None
