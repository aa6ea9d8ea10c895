"""Calls that are judged before the link is opened: words, files, texts, links; and what needs no link."""

import fcntl
import os
import re
import subprocess

import other_end
import wire
from other_end import HostTest, Run

COMMANDS = ["connect", "monitor", "update", "send-file", "query", "post", "test-pattern", "batch", "serve",
            "trace", "catalogue", "completion"]
LINK_OPTIONS = ["--device", "--socket", "--listen", "--wait", "--no-pacing", "--record"]
GENERAL_OPTIONS = ["--json", "--quiet", "--verbose", "--unverified-ok", "--help", "--version"]
OWN_OPTIONS = {
    "connect": ["--seconds"], "monitor": ["--seconds"],
    "update": ["--tries", "--loader-wait", "--watch", "--expect", "--force"],
    "send-file": ["--tries", "--chunk"], "query": ["--tries"], "post": ["--reply"],
    "test-pattern": ["--sequenced", "--count"], "batch": ["--keep-going"],
}


class Help(HostTest):
    def test_of_the_program_names_every_command(self):
        ended = self.plain("--help")
        self.assertEqual((ended.code, ended.err), (0, ""))
        for command in COMMANDS:
            self.assertRegex(ended.out, rf"(?m)^  {command}\b")

    def test_of_a_command_shows_all_options(self):
        for command in COMMANDS:
            ended = self.plain(command, "--help")
            self.assertEqual((ended.code, ended.err), (0, ""), command)
            for option in OWN_OPTIONS.get(command, []) + LINK_OPTIONS + GENERAL_OPTIONS:
                self.assertIn(option, ended.out, command)

    def test_names_what_can_be_asked_and_posted(self):
        asked = self.plain("query", "--help").out
        for what in [
                "plugins", "path-exists", "info", "item-size", "plugin-size", "text", "41", "23", "decipher"
        ]:
            self.assertRegex(asked, rf"\b{what}\b")
        self.assertIn("post_19", self.plain("post", "--help").out)

    def test_no_longer_has_no_announce(self):
        self.assertNotIn("--no-announce", self.plain("update", "--help").out)
        self.wrong("update", self.file("image", "#!/bin/sh\n"), "--no-announce")

    def test_version_is_a_name_and_three_numbers(self):
        ended = self.plain("--version")
        self.assertEqual((ended.code, ended.err), (0, ""))
        self.assertRegex(ended.out, r"\Aqel-host \d+\.\d+\.\d+\n\Z")


class WrongCalls(HostTest):
    def test_are_reported_with_code_2_and_an_error_on_standard_error(self):
        for words in [[], ["frobnicate"], ["query", "info", "--frobnicate"], ["update"], ["query"],
                      ["query", "info", "--socket"]]:
            ended = self.plain(*words)
            self.assertEqual((ended.code, ended.out), (2, ""), words)
            self.assertRegex(ended.err, r"\Aerror: ", words)

    def test_are_reported_in_json_too(self):
        for words in [[], ["frobnicate"], ["query", "info", "--frobnicate"], ["update"]]:
            result = self.result(self.plain("--json", *words), 2, "wrong_call")
            self.assertIsNone(result["link"])
            self.assertIsNone(result["counts"])
            self.assertIsNone(result["result"])

    def test_have_no_proof_where_the_command_has_one(self):
        for command in COMMANDS:
            proof = "none" if command in ("connect", "update", "send-file", "query", "post", "test-pattern") else None
            result = self.result(self.plain(command, "--json", "--frobnicate"), 2, "wrong_call")
            self.assertEqual((result["command"], result["proof"]), (command, proof))

    def test_are_words_that_the_command_does_not_take(self):
        image = self.file("image", "#!/bin/sh\n")
        for words in [["connect", "--seconds", "x"], ["connect", "--seconds", "-1"], ["connect", "more"],
                      ["update", image, "--tries", "0"], ["update", image, "--watch", "-1"],
                      ["update", image, "--loader-wait", "x"], ["update", image, "more"],
                      ["send-file", image], ["send-file", image, "/r", "--chunk", "0"],
                      ["send-file", image, "/r", "--chunk", "22051"],
                      ["send-file", image, "/r", "--tries", "0"], ["query", "nothing"],
                      ["query", "info", "more"], ["query", "info", "--tries", "0"],
                      ["test-pattern", "--count", "0"], ["query", "info", "--wait", "-1"],
                      ["batch", "one", "two"], ["completion", "fish"]]:
            with self.subTest(words):
                self.wrong(*words)

    def test_are_arguments_of_queries_that_are_no_values(self):
        for words in [["path-exists", "relative"], ["path-exists", "/with/"], ["path-exists"],
                      ["plugin-size", "0"], ["plugin-size", "-1"], ["plugin-size", "4294967296"],
                      ["plugin-size", "12x"], ["decipher", "123"], ["decipher", "xx"], ["decipher", ""],
                      ["item-size", "1"], ["23"], ["23", "n", *"abcdefghijk"]]:
            with self.subTest(words):
                self.wrong("query", *words)

    def test_are_posts_that_do_not_fit_the_catalogue(self):
        for words in [["nothing"], ["post_21"], ["post_21", "x"], ["post_21", "4294967296"],
                      ["post_21", "-1"], ["post_21", "1", "2"], ["post_21", "valve=1"],
                      ["post_21", "value=1", "value=2"], ["post_22", "x"], ["post_19", "n", "1", "00"],
                      ["post_19", "n", "1"], ["notify_27", "xx"], ["22", "body=0"], ["22", "body=xx"],
                      ["4294967296",
                       "body=00"], ["77"], ["reply_42", "first=18446744073709551616", "second=1"]]:
            with self.subTest(words):
                self.wrong("post", *words)

    def test_are_replies_that_cannot_come(self):
        self.wrong("post", "--reply", "post_22")
        self.wrong("post", "--reply=nothing", "post_22")

    def test_are_expectations_that_a_loader_meets_as_well(self):
        image = self.file("image", "#!/bin/sh\n")
        for name in ["notify_11", "confirmed", "connect_answer", "nothing"]:
            self.wrong("update", image, "--expect", name)


