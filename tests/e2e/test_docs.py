"""What README, CONTRIBUTING and docs show: commands are played and their output compared, names and links exist."""
import functools
import json
import os
import pathlib
import re
import signal
import subprocess

import pytest

import pages
import services
import upload_server
from conftest import BIN, BUILD, EMULATOR, TOP, wait_for
from reports import another_second

NOT_RUN = TOP / "tests" / "commands_not_run.txt"
PROGRAMS = f"{BIN}:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

every_page = pytest.mark.parametrize("page", pages.pages(), ids=pages.name_of)
played_page = pytest.mark.parametrize(
    "page", [page for page in pages.pages() if any(block.language == "console" for block in pages.blocks(page))],
    ids=pages.name_of)


# --- transcripts ----------------------------------------------------------------------------------------------

def clone(folder):
    """A folder that looks like a clone of this project which was built; what is made there stays there."""
    (folder / "build").mkdir(parents=True)
    for entry in TOP.iterdir():
        if not entry.name.startswith(".") and entry.name != "build":
            (folder / entry.name).symlink_to(entry)
    for preset in ("dev", "release"):
        (folder / "build" / preset).symlink_to(BUILD)
    return folder


def end_all_of(folder):
    """Ends what was started with this folder for temporary files."""
    wanted = f"TMPDIR={folder}".encode()

    def left():
        found = []
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if wanted in (process / "environ").read_bytes().split(b"\0") and (process / "cmdline").read_bytes():
                    found.append(int(process.name))
            except OSError:
                continue
        for pid in found:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        return found
    wait_for(lambda: not left(), "the end of what a page has started")


@pytest.fixture(name="shell")
def make_shell(machine, page):
    """A shell in a clone. A page is told of a television with its services and a daemon; README starts its own."""
    scratch = machine.folder / "scratch"
    scratch.mkdir()
    env = dict(machine.env, PATH=PROGRAMS, TMPDIR=str(scratch), TERM="xterm", LC_ALL="C.UTF-8", TZ="UTC0")
    for name in [name for name in env if name == "NO_COLOR" or name.lower().endswith("_proxy")]:
        env.pop(name)
    daemon = server = None
    if page.name == "README.md":
        env.pop("ZOL_ROOT")
        env.pop("DBUS_SYSTEM_BUS_ADDRESS")
    else:
        services.Bluez(machine)
        services.Logind(machine)
        server = upload_server.Server()
        env["SERVER"] = server.url
        daemon = machine.start_daemon()
        PREPARE.get(page.name, lambda *_: None)(machine, server)
    shell = pages.Shell(env, clone(machine.folder / "zol"))
    yield shell
    shell.close()
    end_all_of(scratch)
    if server:
        server.close()
    if daemon:
        assert daemon.process.poll() is not None or daemon.stop() == 0, daemon.output()


def count_uploads(machine):
    told = subprocess.run([BIN / "zol_collector", "--status", "--json"], env=machine.env, capture_output=True,
                          text=True, check=False)
    return json.loads(told.stdout)["counts"]["uploaded"] if told.returncode == 0 else 0


def watch_and_hit(machine, server):
    """The example policy, a report of it that was uploaded, and another one for which no collector has come yet."""
    assert machine.zolctl("policy", "push", TOP / "examples" / "policy.xml").returncode == 0
    machine.set("db/menu/picture/backlight", "10", "int")
    collector = machine.start(BIN / "zol_collector", "--upload", server.url, stderr=subprocess.DEVNULL)
    wait_for(lambda: count_uploads(machine) == 1, "the upload")
    collector.terminate()
    assert collector.wait() == 0
    another_second()
    machine.set("db/menu/picture/backlight", "10", "int")
    wait_for(lambda: len(machine.kpi()) == 2, "the second event")


# What is so before a page begins.
PREPARE = {"operator.md": watch_and_hit}


