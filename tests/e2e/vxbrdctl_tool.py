"""Finding and running vxbrdctl in the end-to-end tests: the program sits
next to the daemon under test (same build directory) unless
$VXBRDCTL_BINARY names it."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path
from typing import Optional

import pytest


def vxbrdctl_path() -> str:
    """The vxbrdctl to test; fails the test run when it is not built."""
    configured = os.environ.get("VXBRDCTL_BINARY")
    if configured:
        path = Path(configured)
    else:
        daemon = os.environ.get("VXBRD_BINARY")
        build = Path(daemon).resolve().parent if daemon else Path(__file__).parents[2] / "build"
        path = build / "vxbrdctl"
    if not (path.is_file() and os.access(path, os.X_OK)):
        pytest.fail(f"vxbrdctl not found at {path}: build it or set VXBRDCTL_BINARY",
                    pytrace=False)
    return str(path.resolve())


def ctl(binary: str, *args: str, socket_path: Optional[str] = None,
        prefix: tuple = ()) -> subprocess.CompletedProcess:
    """Runs vxbrdctl (after `prefix`, e.g. nsenter) with -s socket_path if given."""
    command = [*prefix, binary]
    if socket_path is not None:
        command += ["-s", socket_path]
    return subprocess.run(command + list(args), capture_output=True, text=True, timeout=20)
