# From Python to a `korvalin serve` server (a real process on a free loopback port): a program
# started with KORVALIN_SERVICE_URL and KORVALIN_TOKEN works on the server, and the server's
# refusals arrive as Python's PermissionError.
import os
import queue
import re
import subprocess
import sys
import textwrap
import threading

import pytest

DEADLINE = 60
PROGRAM = os.environ.get("KORVALIN_PROGRAM")

CHILD = textwrap.dedent("""
    import sys
    from korvalin_client.com import connection_manager
    from korvalin_client.group.cloud_group import CloudGroup
    CloudGroup.create_group("served", "over http", int(sys.argv[1]))
    g = CloudGroup("served", "origin")
    exp = g.create_exp("rabi", "")
    exp.sweep("/q0/drive/amp", [0.0, 0.25, 0.5]).measure_quantities(["I", "Q"])
    res = g.pull_result(g.submit_exp(exp))
    print(connection_manager.get_connection_type(), len(res), res["I"].dtype)
""")


def admin(storage, *args):
    return subprocess.run([PROGRAM, "admin", *args, "--storage", storage], check=True,
                          capture_output=True, text=True, timeout=DEADLINE).stdout


@pytest.mark.skipif(not PROGRAM, reason="needs KORVALIN_PROGRAM (the korvalin program)")
def test_a_program_works_on_a_server(tmp_path):
    storage = str(tmp_path / "served")
    org = re.search(r"\((\d+)\)", admin(storage, "user", "add", "ana", "--org", "lab")).group(1)
    token = admin(storage, "token", "create", "ana").strip().splitlines()[-1]
    server = subprocess.Popen([PROGRAM, "serve", "--listen", "127.0.0.1:0", "--storage", storage],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    lines = queue.Queue()
    threading.Thread(target=lambda: [lines.put(l) for l in server.stdout], daemon=True).start()
    try:
        while not (m := re.search(r"listening on (http://127\.0\.0\.1:\d+)", lines.get(timeout=DEADLINE))):
            pass
        env = dict(os.environ, KORVALIN_SERVICE_URL=m.group(1), KORVALIN_TOKEN=token,
                   KORVALIN_CACHE_DIR=str(tmp_path / "cache"))
        run = subprocess.run([sys.executable, "-c", CHILD, org], env=env, capture_output=True,
                             text=True, timeout=DEADLINE)
        assert run.returncode == 0, run.stderr
        assert run.stdout.split() == ["http", "3", "float64"]

        env["KORVALIN_TOKEN"] = "kvt_" + "0" * 64
        refused = subprocess.run([sys.executable, "-c", CHILD, org], env=env, capture_output=True,
                                 text=True, timeout=DEADLINE)
        assert refused.returncode != 0 and "PermissionError" in refused.stderr
        assert token not in refused.stderr
    finally:
        server.terminate()
        server.wait(DEADLINE)