@pytest.mark.skipif(bool(EMULATOR), reason="emulated programs cannot start others, which some pages show")
@played_page
def test_commands_print_what_their_page_shows(page, shell):
    for block in pages.blocks(page):
        place = f"{pages.name_of(page)}:{block.line}"
        if block.file:
            pathlib.Path(shell.folder, block.file).write_text("\n".join(block.lines) + "\n")
        transcript = pages.steps(block) if block.language == "console" else []
        assert transcript or block.language != "console", f"{place}: a transcript without a command"
        for step, following in zip(transcript, [*transcript[1:], None]):
            output, status = shell.play(step)
            place = f"{pages.name_of(page)}:{step.line}: {step.command}"
            assert step.is_shown(output), f"{place}\n{step.difference(output)}"
            told = following is not None and following.command == "echo $?"
            assert status in (0, None) or told, f"{place}\nends with {status}, which the page does not tell"


@pytest.mark.parametrize("expected, output, same", [
    (["one", "two"], "one\ntwo\n", True), (["one"], "one\ntwo\n", False), (["one", "two"], "one\n", False),
    (["a ... c"], "a b c\n", True), (["a ... c"], "a b\nb c\n", False), (["a.c"], "abc\n", False),
    (["..."], "", True), (["one", "...", "four"], "one\ntwo\nthree\nfour\n", True), (["..."], "no end", False),
    (["one", "..."], "two\n", False), ([], "", True), ([], "one\n", False)])
def test_three_dots_in_a_page_stand_for_anything_in_a_line_or_for_any_lines(expected, output, same):
    assert pages.fullmatch(expected, output) == same


# --- what is not run ------------------------------------------------------------------------------------------

def commands(block):
    """The commands of a list, one a line unless a backslash joins two, without comments."""
    text = "\n".join(block.lines).replace("\\\n", " ")
    return [command for command in (re.sub(r"(^|\s)#.*", "", line).strip() for line in text.splitlines()) if command]


def left_out():
    """Page and command of those that no test runs."""
    lines = [line.split("\t") for line in NOT_RUN.read_text().splitlines()]
    assert all(len(fields) == 3 and all(fields) for fields in lines), f"{NOT_RUN}: page, command, reason"
    return [(page, re.sub(r"\s+", " ", command)) for page, command, _ in lines]


def listed():
    """The same, as pages show them."""
    return [(pages.name_of(page), re.sub(r"\s+", " ", command)) for page in pages.pages()
            for block in pages.blocks(page) if block.language == "sh" for command in commands(block)]


def test_each_command_that_is_not_run_is_listed_with_the_reason():
    without_reason = sorted(set(listed()) - set(left_out()))
    assert without_reason == [], f"not in {NOT_RUN.name}"
    not_shown = sorted(set(left_out()) - set(listed()))
    assert not_shown == [], f"in {NOT_RUN.name}, and no page shows it"


@every_page
def test_a_block_says_what_it_is(page):
    wrong = [f"{page}:{block.line}" for block in pages.blocks(page) if block.language not in pages.LANGUAGES]
    wrong += [f"{page}:{block.line}: a command" for block in pages.blocks(page) if block.language != "console"
              for line in block.lines if line.startswith("$ ")]
    # What is indented is a block that says nothing.
    wrong += [f"{page}:{number}: {line}" for number, line in pages.text_of(page) if re.match(r" {4,}\S|\t", line)]
    assert wrong == []


@every_page
def test_commands_that_are_not_run_can_be_read_by_a_shell(page):
    for block in pages.blocks(page):
        if block.language == "sh":
            read = subprocess.run(["bash", "-n"], input="\n".join(block.lines), capture_output=True, text=True,
                                  check=False)
            assert (read.returncode, read.stderr) == (0, ""), f"{page}:{block.line}"


# --- names in commands, run or not, in blocks and in sentences --------------------------------------------------

@functools.cache
def help_of(*command):
    """What a command says of itself; None when there is no such command."""
    told = subprocess.run([*command, "--help"], env=dict(os.environ, ZOL_ROOT="/nonexistent"), capture_output=True,
                          text=True, check=False, cwd=TOP)
    return told.stdout if told.returncode == 0 else None


