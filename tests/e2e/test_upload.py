"""zol_collector --upload: what the server gets, and what becomes of a report for each of its answers."""
import os
import pathlib
import shutil
import signal
import socket
import subprocess

import pytest

import upload_server
from collecting import Collector
from conftest import BIN, EMULATOR, HANDOVER_KEY, wait_for
from reports import make_report, publish

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="an emulated collector cannot start another program")


@pytest.fixture(name="server")
def make_server():
    server = upload_server.Server()
    yield server
    server.close()


@pytest.fixture(autouse=True)
def clear_proxies(machine):
    for name in [name for name in machine.env if name.lower().endswith("_proxy")]:
        machine.env.pop(name)


@pytest.fixture(name="start")
def make_start(machine, server):
    def start(*arguments, url=None):
        return Collector(machine, "--upload", url or server.url, "--upload-timeout", "1", *arguments).started()
    return start


def hand_over(machine, number=1, **options):
    """A report that is published and taken; its name."""
    path = make_report(machine, f"t_{number}", age=0, **options)
    publish(machine, path)
    wait_for(lambda: machine.get(HANDOVER_KEY) == "", "an empty key")
    return f"t_{number}"


def collected(machine, **options):
    """A report in the spool of a collector that uploads nothing; the folder of its entry."""
    collector = Collector(machine).started()
    hand_over(machine, **options)
    collector.stop()
    entry, = (collector.spool / "reports").iterdir()
    return entry


def upload(machine, server, entry, scratch):
    return subprocess.run([BIN / "zol_upload", "--url", server.url, "--scratch", scratch, entry], env=machine.env,
                          capture_output=True, text=True, timeout=60, check=False)


def counts(collector):
    return collector.status()["counts"]


def wait_uploaded(collector, number=1):
    wait_for(lambda: counts(collector)["uploaded"] == number, f"{number} uploads in {collector.said()}")


def test_a_report_arrives_with_its_header_first_and_its_files_packed(machine, server, start):
    collector = start()
    name = hand_over(machine, files={"core": b"x" * 300000, "below/log": b"line\n"})
    wait_uploaded(collector)

    (_, upload), = server.uploads
    assert upload.parts[0].get_param("name", header="content-disposition") == "header"
    assert upload.header["id"] == "HW-1" and upload.header["evid"] == "1"
    assert upload.name == name and upload.whole == "true" and len(upload.id) == 64
    assert upload.headers["Idempotency-Key"] == upload.id
    assert upload.files == {"core.gz": b"x" * 300000, "below/log.gz": b"line\n"}
    assert collector.names() == [] and list((collector.spool / ".incoming").iterdir()) == []


def test_what_cannot_be_packed_is_sent_as_it_is(machine, server):
    entry = collected(machine, files={"core": b"x" * 300000, "below/log": b"line\n"})

    sent = upload(machine, server, entry, scratch="/proc/none")

    assert (sent.returncode, sent.stdout) == (0, "")
    assert server.uploads[0][1].files == {"core": b"x" * 300000, "below/log": b"line\n"}


def test_what_is_packed_in_part_gives_its_room_back_before_the_report_is_sent(machine, server):
    entry = collected(machine, files={"core": os.urandom(300000)})
    small = machine.path("/small")
    small.mkdir()
    left = []

    def look(handler):
        del handler
        left.append(list(pathlib.Path(f"/proc/{process.pid}/root{small}/upload").iterdir()))

    server.answers = [look]
    root = [] if os.geteuid() == 0 else ["--map-root-user"]
    mount = f"mount -t tmpfs -o size=64k tmpfs {small} && exec \"$0\" \"$@\""
    process = machine.start("unshare", "--mount", *root, "sh", "-c", mount, BIN / "zol_upload", "--url", server.url,
                            "--scratch", small, entry)

    assert process.wait(timeout=60) == 3, "it had no answer"
    assert left == [[]]


def test_what_a_killed_upload_has_left_goes_with_the_next(machine, server):
    entry = collected(machine)
    left = machine.path("/scratch/upload")
    left.mkdir(parents=True)
    (left / "0").write_text("packed")

    assert upload(machine, server, entry, scratch=left.parent).returncode == 0

    assert list(left.parent.iterdir()) == []


