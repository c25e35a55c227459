"""Shared fixtures of the vxbrd end-to-end tests.

The daemon under test is $VXBRD_BINARY, or else <repo>/build/vxbrd. The tests
need root (namespaces, raw sockets, tap devices), iproute2 and util-linux; a
missing prerequisite fails the run with a message saying what is missing
rather than skipping tests.

Fixtures:
  vxbrd_binary  absolute path of the daemon
  lab           a netns.Lab, cleaned up after the test whatever its outcome
  write_config  write_config(text, name="vxobrd.conf") -> path of a new file
  run_vxbrd     run_vxbrd(args, timeout=10) -> CompletedProcess, for runs that
                end by themselves (option and configuration errors); runs in
                a fresh namespace of its own so no host interface matters
"""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent))

import netns  # noqa: E402

REPO = Path(__file__).resolve().parents[2]


def _binary_path() -> Path:
    configured = os.environ.get("VXBRD_BINARY")
    return Path(configured) if configured else REPO / "build" / "vxbrd"


@pytest.fixture(scope="session")
def vxbrd_binary() -> str:
    path = _binary_path().resolve()
    if not (path.is_file() and os.access(path, os.X_OK)):
        pytest.fail(f"vxbrd binary not found at {path}: build it or set VXBRD_BINARY", pytrace=False)
    return str(path)


@pytest.fixture(scope="session", autouse=True)
def prerequisites() -> None:
    missing = []
    if os.geteuid() != 0:
        missing.append("root privileges (network namespaces, tap devices)")
    for tool in ("ip", "unshare", "mount", "sh"):
        if shutil.which(tool) is None:
            missing.append(f"the '{tool}' command")
    if not os.path.exists("/dev/net/tun"):
        missing.append("/dev/net/tun")
    if missing:
        pytest.fail("end-to-end prerequisites missing: " + ", ".join(missing), pytrace=False)


@pytest.fixture
def lab():
    with netns.Lab() as created:
        yield created


@pytest.fixture
def write_config(tmp_path):
    def write(text: str, name: str = "vxobrd.conf") -> str:
        path = tmp_path / name
        path.write_text(text)
        return str(path)

    return write


@pytest.fixture
def run_vxbrd(lab, vxbrd_binary):
    """Runs vxbrd to completion in a namespace of its own; returns the CompletedProcess (text)."""
    namespace = lab.namespace("solo")

    def run(args, timeout: float = 10.0) -> subprocess.CompletedProcess:
        daemon = lab.start_vxbrd(namespace, vxbrd_binary, list(args))
        status = daemon.wait_exit(timeout=timeout)
        return subprocess.CompletedProcess(args, status, daemon.stdout(), daemon.stderr())

    return run
