"""Several links in one call: a process for each, on the real clock, with other ends that answer at once."""

import json
import os
import pty
import signal
import subprocess
import tempfile
import threading
import tty

import other_end
import wire
from other_end import HOST, PATIENCE, HostTest, environment


class Answerer(threading.Thread):
    """An end that confirms and answers at once, in a thread of its own; `silent` ones do nothing."""

    def __init__(self, listener, silent=False):
        super().__init__(daemon=True)
        self.listener, self.silent, self.types, self.heard = listener, silent, [], threading.Event()
        self.start()

    def run(self):
        link = self.listener.accept()[0]
        assembly = wire.Assembly()
        try:
            while packet := link.recv(64):
                self.heard.set()
                raw = assembly.add(packet)
                if raw is not None and not self.silent:
                    self.handle(link, wire.Message(raw, 0))
        except OSError:
            pass  # reset
        link.close()

    def handle(self, link, message):
        self.types.append(message.type)
        replies = []
        if message.sequenced:
            replies.append(wire.message(wire.CONFIRMED, bytes([message.number, 0, 0, 0])))
        if message.type == wire.GET_INFO:
            replies.append(wire.message(wire.INFO, wire.words(1, 2, 3)))
        if message.type == wire.CONNECT and wire.UPDATER not in self.types:
            replies.append(wire.message(wire.CONNECT_ANSWER, message.body))
        for reply in replies:
            for packet in wire.packets_of(reply):
                link.send(packet)


