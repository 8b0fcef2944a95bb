"""The pages of the documentation: their blocks, and the shell that their transcripts are played in.

The word behind the fence says what becomes of a block:
  console          a transcript, which is played and compared (class Step says how)
  sh               commands that no test runs; tests/commands_not_run.txt gives the reason for each
  LANGUAGE NAME    a file: it is written where the commands below run
  LANGUAGE         something to look at; LANGUAGES has those there are
"""
import dataclasses
import difflib
import os
import pathlib
import re
import select
import signal
import subprocess
import termios
import time

from conftest import DEADLINE, TOP, wait_for

LANGUAGES = {"console", "sh", "text", "xml", "yaml", "ini", "cpp"}
# Commands that change nothing: what they print is waited for.
LOOKS = re.compile(r"zolctl (status|doctor|log|policy (show|explain)|vconf (get|list)|kpi list|report (list|show))\b"
                   r"|zol_collector --status|dlogutil -d|busctl get-property")
# A line that was cleared again, and colours.
ESCAPE = re.compile(r"[^\n]*\r\x1b\[K|\x1b\[[0-9;]*[A-Za-z]")


def pages():
    return [TOP / "README.md", TOP / "CONTRIBUTING.md", *sorted((TOP / "docs").glob("*.md"))]


def name_of(page):
    return str(page.relative_to(TOP))


@dataclasses.dataclass
class Block:
    """A fenced block. `line` is that of the fence, from 1; `file` is the name behind the language."""
    line: int
    language: str
    file: str
    lines: list


def blocks(page):
    found = []
    block = indent = None
    for number, line in enumerate(page.read_text().splitlines(), 1):
        fence = re.fullmatch(r"( *)```\s*(\S*)\s*(\S*)\s*", line)
        if block is None and fence:
            indent = len(fence[1])
            block = Block(number, fence[2], fence[3], [])
        elif fence:
            found.append(block)
            block = None
        elif block is not None:
            block.lines.append(line[indent:])
    assert block is None, f"{page}:{block.line}: this block has no end"
    return found


def text_of(page):
    """The lines outside blocks, with their numbers."""
    inside = False
    for number, line in enumerate(page.read_text().splitlines(), 1):
        if line.lstrip().startswith("```"):
            inside = not inside
        elif not inside:
            yield number, line


@dataclasses.dataclass
class Step:
    """A command of a transcript, and what it prints.

    "$ " stands before a command, "> " before each further line of it. In what it prints, standard output and error as
    a terminal shows them, `...` stands for any text in a line, and for any lines where it is a line; `^C` at the end
    interrupts the command when the rest is printed. A command ends with status 0 unless `$ echo $?` comes next.
    """
    line: int
    command: str
    expected: list
    is_interrupted: bool = False

    def is_shown(self, output):
        return fullmatch(self.expected, output)

    def difference(self, output):
        return "\n".join(difflib.unified_diff(self.expected, output.splitlines(), "the page", "the command", "", "",
                                              lineterm=""))


def steps(block):
    found = []
    for number, line in enumerate(block.lines, block.line + 1):
        if line.startswith("$ "):
            found.append(Step(number, line[2:], []))
        elif line.startswith("> ") and not found[-1].expected:
            found[-1].command += "\n" + line[2:]
        elif line == "^C":
            found[-1].is_interrupted = True
        else:
            found[-1].expected.append(line)
    return found


def fullmatch(expected, output):
    """Whether output is what the lines say, in which `...` stands for anything."""
    patterns = [r"(?:.*\n)*?" if line == "..." else ".*?".join(map(re.escape, line.split("..."))) + r"\n"
                for line in expected]
    return re.fullmatch("".join(patterns), output) is not None


class Shell:
    """A bash whose commands print to a terminal."""

    END = "end of command, status"

    def __init__(self, env, folder):
        self.terminal, inner = os.openpty()
        modes = termios.tcgetattr(inner)
        modes[1] &= ~termios.OPOST
        termios.tcsetattr(inner, termios.TCSANOW, modes)
        # Who runs the tests in the background ignores the signal that some pages send, and bash cannot undo that.
        self.process = subprocess.Popen(["bash", "--norc"], stdin=subprocess.PIPE, stdout=inner, stderr=inner,
                                        env=env, cwd=folder, start_new_session=True,
                                        preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
        self.folder = folder
        os.close(inner)
        self.printed = b""

    def play(self, step):
        """What the step printed in the end, and its exit status; None when it was interrupted."""
        end = time.monotonic() + DEADLINE
        while True:
            output, status = self.run(step)
            if step.is_shown(output) or not LOOKS.match(step.command) or time.monotonic() > end:
                return output, status
            time.sleep(0.02)

    def run(self, step):
        before = self.children()
        # `$?` is left as it was.
        tell = f"status=$?; printf '\\n%s %d\\n' '{self.END}' $status; (exit $status)"
        self.process.stdin.write(f"{step.command}\n{tell}\n".encode())
        self.process.stdin.flush()
        self.printed = b""
        if step.is_interrupted:
            self.read(lambda: step.is_shown(shown(self.printed)), step)
            for child in wait_for(lambda: self.children() - before, "the command"):
                os.kill(child, signal.SIGINT)
        last = re.compile(rb"\n%s (\d+)\n" % self.END.encode())
        self.read(lambda: last.search(self.printed), step)
        output, status, _ = last.split(self.printed)
        return shown(output), None if step.is_interrupted else int(status)

    def read(self, is_enough, step):
        end = time.monotonic() + DEADLINE
        while not is_enough():
            ready, _, _ = select.select([self.terminal], [], [], max(0, end - time.monotonic()))
            assert ready, f"'{step.command}' does not end; so far: {self.printed.decode(errors='replace')}"
            self.printed += os.read(self.terminal, 65536)

    def children(self):
        """Processes that the shell, or one that was started in it, waits for."""
        found = set()
        for folder in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                after_name = (folder / "stat").read_text().rpartition(")")[2].split()
            except OSError:
                continue
            if int(after_name[1]) == self.process.pid:
                found.add(int(folder.name))
        return found

    def close(self):
        self.process.stdin.close()
        self.process.kill()
        self.process.wait()
        os.close(self.terminal)


def shown(printed):
    """What a terminal shows of it, every line ended."""
    text = ESCAPE.sub("", printed.decode(errors="replace").replace("\r\n", "\n")).expandtabs(8)
    return text if not text or text.endswith("\n") else text + "\n"