class Texts(HostTest):
    def test_longer_than_their_field_are_wrong_calls(self):
        for words in [["query", "path-exists", "/" + "p" * 99], ["query", "23", "n" * 100],
                      ["query", "23", "n", "i" * 100], ["query", "item-size", "1", "2", "n" * 31],
                      ["post", "post_18", "n" * 100], ["post", "post_33", "name=" + "n" * 31],
                      ["post", "path_exists", "path=/" + "p" * 99]]:
            with self.subTest(words[1]):
                self.wrong(*words)

    def test_that_just_fit_are_sent_whole(self):
        for words, type, offset, text in [(["query", "path-exists", "/" + "p" * 98], 28, 9, "/" + "p" * 98),
                                          (["query", "23", "n" * 99], 23, 9, "n" * 99),
                                          (["query", "23", "n", "i" * 99], 23, 109, "i" * 99),
                                          (["query", "item-size", "1", "2", "n" * 30], 39, 16, "n" * 30),
                                          (["post", "post_18", "n" * 99], 18, 9, "n" * 99),
                                          (["post", "post_33", "n" * 30], 33, 9, "n" * 30)]:
            run = self.start(*words)
            run.opened()
            self.assertEqual(run.take(type).text(offset), text)

    def test_of_serve_are_511_and_100_bytes_at_most(self):
        for option, most in [("--text", 511), ("--answer", 100)]:
            self.wrong("serve", self.folder, option, "x" * (most + 1))
            run = self.start("serve", self.folder, option, "x" * most, "--seconds", "0.1")
            self.assertEqual(run.end().code, 0)


class Files(HostTest):
    def test_that_are_not_regular_files_are_bad_before_the_link_is_opened(self):
        os.mkfifo(self.path("fifo"))
        for name in [self.folder, self.path("nothing"), self.path("fifo"), "/dev/null"]:
            with self.subTest(name):
                self.wrong("update", name, code=3, error="bad_file")
                self.wrong("send-file", name, "/remote", code=3, error="bad_file")
                self.wrong("post", "transfer_data", "block=@" + name, code=3, error="bad_file")
                self.wrong("trace", name, code=3, error="bad_file", run=self.plain)

    def test_that_are_named_in_errors(self):
        self.wrong("update", self.path("nothing"), code=3, error="bad_file", says=self.path("nothing"))

    def test_to_serve_from_must_be_a_folder(self):
        for name in [self.path("nothing"), self.file("file")]:
            self.assertEqual(self.start("serve", name).end().code, 3)
            self.assert_not_opened()


