# Waiting in Python: a pull releases the GIL while it waits, and Ctrl-C (SIGINT to a real
# process) stops the library's waits at once with KeyboardInterrupt: a live pull, and a retry
# loop (20 tries, 0.5 s apart) in the middle of its pauses.
import _thread
import os
import queue
import signal
import subprocess
import sys
import textwrap
import threading
import time

import pytest

from conftest import scan
from korvalin_client.group.cloud_group import CloudGroup

DEADLINE = 60  # seconds for anything to happen at all


def test_a_pull_lets_other_threads_run(group):
    exp_id = group.submit_exp(scan(group, 100_000))
    name = group.group_name  # read now: the group serves its pulling thread alone meanwhile
    first_update = threading.Event()
    outcome = []

    def pull():
        try:
            group.pull_result(exp_id, update_callback=lambda **_: first_update.set())
            outcome.append("returned")
        except Exception as e:  # the experiment is stopped below
            outcome.append(e)

    puller = threading.Thread(target=pull)
    puller.start()
    assert first_update.wait(DEADLINE)
    # While the pull waits in its loop, this thread calls the library and gets its answer.
    assert CloudGroup.get_experiment(exp_id)["status"] == "running"
    assert puller.is_alive()
    CloudGroup(name).terminate_exp(exp_id)
    puller.join(DEADLINE)
    assert not puller.is_alive() and outcome


def test_an_interrupted_pull_leaves_the_service_running(group):
    exp_id = group.submit_exp(scan(group, 100_000))
    with pytest.raises(KeyboardInterrupt):
        # As if Ctrl-C came during the first update: the pull's next pause raises it.
        group.pull_result(exp_id, update_callback=lambda **_: _thread.interrupt_main())
    group.terminate_exp(exp_id)
    # The embedded service's worker was not interrupted with it: the next run completes.
    assert len(group.pull_result(group.submit_exp(scan(group, 60)))) == 60


CHILD = textwrap.dedent("""
    import sys, time
    from korvalin_client.group.cloud_group import CloudGroup
    CloudGroup.create_group("interrupted", "test", 1)
    g = CloudGroup("interrupted", "origin")
    try:
        if sys.argv[1] == "live":
            exp = g.create_exp("long", "")
            exp.sweep("/q0/drive/amp", [i / 1e5 for i in range(100_000)]).measure_quantity("I")
            g.pull_result(g.submit_exp(exp), update_callback=lambda **_: print("update", flush=True))
        else:
            # An unknown experiment: each failed try prints a line, then pauses.
            g._get_experiment_detail_with_retry(999_999)
    except KeyboardInterrupt:
        print("KeyboardInterrupt", flush=True)
        raise
    print("returned", flush=True)
""")


@pytest.mark.parametrize("where", ["live", "retry"])
def test_ctrl_c_stops_a_pull_at_once(tmp_path, where):
    env = dict(os.environ, KORVALIN_STORAGE_DIR=str(tmp_path / "store"),
               KORVALIN_CACHE_DIR=str(tmp_path / "cache"))
    child = subprocess.Popen([sys.executable, "-c", CHILD, where], env=env, text=True,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    lines = queue.Queue()
    threading.Thread(target=lambda: [lines.put(l.strip()) for l in child.stdout], daemon=True).start()
    try:
        # A first update, or a first failed try: the child is in the library's loop.
        while not lines.get(timeout=DEADLINE).startswith(("update", "Get experiment detail")):
            pass
        sent = time.monotonic()
        child.send_signal(signal.SIGINT)
        while (line := lines.get(timeout=DEADLINE)) != "KeyboardInterrupt":
            assert line.startswith(("update", "Get experiment detail", "Retrying")), line
        # The pull ends within a few of its 50 ms slices, not at the end of a pause or a retry.
        assert time.monotonic() - sent < 2.0
        assert child.wait(DEADLINE) != 0
        assert "KeyboardInterrupt" in child.stderr.read()
    finally:
        child.kill()
        child.wait()
