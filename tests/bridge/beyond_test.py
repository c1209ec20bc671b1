#!/usr/bin/env python3
"""The six commands of docs/beyond.md, as they stand there: beyond_test.py PAGE FOLDER... of programs.
In a network of its own, as their ports are fixed."""

import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile

from engine import enter_own_network, wait_until

if not enter_own_network():
    sys.exit(77)

PAGE, *FOLDERS = sys.argv[1:]
os.environ["PATH"] = ":".join([*map(os.path.abspath, FOLDERS), os.environ["PATH"]])
commands = re.findall(r"^\$ (.*)$", pathlib.Path(PAGE).read_text(), re.M)
assert len(commands) == 6, commands


def answers(port):
    try:
        socket.create_connection(("127.0.0.1", port), 1).close()
        return True
    except OSError:
        return False


with tempfile.TemporaryDirectory() as folder:
    running = []
    try:
        for number, command in enumerate(commands):
            process = subprocess.Popen(f"exec {command}" if number < 5 else command, shell=True, cwd=folder,
                                       text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            running.append(process)
            for port in {0: [4222], 1: [4711], 2: [4712, 4713]}.get(number, []):
                wait_until(lambda: answers(port), command)
        for process in running[3:5]:
            said = process.communicate(timeout=60)[0]
            assert said.endswith("Press 19 It rains in Berlin.\n"), said
        assert running[5].wait(60) == 0
        for process in running[1:3]:
            process.send_signal(signal.SIGTERM)
            said = process.communicate(timeout=60)[0]
            assert process.returncode == 0, said
    finally:
        for process in running:
            process.kill()
            process.wait()