class SeveralLinks(HostTest):
    def ends(self, *kinds):
        """Other ends of the kinds "answers", "silent" and "nobody"; returns them and their link options."""
        ends, options = [], []
        for number, kind in enumerate(kinds):
            name = f"s{number}"
            options += ["--socket", self.path(name)]
            ends.append(None if kind == "nobody" else Answerer(self.listen(name), kind == "silent"))
        return ends, options

    def call(self, *words, options=()):
        return subprocess.run([HOST, *words, *options], capture_output=True, text=True, timeout=PATIENCE,
                              env=environment(), stdin=subprocess.DEVNULL)

    def rows(self, done):
        return {
            row[0].rpartition("/")[2]: row[1:]
            for row in (line.split("\t") for line in done.stdout.splitlines())
        }

    def test_print_a_line_for_each(self):
        _, options = self.ends("answers", "nobody", "answers")
        done = self.call("query", "info", "--wait", "0", "--no-pacing", options=options)
        rows = self.rows(done)
        self.assertEqual(done.returncode, 3)
        self.assertEqual({name: (row[0], row[1], row[3:]) for name, row in rows.items()}, {
            "s0": ("0", "answered", ["1 2 3"]), "s1": ("3", "cannot_open", rows["s1"][3:]),
            "s2": ("0", "answered", ["1 2 3"])})
        self.assertEqual(rows["s1"][3:] or [""], [""])
        for line in done.stdout.splitlines():
            self.assertRegex(line.split("\t")[0], "^socket:" + self.folder)
            float(line.split("\t")[3])

    def test_end_with_the_first_code_that_is_not_0_in_the_order_given(self):
        _, options = self.ends("answers", "silent", "nobody")
        self.assertEqual(
            self.call("query", "info", "--wait", "0", "--no-pacing", options=options).returncode, 1)
        _, options = self.ends_again("nobody", "silent")
        self.assertEqual(
            self.call("query", "info", "--wait", "0", "--no-pacing", options=options).returncode, 3)

    def ends_again(self, *kinds):
        self.addCleanup(setattr, self, "folder", self.folder)
        self.folder = tempfile.mkdtemp(dir=self.folder)
        return self.ends(*kinds)

    def test_are_done_when_all_are_done(self):
        ends, options = self.ends(*["answers"] * 12)
        done = self.call("post", "post_21", "7", "--no-pacing", options=options)
        self.assertEqual((done.returncode, len(done.stdout.splitlines())), (0, 12), done.stderr)
        for end in ends:
            end.join(PATIENCE)
            self.assertEqual(end.types, [35, 21])

    def test_have_a_result_each_in_json(self):
        _, options = self.ends("answers", "nobody")
        done = self.call("query", "info", "--wait", "0", "--no-pacing", "--json", options=options)
        results = {
            result["link"].rpartition("/")[2]: result for result in map(json.loads, done.stdout.splitlines())
        }
        self.assertEqual(
            {name: (result["exit"], result["proof"]) for name, result in results.items() if name == "s0"},
            {"s0": (0, "answered")})
        self.assertEqual(results["s1"]["error"]["code"], "cannot_open")
        self.assertEqual(results["s0"]["result"]["fields"], {"a": 1, "b": 2, "c": 3})

    def test_say_each_error_once_and_whose_it_is(self):
        for words in [[], ["--json"], ["--verbose"]]:
            _, options = self.ends_again("nobody", "nobody")
            done = self.call("query", "info", "--wait", "0", *words, options=options)
            errors = [line.split(": ")[1] for line in done.stderr.splitlines() if line.startswith("error: ")]
            self.assertEqual(sorted(errors), [f"socket:{self.folder}/{name}" for name in ("s0", "s1")], done.stderr)

    def test_show_messages_as_trace_prints_them(self):
        _, options = self.ends("answers", "answers")
        done = self.call("query", "info", "--no-pacing", "--verbose", options=options)
        for name in ("s0", "s1"):
            self.assertIn(f"socket:{self.folder}/{name}: in  info (37) number 1, 24 bytes: a=1 b=2 c=3\n", done.stderr)
            self.assertIn(f"socket:{self.folder}/{name}: out get_info (36) number ", done.stderr)

    def test_have_a_line_when_their_process_is_killed(self):
        _, options = self.ends("silent", "answers")
        process = subprocess.Popen([HOST, "query", "info", "--no-pacing", *options], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True, env=environment())
        self.assertIn("s1\t0\tanswered\t", process.stdout.readline())
        with open(f"/proc/{process.pid}/task/{process.pid}/children", encoding="ascii") as children:
            os.kill(int(children.read().split()[0]), signal.SIGKILL)
        out, err = process.communicate(timeout=PATIENCE)
        self.assertRegex(out, r"\Asocket:.*/s0\t4\tinternal\t0.0\t?\n\Z")
        self.assertIn("ended without a result", err)
        self.assertEqual(process.returncode, 4)

    def test_go_on_together(self):
        """With two links, each line comes although the other link is silent."""
        _, options = self.ends("silent", "answers")
        process = subprocess.Popen([HOST, "query", "info", "--no-pacing", *options],
                                   stdout=subprocess.PIPE,
                                   text=True,
                                   env=environment())
        self.addCleanup(process.stdout.close)
        self.assertIn("s1\t0\tanswered\t", process.stdout.readline())
        self.assertIn("s0\t1\tno_peer\t", process.stdout.readline())
        self.assertEqual(process.wait(PATIENCE), 1)

    def test_update_a_line_of_cabinets(self):
        ends, options = self.ends(*["answers"] * 4)
        image = self.file("image", "#!/bin/sh\n")
        done = self.call("update", image, "--watch", "1", "--no-pacing", options=options)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual({row[1] for row in self.rows(done).values()}, {"silent"})
        self.assertEqual(sum(end.types.count(wire.UPDATER) for end in ends), 4)

    def test_send_files_and_run_batches(self):
        _, options = self.ends("answers", "answers")
        done = self.call("batch",
                         self.file("commands", "post post_22\nquery info\n"),
                         "--no-pacing",
                         options=options)
        self.assertEqual((done.returncode, len(self.rows(done))), (0, 2), done.stderr)
        _, options = self.ends_again("answers", "answers")
        done = self.call("send-file", self.file("local", "x"), "relative", "--no-pacing", options=options)
        self.assertEqual(done.returncode, 6)
        self.assertEqual({row[1] for row in self.rows(done).values()}, {"unverified"})

    def test_may_be_devices_as_well(self):
        other, device = pty.openpty()
        tty.setraw(device)
        _, options = self.ends("answers")
        done = self.call("post", "notify_11", "--device", os.ttyname(device), options=options)
        os.close(other), os.close(device)
        self.assertEqual(done.returncode, 6)
        self.assertEqual({line.partition(":")[0] for line in done.stdout.splitlines()}, {"device", "socket"})

    def test_are_wrong_calls_where_one_link_is_meant(self):
        for words in [["connect"], ["monitor"], ["serve", self.folder], ["test-pattern"],
                      ["query", "info", "--record", self.path("r")]]:
            done = self.call(*words, "--json", "--socket", "a", "--socket", "b")
            self.assertEqual(done.returncode, 2, words)
            self.assertEqual(json.loads(done.stdout.splitlines()[-1])["error"]["code"], "wrong_call")

    def test_are_judged_before_any_is_opened(self):
        ends, options = self.ends("answers", "answers")
        self.assertEqual(self.call("update", self.path("nothing"), options=options).returncode, 3)
        self.assertEqual([end.types for end in ends], [[], []])

    def test_are_interrupted_together(self):
        ends, options = self.ends("silent", "silent")
        process = subprocess.Popen(
            [HOST, "update", self.file("image", "#!/bin/sh\n"), *options],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            env=environment())
        for end in ends:
            self.assertTrue(end.heard.wait(PATIENCE))
        process.send_signal(signal.SIGINT)
        out, _ = process.communicate(timeout=PATIENCE)
        self.assertEqual((process.returncode, out.count("\tinterrupted\t")), (5, 2))


if __name__ == "__main__":
    other_end.main()