def test_reports_arrive_in_the_order_in_which_they_were_taken(machine, server, start):
    server.answers = [500]
    collector = start()
    names = [hand_over(machine, number) for number in (3, 1, 2)]
    wait_uploaded(collector, 3)

    assert server.names() == names and server.names(500) == names[:1]
    assert server.uploads[0][1].id == server.uploads[1][1].id
    assert len({upload.id for status, upload in server.uploads if status == 200}) == 3


@pytest.mark.parametrize("answer, words", [
    (500, "the server answers 500"), (503, "answers 503"), (408, "answers 408"), (429, "answers 429"),
    ((302, {"Location": "http://127.0.0.1:9/"}), "answers 302"), (upload_server.hang, "Operation too slow"),
    (upload_server.reset, "reset by peer"), (upload_server.garbage, "HTTP/0.9"), (upload_server.trickle, "timed out")],
    ids=["500", "503", "408", "429", "redirect", "hang", "reset", "garbage", "trickle"])
def test_what_may_work_another_time_is_one_line_and_tried_again(machine, server, start, answer, words):
    server.answers = [answer]
    collector = start()
    hand_over(machine)
    wait_uploaded(collector)

    assert sum(words in line for line in collector.said()) == 1, collector.said()
    collector.wait_said("uploads go on")
    assert server.names() == ["t_1"] and counts(collector)["refused"] == 0


def test_what_fails_several_times_is_one_line(machine, server, start):
    collector = start()
    for number, answers in enumerate(([500, 500, 502], [], [502]), 1):
        server.answers = answers
        hand_over(machine, number)
        wait_uploaded(collector, number)

    assert len(server.names(500)) == 2
    said = [word for line in collector.said() for word in ("answers 500", "answers 502", "uploads go on")
            if word in line]
    assert said == ["answers 500", "answers 502", "uploads go on", "answers 502", "uploads go on"]


@pytest.mark.parametrize("status", [400, 401, 404, 413])
def test_what_the_server_does_not_want_is_set_aside_and_counted(machine, server, start, status):
    server.answers = [status]
    collector = start()
    hand_over(machine, 1)
    hand_over(machine, 2)
    wait_uploaded(collector)

    assert [(report["name"], report["state"]) for report in collector.status()["reports"]] == [("t_1", "refused")]
    assert counts(collector)["refused"] == 1 and server.names() == ["t_2"]
    assert sum(f"the server answers {status}" in line for line in collector.said()) == 1


def test_an_answer_without_an_end_is_not_read_to_the_end(machine, server, start):
    server.answers = [upload_server.flood]
    collector = start()
    hand_over(machine)
    wait_uploaded(collector)

    assert len(server.times) == 1


def test_the_server_says_when_to_come_again(machine, server, start):
    server.answers = [(503, {"Retry-After": "3"})]
    collector = start()
    hand_over(machine, 1)
    collector.wait_said("answers 503")
    hand_over(machine, 2)
    wait_uploaded(collector, 2)

    assert 3 <= server.times[1] - server.times[0]


def test_what_waits_is_sent_by_the_next_collector(machine, server, start):
    first = Collector(machine).started()
    hand_over(machine, 1)
    hand_over(machine, 2)
    assert first.stop(signal.SIGKILL) == -signal.SIGKILL

    wait_uploaded(start(), 2)
    assert server.names() == ["t_1", "t_2"]


def test_an_upload_that_was_cut_off_is_made_again_with_the_same_id(machine, server, start):
    server.answers = [upload_server.hang]
    collector = Collector(machine, "--upload", server.url, "--upload-timeout", "3600").started()
    name = hand_over(machine, files={"core": os.urandom(100000)})
    wait_for(lambda: server.times, "an upload under way")
    held = collector.status()["reports"][0]["id"]
    collector.stop()

    wait_uploaded(start())
    assert server.names() == [name] and server.uploads[0][1].id == held


