"""send-file: what is asked before and after, what is sent, and when a file is known to be there."""

import other_end
import wire
from other_end import HostTest, Memory

CONTENT = bytes(range(256)) * 200  # 51200 bytes: three pieces


class Sending(HostTest):
    def sent(self, remote, *options, memory=None, content=CONTENT):
        memory = memory or Memory()
        run = self.start("send-file", self.file("local", content), remote, "--json", *options)
        memory.serve(run)
        return memory, run.end()

    def test_puts_a_file_where_none_was(self):
        memory, ended = self.sent("/new/remote")
        result = self.result(ended, 0)
        self.assertEqual((result["proof"], result["link"]), ("exists", "socket:" + self.path("socket")))
        self.assertEqual(result["result"], {"bytes": 51200, "tries": 1, "existed": False, "exists": True})
        self.assertEqual(memory.files, {"/new/remote": CONTENT})
        self.assertEqual(memory.types(), [35, 28, 7, 8, 8, 8, 9, 28])
        self.assertEqual([message.text(9) for message in memory.accepted if message.type == 28],
                         ["/new/remote"] * 2)
        self.assertEqual([len(message.raw) - 16 for message in memory.accepted if message.type == 8],
                         [22050, 22050, 7100])

    def test_sends_pieces_as_small_as_asked(self):
        memory, ended = self.sent("/remote", "--chunk", "3", content=b"0123456789")
        self.assertEqual([message.raw[12:] for message in memory.accepted if message.type == 8],
                         [wire.block(part) for part in (b"012", b"345", b"678", b"9")])
        self.assertEqual((ended.code, memory.files), (0, {"/remote": b"0123456789"}))

    def test_sends_an_empty_file_without_pieces(self):
        memory, ended = self.sent("/remote", content=b"")
        self.assertEqual((ended.code, memory.types()), (0, [35, 28, 7, 9, 28]))

    def test_sends_the_path_with_its_nul(self):
        memory, _ = self.sent("/remote")
        self.assertEqual(memory.accepted[2].raw[12:], wire.block(b"/remote\0"))


class Proofs(Sending):
    def test_a_file_that_is_not_there_afterwards_is_not_there(self):
        memory = Memory()
        memory.keep_file = lambda message: None
        _, ended = self.sent("/remote", memory=memory)
        result = self.result(ended, 1, "not_there")
        self.assertEqual((result["result"]["existed"], result["result"]["exists"]), (False, False))

    def test_a_file_that_was_there_before_proves_nothing(self):
        for options, code, error in [([], 6, "unverified"), (["--unverified-ok"], 0, None)]:
            memory = Memory()
            memory.files["/remote"] = b"old"
            _, ended = self.sent("/remote", *options, memory=memory)
            result = self.result(ended, code, error)
            self.assertEqual((result["proof"], result["result"]["existed"]), ("none", True))
            self.assertEqual(memory.files["/remote"], CONTENT)

    def test_a_file_that_was_there_before_and_is_gone_is_not_there(self):
        memory = Memory()
        memory.files["/remote"] = b"old"
        memory.keep_file = lambda message: memory.files.clear()
        _, ended = self.sent("/remote", memory=memory)
        self.result(ended, 1, "not_there")

    def test_a_path_that_cannot_be_asked_about_proves_nothing(self):
        for remote in ["relative", "a/b", "/with/", "//double", "/" + "p" * 99, "/a:b"]:
            memory, ended = self.sent(remote)
            result = self.result(ended, 6, "unverified")
            self.assertEqual((result["proof"], memory.files), ("none", {remote: CONTENT}))
            self.assertEqual(memory.types(), [35, 7, 8, 8, 8, 9])

    def test_the_longest_path_that_can_be_asked_about_is(self):
        remote = "/" + "p" * 98
        memory, ended = self.sent(remote)
        self.assertEqual((self.result(ended, 0)["proof"], memory.types()[1]), ("exists", 28))

    def test_without_an_answer_before_it_is_not_asked_again(self):
        memory = Memory()
        del memory.answers[wire.PATH_EXISTS]
        _, ended = self.sent("/remote", memory=memory)
        result = self.result(ended, 6, "unverified")
        self.assertEqual(memory.types(), [35, 28, 7, 8, 8, 8, 9])
        self.assertEqual((result["result"]["existed"], result["result"]["exists"]), (None, None))

    def test_without_an_answer_afterwards_it_is_not_known_to_be_there(self):
        memory, run = Memory(), self.start("send-file", self.file("local", CONTENT), "/remote", "--json")
        while (message := run.receive()) is not None:
            if message.type == wire.FILE_END:
                del memory.answers[wire.PATH_EXISTS]
            memory.handle(run, message)
        result = self.result(run.end(), 1, "no_answer")
        self.assertEqual((result["result"]["existed"], result["result"]["exists"]), (False, None))


class Tries(Sending):
    def test_of_which_one_is_not_confirmed_begin_again_at_file_begin(self):
        memory, run = Memory(), self.start("send-file", self.file("local", CONTENT), "/remote", "--json",
                                           "--tries", "2")
        ignored = 0
        while (message := run.receive()) is not None:
            if message.type == wire.FILE_DATA and len(message.raw) < 22050 and ignored < 3:
                ignored += 1
                continue
            memory.handle(run, message)
        result = self.result(run.end(), 0)
        self.assertEqual(result["result"]["tries"], 2)
        self.assertEqual(memory.types(), [35, 28, 7, 8, 8, 7, 8, 8, 8, 9, 28])
        self.assertEqual(memory.files, {"/remote": CONTENT})

    def test_are_one_unless_said_otherwise(self):
        memory, run = Memory(), self.start("send-file", self.file("local", CONTENT), "/remote", "--json")
        while (message := run.receive()) is not None:
            if message.type != wire.FILE_END:
                memory.handle(run, message)
        result = self.result(run.end(), 1, "not_confirmed")
        self.assertEqual((memory.types(), result["result"]["tries"]), ([35, 28, 7, 8, 8, 8], 1))


if __name__ == "__main__":
    other_end.main()