class Links(HostTest):
    def test_must_be_one(self):
        self.wrong("query", "info", run=self.plain)
        self.wrong("connect", "--listen", "a")
        self.wrong("connect", "--device", "a")
        self.wrong("monitor", "--socket", "a")
        self.wrong("serve", self.folder, "--socket", "a")

    def test_come_from_the_environment_when_no_option_names_one(self):
        listener = self.listen("other")
        run = Run(self, ["query", "info", "--no-pacing", "--json"], listener,
                  env={"QEL_HOST_LINK": "socket:" + self.path("other")})
        other_end.Memory().serve(run)
        self.assertEqual(self.result(run.end(), 0)["link"], "socket:" + self.path("other"))

    def test_from_the_environment_are_devices_too(self):
        ended = self.plain("query", "info", "--json", env={"QEL_HOST_LINK": "device:" + self.file("file")})
        result = self.result(ended, 3, "not_a_device")
        self.assertEqual(result["link"], "device:" + self.path("file"))

    def test_from_the_environment_wait_for_a_peer_too(self):
        run = Run(self, ["query", "info", "--no-pacing"], env={"QEL_HOST_LINK": "listen:" + self.path("l")})
        run.join(self.path("l"))
        other_end.Memory().serve(run)
        self.assertEqual(run.end().out, "1 2 3\n")

    def test_from_options_win_over_the_environment(self):
        run = self.start("query", "info", env={"QEL_HOST_LINK": "socket:" + self.path("nobody")})
        other_end.Memory().serve(run)
        self.assertEqual(run.end().out, "1 2 3\n")

    def test_from_the_environment_that_name_nothing_are_wrong_calls(self):
        for value in ["nothing", "socket:", "serial:/dev/null", "/dev/null"]:
            self.result(self.plain("query", "info", "--json", env={"QEL_HOST_LINK": value}), 2, "wrong_call")

    def test_stand_before_or_after_the_command(self):
        listener = self.listen()
        for words in [["--socket", self.path("socket"), "query", "info"],
                      ["query", "--socket", self.path("socket"), "info"]]:
            run = Run(self, [*words, "--no-pacing"], listener)
            other_end.Memory().serve(run)
            self.assertEqual(run.end().out, "1 2 3\n")

    def test_that_nobody_has_are_waited_for_five_seconds(self):
        ended = self.plain("query", "info", "--socket", self.path("nobody"), "--json")
        self.result(ended, 3, "cannot_open")
        self.assertAlmostEqual(ended.seconds, 5, delta=0.2)

    def test_that_nobody_has_are_waited_for_as_long_as_asked(self):
        for wait in [0, 1.5, 20]:
            ended = self.plain("query", "info", "--socket", self.path("nobody"), "--json", "--wait",
                               str(wait))
            self.result(ended, 3, "cannot_open")
            self.assertAlmostEqual(ended.seconds, wait, delta=0.2)

    def test_that_somebody_makes_in_time_are_taken(self):
        run = Run(self, ["query", "info", "--socket", self.path("socket"), "--no-pacing"])
        self.assertIsNone(run.packet(until=3))
        run.listener = self.listen()
        other_end.Memory().serve(run)
        self.assertEqual(run.end().out, "1 2 3\n")

    def test_that_are_no_sockets_cannot_be_opened_and_stay_as_they_are(self):
        name = self.file("file", "content")
        self.result(self.plain("query", "info", "--json", "--socket", name, "--wait", "0"), 3, "cannot_open")
        for words in [["query", "info"], ["serve", self.folder]]:
            self.result(self.plain(*words, "--json", "--listen", name), 3, "cannot_open")
        self.result(self.plain("query", "info", "--json", "--socket", "x" * 200, "--wait", "0"), 3,
                    "cannot_open")
        with open(name) as file:
            self.assertEqual(file.read(), "content")


