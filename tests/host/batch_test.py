"""batch: how its lines are read, checked and run, and how it ends."""

import os
import pathlib
import subprocess

import other_end
import wire
from other_end import HostTest, Memory


class Batch(HostTest):
    def batch(self, text, *options, memory=None):
        """Runs a batch against an end that lasts; returns what that has and how it ended."""
        memory = memory or Memory()
        run = self.start("batch", self.file("commands", text), *options)
        memory.serve(run)
        return memory, run.end()


class Lines(Batch):
    def test_are_words_comments_or_empty(self):
        memory, ended = self.batch("# comment\n\n   \n\t# another\n  post post_21  \t 7 \npost post_22")
        self.assertEqual((ended.code, memory.types()), (0, [35, 21, 22]))

    def test_may_quote_words(self):
        for word, name in [("'a b'", "a b"), ('"a b"', "a b"), (r"'a\"", None), (r"""'a \ "b'""", 'a \\ "b'),
                           (r'"a \" \\ b"', r'a " \ b'), ("''", ""), ('a"b c"\'d e\'f', "ab cd ef"),
                           ("'#'", "#"), ("a#b", "a#b")]:
            with self.subTest(word):
                memory, ended = self.batch(f"post post_33 {word}\n")
                self.assertEqual(ended.code, 2 if name is None else 0, ended.err)
                self.assertEqual([message.text(9) for message in memory.accepted[1:]],
                                 [] if name is None else [name])

    def test_print_answers_in_order(self):
        _, ended = self.batch("query info\nquery path-exists /a\nquery info\n")
        self.assertEqual((ended.code, ended.out), (0, "1 2 3\n0\n1 2 3\n"))

    def test_may_hold_every_command_that_the_batch_knows(self):
        local = self.file("local", "content")
        memory, ended = self.batch(
            f"connect --seconds 1\nsend-file {local} /r\nquery info\npost post_22\n"
            "test-pattern --sequenced\nsleep 2\n")
        self.assertEqual(ended.code, 0, ended.err)
        self.assertEqual(memory.types(), [35, 28, 7, 8, 9, 28, 36, 22, 17])
        self.assertGreater(ended.seconds, 3)

    def test_share_one_session(self):
        memory, _ = self.batch("post post_22\npost post_22\nquery info\n")
        self.assertEqual(memory.types(), [35, 22, 22, 36])
        self.assertEqual([b.number - a.number for a, b in zip(memory.accepted, memory.accepted[1:])],
                         [1, 1, 1])

    def test_of_the_example_check_a_peer(self):
        example = pathlib.Path(__file__).parents[2] / "examples/factory_check.batch"
        memory, ended = self.batch(example.read_text())
        self.assertEqual(ended.code, 0, ended.err)
        self.assertEqual(ended.out.splitlines()[-2:], ["1 2 3", "0"])
        self.assertEqual(memory.types(), [35, 17, 17, 36, 28])
        self.assertEqual(memory.accepted[-1].text(9), "/storage")

    def test_update_a_loader(self):
        run = self.start("batch",
                         self.file("commands", f"update --watch 1 {self.file('image', '#!/bin/sh')}\n"),
                         "--json")
        run.send_answer_to_connect()
        lines = self.lines(run.end())
        self.assertEqual([(line["command"], line["proof"]) for line in lines][:1], [("update", "silent")])

    def test_confirm_what_comes_while_they_sleep(self):
        run = self.start("batch", self.file("commands", "sleep 10\n"))
        run.packet(until=3)
        self.assertTrue(run.answer(34))
        self.assertAlmostEqual(run.end().seconds, 10, delta=0.2)


class Checks(Batch):
    def test_name_the_line_before_the_link_is_opened(self):
        for line in [
                "frobnicate", "query", "query nothing", "post post_21 x", "connect", "connect --seconds x",
                "monitor", "serve /tmp", "trace x", "catalogue", "batch x", "sleep", "sleep x", "sleep -1",
                "query info --socket x", "query info --no-pacing", "query info --json", "query info --wait 1",
                "post post_33 'open", 'post post_33 "open', "post post_33 " + "n" * 31
        ]:
            with self.subTest(line):
                self.wrong("batch", self.file("commands", f"post post_22\n\n{line}\n"), says="3")

    def test_look_at_files_too(self):
        for line in [
                f"update {self.path('nothing')}", f"send-file {self.folder} /r",
                f"update {self.file('text', 'x')}"
        ]:
            self.wrong("batch",
                       self.file("commands", f"post post_22\n{line}\n"),
                       code=3,
                       error="bad_file",
                       says="2")

    def test_want_a_file_that_can_be_read(self):
        for name in [self.path("nothing"), self.folder]:
            self.wrong("batch", name, code=3, error="bad_file")