def test_a_report_of_which_only_the_header_is_left_says_so(machine, server):
    collector = Collector(machine, "--max-bytes", "64KB").started()
    hand_over(machine, files={"core": b"x" * 100000})
    collector.stop()

    wait_uploaded(Collector(machine, "--upload", server.url).started())
    assert server.uploads[0][1].whole == "false" and server.uploads[0][1].files == {}


def test_no_server_at_all_is_one_line_until_there_is_one(machine, start):
    with socket.socket() as nobody:
        nobody.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        nobody.bind(("127.0.0.1", 0))
        port = nobody.getsockname()[1]
        collector = start(url=f"http://127.0.0.1:{port}/")
        hand_over(machine)
        collector.wait_said("tried again later")
        assert collector.names() == ["t_1"]
        server = upload_server.Server(port=port)
        try:
            wait_uploaded(collector)
        finally:
            server.close()

    assert sum("not uploaded" in line and "Failed to connect" in line for line in collector.said()) == 1
    collector.wait_said("uploads go on")


def test_what_cannot_be_read_does_not_hold_up_the_others(machine, server, start):
    broken = machine.folder / "spool" / "reports" / "000000000001-broken"
    broken.parent.mkdir(parents=True)
    broken.write_text("")
    collector = start()

    hand_over(machine)
    wait_uploaded(collector)
    hand_over(machine, 2)
    wait_uploaded(collector, 2)

    assert sum("cannot be read, tried again behind the others" in line for line in collector.said()) == 1
    assert broken.exists()


def test_a_wrong_url_is_refused_at_once(machine):
    collector = Collector(machine, "--upload", "ftp://127.0.0.1/")

    assert collector.process.wait(timeout=60) == 2
    assert len(collector.said()) == 1 and "--upload" in collector.said()[0]


def openssl(folder, *words):
    subprocess.run(["openssl", *words], cwd=folder, check=True, capture_output=True)


@pytest.fixture(name="certificates", scope="module")
def make_certificates(tmp_path_factory):
    """ca.pem, and of it server.pem for 127.0.0.1 and device.pem, each with its key."""
    folder = tmp_path_factory.mktemp("certificates")
    openssl(folder, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
            "ca.key", "-out", "ca.pem", "-subj", "/CN=test", "-days", "2")
    for name in ("server", "device"):
        (folder / "extension").write_text("subjectAltName=IP:127.0.0.1\n")
        openssl(folder, "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
                f"{name}.key", "-out", f"{name}.csr", "-subj", f"/CN={name}")
        openssl(folder, "x509", "-req", "-in", f"{name}.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial",
                "-out", f"{name}.pem", "-days", "2", "-extfile", "extension")
    with (folder / "server.pem").open("a") as file:
        file.write((folder / "server.key").read_text())
    yield folder
    shutil.rmtree(folder)


def test_a_server_and_a_device_know_each_other_by_certificates(machine, certificates):
    server = upload_server.Server(certificates)
    device = ["--cert", certificates / "device.pem", "--key", certificates / "device.key"]
    try:
        collector = Collector(machine, "--upload", server.url, "--upload-timeout", "5", *device)
        hand_over(machine)
        collector.wait_said("certificate")
        collector.stop()
        assert server.uploads == []

        trusting = Collector(machine, "--upload", server.url, "--cacert", certificates / "ca.pem")
        trusting.wait_said("not uploaded")
        trusting.stop()
        assert server.uploads == []

        wait_uploaded(Collector(machine, "--upload", server.url, "--cacert", certificates / "ca.pem", *device))
        assert server.names() == ["t_1"]
    finally:
        server.close()


def test_a_proxy_is_asked(machine, server):
    collector = Collector(machine, "--upload", "http://reports.invalid/", "--proxy",
                          server.url.removesuffix("/reports")).started()
    hand_over(machine)

    wait_uploaded(collector)
    assert server.names() == ["t_1"]


def test_the_uploader_says_what_its_answers_are():
    shown = subprocess.run([BIN / "zol_upload", "--help"], capture_output=True, text=True, check=True)
    assert "does not want it" in shown.stdout
    wrong = subprocess.run([BIN / "zol_upload"], capture_output=True, text=True, check=False)
    assert wrong.returncode == 2 and wrong.stderr.count("\n") == 1