def shown_commands(page):
    """Everything that is shown as a command or a part of one."""
    yield from (command for block in pages.blocks(page) if block.language == "sh" for command in commands(block))
    for number, line in pages.text_of(page):
        del number
        yield from re.findall(r"`([^`]+)`", line)


def unknown_options(command, about):
    """Options of a command that its help does not have."""
    return [option for option in re.findall(r"(?<![\w-])--?[a-z][\w-]*", command)
            if not re.search(rf"(?<![\w-]){re.escape(option)}(?![\w-])", about)]


def verbs_of(*path):
    """The commands below a command of zolctl."""
    return re.findall(r"^  (\w+)  ", help_of(str(BIN / "zolctl"), *path).partition("ommands:\n")[2], re.MULTILINE)


def scripts_of(command):
    """Scripts in a command, each with its words."""
    for name, words in re.findall(r"(?:^|[\s;&|])scripts/([\w-]+)([^;&|]*)", command):
        yield f"scripts/{name}", words


@every_page
def test_scripts_that_are_shown_exist_and_know_their_options(page):
    for command in shown_commands(page):
        for script, words in scripts_of(command):
            if script == "scripts/lib" or script == "scripts/demo-machine":
                continue  # shared by the others
            about = help_of(str(TOP / script))
            assert about is not None, f"{page.name}: {command}: there is no such script"
            assert unknown_options(words, about) == [], f"{page.name}: {command}"


@pytest.mark.skipif(bool(EMULATOR), reason="the other builds know the same commands")
@every_page
def test_commands_of_zolctl_that_are_named_exist_and_know_their_options(page):
    for command in shown_commands(page):
        words = command.split()
        if words[0] == "zolctl":
            path, words = [], words[1:]
            while words and verbs_of(*path):
                assert words[0] in verbs_of(*path) or words[0].startswith("-"), f"{page.name}: {command}: {words[0]}"
                path.append(words.pop(0))
            about = help_of(str(BIN / "zolctl"), *path)
            assert unknown_options(" ".join(words), about) == [], f"{page.name}: {command}"


@every_page
def test_build_options_presets_and_units_that_are_shown_exist(page):
    cmake = "\n".join(file.read_text() for file in (TOP / "CMakeLists.txt", *(TOP / "cmake").glob("*.cmake")))
    known = {preset["name"] for preset in json.loads((TOP / "CMakePresets.json").read_text())["configurePresets"]}
    packaged = {file.name.removesuffix(".in") for file in (TOP / "packaging").iterdir()}
    for command in shown_commands(page):
        assert all(re.search(rf"(?:option|set)\({name}\b", cmake)
                   for name in re.findall(r"-D(ZOL_\w+)", command)), command
        assert set(re.findall(r"--preset[ =](\w+)", command)) - {"NAME"} <= known, command
        assert set(re.findall(r"\bzol[\w-]*\.(?:service|socket)\b", command)) <= packaged, command


# --- links ----------------------------------------------------------------------------------------------------

def anchor(heading):
    """As the viewers of such pages make it."""
    text = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading.lstrip("#").strip().lower())
    return re.sub(r"[^\w\- ]", "", text).replace(" ", "-")


@functools.cache
def anchors(page):
    return {anchor(line) for _, line in pages.text_of(page) if line.startswith("#")}


@every_page
def test_links_lead_somewhere(page):
    for number, line in pages.text_of(page):
        for link in re.findall(r"\]\(([^)\s]+)\)", line):
            if not link.startswith("http"):
                path, _, place = link.partition("#")
                target = (page.parent / path).resolve() if path else page
                assert target.exists(), f"{page}:{number}: {link}"
                assert not place or place in anchors(target), f"{page}:{number}: {link}: no such heading"


@every_page
def test_each_page_is_linked_from_another_one(page):
    if page.name not in ("README.md", "CONTRIBUTING.md"):
        linked = [other for other in pages.pages() if other != page
                  and re.search(rf"\]\((?:docs/)?{re.escape(page.name)}[)#]", other.read_text())]
        assert linked, f"nobody finds {page.name}"