class Ends(Batch):
    NEVER = "post notify_12\n"  # unverified: 6

    def test_with_the_first_line_that_is_not_done(self):
        memory, ended = self.batch("post post_22\n" + self.NEVER + "post post_34\n", "--json")
        self.assertEqual(memory.types(), [35, 22])
        result = self.result(ended, 6, "unverified")
        self.assertEqual(result["result"], {"done": 1, "failed": 1})

    def test_going_on_with_the_code_of_the_first_line_that_is_not_done(self):
        memory = Memory()
        memory.answers[wire.PATH_EXISTS] = lambda message: (wire.PATH_EXISTS_REPLY, b"")
        memory, ended = self.batch(self.NEVER + "query path-exists /a\npost post_34\n",
                                   "--json",
                                   "--keep-going",
                                   memory=memory)
        self.assertEqual(memory.types(), [35, 28, 34])
        lines = self.lines(ended)
        self.assertEqual([line["exit"] for line in lines], [6, 1, 0, 6])
        self.assertEqual(lines[-1]["result"], {"done": 1, "failed": 2})
        self.assertEqual(lines[-1]["error"]["code"], "unverified")

    def test_when_the_other_end_hangs_up_whatever_is_left(self):
        run = self.start("batch", self.file("commands", "post post_22\npost post_22\npost post_34\n"),
                         "--json", "--keep-going")
        run.opened()
        run.take(22)
        run.receive()
        run.hang_up()
        ended = run.end()
        self.result(ended, 1, "hung_up")
        self.assertEqual(len(self.lines(ended)), 3, "two lines and the batch")

    def test_as_done_when_there_is_nothing_to_do(self):
        _, ended = self.batch("# nothing\n", "--json")
        self.assertEqual(self.result(ended, 0)["result"], {"done": 0, "failed": 0})

    def test_with_a_result_for_each_line(self):
        _, ended = self.batch("# first\nquery info\n\npost post_22\n", "--json")
        lines = self.lines(ended)
        self.assertEqual(
            [(line.get("line"), line["command"], line["exit"], line["proof"]) for line in lines[:-1]],
            [(2, "query", 0, "answered"), (4, "post", 0, "confirmed")])
        self.assertEqual((lines[-1]["command"], lines[-1]["result"]), ("batch", {"done": 2, "failed": 0}))
        self.assertEqual(lines[0]["result"]["fields"], {"a": 1, "b": 2, "c": 3})

    def test_as_done_with_unverified_lines_when_that_is_accepted(self):
        memory, ended = self.batch(self.NEVER + "post post_34\n", "--unverified-ok")
        self.assertEqual((ended.code, memory.types()), (0, [35, 34]))


class StandardInput(HostTest):
    def test_runs_as_it_comes(self):
        for words in [[], ["-"]]:
            memory = Memory()
            run = self.start("batch", *words, stdin=subprocess.PIPE)
            for line, type in [(b"post post_22\n", 22), (b"\n# comment\npost post_34\n", 34)]:
                run.packet(until=run.now + 1)
                os.write(run.process.stdin.fileno(), line)
                while (message := run.receive()).type != type:
                    memory.handle(run, message)
                memory.handle(run, message)
            run.process.stdin.close()
            ended = run.end()
            self.assertEqual((ended.code, memory.types()), (0, [35, 22, 34]))

    def test_is_not_checked_ahead(self):
        run = self.start("batch", "--json", stdin=subprocess.PIPE)
        run.process.stdin.write(b"post post_22\nfrobnicate\npost post_34\n")
        run.process.stdin.close()
        memory = Memory().serve(run)
        self.result(run.end(), 2, "wrong_call")
        self.assertEqual(memory.types(), [35, 22])

    def test_has_results_that_name_the_command_of_a_wrong_line(self):
        run = self.start("batch", "--json", "--keep-going", stdin=subprocess.PIPE)
        run.process.stdin.write(b"frobnicate\npost post_21 x\n  query --frobnicate\npost 'open\nconnect\n")
        run.process.stdin.close()
        lines = self.lines(run.end())
        self.assertEqual([(line["command"], line["proof"]) for line in lines],
                         [(None, None), ("post", "none"), ("query", "none"), ("post", "none"), ("connect", "none"),
                          ("batch", None)])

    def test_may_end_without_a_newline(self):
        run = self.start("batch", stdin=subprocess.PIPE)
        run.process.stdin.write(b"query info")
        run.process.stdin.close()
        Memory().serve(run)
        self.assertEqual(run.end().out, "1 2 3\n")

    def test_that_waits_keeps_the_link_alive(self):
        run = self.start("batch", stdin=subprocess.PIPE)
        run.packet(until=1)
        self.assertTrue(run.answer(34), "what comes is confirmed")
        run.process.stdin.close()
        self.assertEqual(run.end().code, 0)

    def test_that_ends_with_the_interrupt_is_interrupted(self):
        run = self.start("batch", stdin=subprocess.PIPE)
        run.settle()
        run.process.stdin.close()
        run.interrupt()
        self.assertEqual(run.end().code, 5)

    def test_that_waits_ends_when_the_other_end_hangs_up(self):
        run = self.start("batch", "--json", stdin=subprocess.PIPE)
        run.packet(until=1)
        run.hang_up()
        self.result(run.end(), 1, "hung_up")


if __name__ == "__main__":
    other_end.main()