class Devices(HostTest):
    def test_that_are_no_character_devices_are_not_written(self):
        name = self.file("file", "content")
        os.mkfifo(self.path("fifo"))
        self.listen()
        for command in [["query", "info"], ["post", "notify_11"], ["connect", "--seconds", "1"]]:
            for device in [name, self.folder, self.path("fifo"), self.path("socket")]:
                self.result(self.plain(*command, "--json", "--device", device), 3, "not_a_device")
        with open(name) as file:
            self.assertEqual(file.read(), "content")

    def test_that_are_not_there_cannot_be_opened(self):
        self.result(self.plain("query", "info", "--json", "--device", self.path("nothing")), 3, "cannot_open")

    def test_that_another_process_holds_are_busy_at_once(self):
        run = self.start_on_device("connect", "--seconds", "5", "--json")
        run.take(wire.CONNECT)
        ended = self.plain("query", "info", "--json", "--device", self.device)
        self.result(ended, 3, "busy")
        self.assertLess(ended.seconds, 0.2)

    def test_are_held_with_a_lock_that_others_can_see(self):
        run = self.start_on_device("monitor")
        run.settle()
        with open(self.device, "rb", buffering=0) as device, self.assertRaises(BlockingIOError):
            fcntl.flock(device, fcntl.LOCK_EX | fcntl.LOCK_NB)

    def test_that_swallow_everything_have_no_peer(self):
        self.result(self.plain("query", "info", "--json", "--device", "/dev/null"), 1, "no_peer")
        image = self.file("image", "#!/bin/sh\n")
        ended = self.plain("update", image, "--json", "--device", "/dev/null")
        self.result(ended, 1, "no_loader")
        self.assertAlmostEqual(ended.seconds, 60, delta=0.7)

    def test_are_paced_by_15_ms_before_each_packet(self):
        run = self.start_on_device("query", "23", "name")
        run.opened()
        run.take(23)
        times = [time for time, _ in run.packets]
        self.assertEqual(len(times), 1 + 33)
        for before, after in zip(times[1:], times[2:]):
            self.assertGreaterEqual(round(after - before, 3), 0.015)


class Completion(HostTest):
    def complete(self, *words):
        ended = self.plain("completion", "bash")
        self.assertEqual((ended.code, ended.err), (0, ""))
        script = self.file("completion.bash", ended.out)
        # Completes the last of the words as the shell does.
        asked = """. "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"
            COMP_POINT=${#COMP_LINE}; function=$(complete -p qel-host | sed 's/.* -F \\([^ ]*\\).*/\\1/')
            "$function" "$1" "${@: -1}" "${@: -2:1}"
            printf '%s\\n' "${COMPREPLY[@]}" """
        done = subprocess.run(["bash", "-uc", asked, "bash", script, "qel-host", *words], capture_output=True,
                              text=True, check=True)
        self.assertEqual(done.stderr, "")
        return {word.strip() for word in done.stdout.splitlines()}

    def test_knows_commands_options_queries_and_messages(self):
        self.assertEqual(self.complete("up"), {"update"})
        self.assertLessEqual(set(COMMANDS), self.complete(""))
        self.assertIn("--expect", self.complete("update", "--"))
        self.assertIn("--socket", self.complete("update", "--so"))
        self.assertIn("path-exists", self.complete("query", "p"))
        self.assertIn("post_22", self.complete("post", "post_2"))


class Catalogue(HostTest):
    def test_is_the_table_of_the_wire_document(self):
        document = os.path.join(os.path.dirname(__file__), "../../docs/host-link.md")
        with open(document) as file:
            table = file.read().partition("|---|---|---|---|---|\n")[2].partition("\n\n")[0]
        self.assertEqual(self.plain("catalogue", "--markdown").out, table + "\n")
        rows = re.findall(r"(?m)^\| (\d+) \| (\w+) \| ([^|]+) \|", table)
        self.assertEqual(len(rows), 45)
        result = self.result(self.plain("catalogue", "--json"), 0)
        self.assertIsNone(result["link"])
        self.assertIsNone(result["proof"])
        messages = {message["type"]: message for message in result["result"]["messages"]}
        for type, name, size in rows:
            message = messages[int(type)]
            self.assertEqual(set(message), {"type", "name", "sequenced", "size", "fields"})
            self.assertEqual(message["name"], name)
            self.assertEqual(message["sequenced"], int(type) in wire.SEQUENCED)
            self.assertEqual(message["size"], int(size) if size.isdigit() else None)
            for field in message["fields"]:
                self.assertEqual(set(field), {"name", "offset", "size", "kind"})

    def test_has_the_fields_where_they_are(self):
        messages = self.result(self.plain("catalogue", "--json"), 0)["result"]["messages"]
        places = {
            message["name"]: [(field["name"], field["offset"], field["size"]) for field in message["fields"]
                             ] for message in messages
        }
        self.assertEqual(places["path_exists"], [("path", 9, 100)])
        self.assertEqual(places["post_19"], [("name", 9, 100), ("value", 112, 4), ("record", 116, 20)])
        self.assertEqual(places["reply_42"], [("first", 16, 8), ("second", 24, 8)])
        self.assertEqual(places["connect"], [("value", 8, 4)])

    def test_is_printed_as_text_too(self):
        ended = self.plain("catalogue")
        self.assertEqual((ended.code, ended.err), (0, ""))
        for word in ["path_exists", "post_45", "connect_answer"]:
            self.assertIn(word, ended.out)


if __name__ == "__main__":
    other_end.main()
