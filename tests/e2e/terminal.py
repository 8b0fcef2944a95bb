"""Programs on a terminal."""
import os
import pty
import subprocess


def on_terminal(machine, *command, output=None, **environment):
    """What a program shows on a terminal.

    With `output`, a file, its standard output goes there and no more than its standard error to the terminal.
    """
    controller, terminal = pty.openpty()
    process = subprocess.Popen([str(word) for word in command], env={**machine.env, **environment},
                               stdin=terminal, stdout=output or terminal, stderr=terminal)
    os.close(terminal)
    shown = b""
    try:
        while chunk := os.read(controller, 65536):
            shown += chunk
    except OSError:
        pass  # nobody holds the terminal any more
    os.close(controller)
    process.wait(timeout=60)
    return shown.decode().replace("\r\n", "\n")
