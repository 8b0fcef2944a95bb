"""What runs commands inside the virtual machine for the trials outside.

One thread for each virtio-serial port, which says "hello" first; a request is a line of JSON and is answered by one:

    {"command": [...], "user": name or null, "stdin": text, "timeout": seconds}
    {"status": exit status, "stdout": text, "stderr": text}
"""
import glob
import json
import subprocess
import threading


def answer(request):
    """Runs one command; what cannot be run is a status of its own, 127, as a shell has it."""
    become = ["setpriv", "--reuid", request["user"], "--regid", request["user"], "--init-groups"]
    command = (become if request["user"] else []) + request["command"]
    try:
        done = subprocess.run(command, input=request["stdin"], capture_output=True, text=True, errors="replace",
                              timeout=request["timeout"], check=False)
    except (OSError, subprocess.TimeoutExpired) as error:
        return {"status": 127, "stdout": "", "stderr": str(error)}
    return {"status": done.returncode, "stdout": done.stdout, "stderr": done.stderr}


def serve(path):
    with open(path, "r+b", buffering=0) as port:
        port.write(b"hello\n")
        waiting = b""
        while True:
            waiting += port.read(65536)
            while b"\n" in waiting:
                line, waiting = waiting.split(b"\n", 1)
                reply = json.dumps(answer(json.loads(line))).encode() + b"\n"
                while reply:
                    reply = reply[port.write(reply):]


def main():
    for path in glob.glob("/dev/vport*p*"):
        threading.Thread(target=serve, args=[path]).start()


main()
