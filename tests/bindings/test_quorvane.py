"""The Python package against the daemon below QUORVANE_ROOT."""

import gc
import math
import os
import pathlib
import threading
import unittest
import weakref
from datetime import datetime, timezone

import quorvane
from quorvane import _values

SESSION = quorvane.SessionInfo(session_id=1, client_type=5)


class ReporterTest(unittest.TestCase):
    def test_reports_and_counts(self) -> None:
        connected = threading.Event()
        told: list[quorvane.ReporterStatus] = []

        def note(status: quorvane.ReporterStatus) -> None:
            told.append(status)
            if status.state is quorvane.ReporterState.CONNECTED:
                connected.set()

        user = quorvane.UserInfo(client_name="client", further_keys={"key": 1})
        with quorvane.Reporter(SESSION, user, state_changed=note) as reporter:
            self.assertTrue(connected.wait(30))
            values = {"text": "\u00e9", "yes": True, "least": -(1 << 63), "most": (1 << 64) - 1, "took": 0.25,
                      "at": datetime(2025, 11, 16, 8, tzinfo=timezone.utc), "data": b"\0\1", "list": [1, [2.5], {}],
                      "inner": {"deep": {"er": "text"}}}
            self.assertTrue(reporter.report(21, 3, values, quorvane.Flag.SEND_NOW))
            deep: dict[str, quorvane.Value] = {}
            for _ in range(22):
                deep = {"deeper": deep}
            self.assertFalse(reporter.report(21, 3, deep))
            reporter.set_user_info(None)
            reporter.flush()
        self.assertEqual(told[-1].backends, ["httppost"])
        self.assertFalse(reporter.report(21, 3))
        counted = reporter.statistics
        self.assertEqual((counted.reported, counted.taken, counted.dropped_unsendable, counted.dropped_at_end),
                         (3, 1, 1, 1))

    def test_survives_without_a_daemon(self) -> None:
        told: list[quorvane.ReporterStatus] = []
        reporter = quorvane.Reporter(SESSION, socket_path="/nowhere", queue_events=1, state_changed=told.append)
        reporter.report(1, 2)
        reporter.report(1, 2)
        with self.assertRaisesRegex(quorvane.TimedOutError, "did not take all events in time"):
            reporter.flush(0.05)
        counted = reporter.close(0)
        self.assertEqual((counted.dropped_full, counted.dropped_at_end), (1, 1))
        self.assertIs(told[0].state, quorvane.ReporterState.DISCONNECTED)
        self.assertIsInstance(told[0].error, quorvane.DisconnectedError)

    def test_may_be_collected_in_its_callback(self) -> None:
        dropped, collected = threading.Event(), threading.Event()

        def collect(_status: quorvane.ReporterStatus) -> None:
            dropped.wait(30)
            gc.collect()
            collected.set()

        reporter = quorvane.Reporter(SESSION, state_changed=collect, close_timeout=0)
        gone = weakref.ref(reporter)
        reporter.itself = reporter  # type: ignore
        del reporter
        dropped.set()
        self.assertTrue(collected.wait(30))
        self.assertIsNone(gone())

    def test_names_what_is_wrong(self) -> None:
        with self.assertRaisesRegex(quorvane.InvalidArgumentError, "the queue has no room"):
            quorvane.Reporter(SESSION, queue_events=0)
        with self.assertRaises(OverflowError):
            quorvane.Reporter(quorvane.SessionInfo(session_id=-1))


class ClientTest(unittest.TestCase):
    def test_asks_and_sends(self) -> None:
        with quorvane.Client() as client:
            client.set_session_info(SESSION, quorvane.UserInfo(client_name="client", service_name="service"))
            self.assertEqual(client.start(timeout=math.inf), ["httppost"])
            self.assertEqual(client.fetch_states(None), ["httppost"])
            self.assertIn("https://display.example/show", client.display_url())
            self.assertIn('"took"', client.send(22, 3, {"took": 0.25}) or "")
            self.assertIn('"took"', client.send_async(22, 3, {"took": 0.25}).result(30) or "")
            client.send_and_forget(22, 3)
            client.try_send(22, 3)
            self.assertEqual(client.send_single(SESSION, None, 22, 3, {"took": 1}), "finished")
            client.flush()
            steps: list[tuple[quorvane.UploadStep, int]] = []
            file = pathlib.Path(os.environ["QUORVANE_ROOT"], "upload.log")
            file.write_text("contents")
            self.assertFalse(client.upload_file(file, lambda step, size: steps.append((step, size))))
            self.assertEqual(steps[0], (quorvane.UploadStep.OPENED, 8))
            with self.assertRaisesRegex(quorvane.InvalidArgumentError, "no regular file"):
                client.upload_file(file.parent)
            client.upload_log_data(["line", {"key": 1}])
        with self.assertRaises(quorvane.DisconnectedError):
            client.flush()

    def test_aggregates(self) -> None:
        came = threading.Event()
        events: list[quorvane.AggregatedEvent] = []

        def note(event: quorvane.AggregatedEvent) -> None:
            if event.category == 23:
                events.append(event)
                came.set()

        values = {"at": datetime(2025, 11, 16, 8, tzinfo=timezone.utc), "data": b"\0\1", "most": (1 << 64) - 1,
                  "inner": {"list": ["text", True, -1, 0.5, []]}}
        with quorvane.Client() as client:
            info = quorvane.SessionInfo(session_id=1, client_type=5, require_user_info=True)
            client.set_aggregating_session_info(info, quorvane.UserInfo("client", "service"), note)
            client.start()
            client.send_and_forget(23, 3, values)
            self.assertTrue(came.wait(30))
            self.assertEqual(client.dropped_events, 0)
        self.assertEqual(events[0].payload, values)
        self.assertEqual(events[0].type, 3)
        self.assertLess(abs((datetime.now(timezone.utc) - events[0].at).total_seconds()), 60)

    def test_says_why_there_is_no_connection(self) -> None:
        with self.assertRaisesRegex(quorvane.DisconnectedError, "No such file"):
            quorvane.Client(socket_path="/nowhere")

    def test_an_answer_that_cannot_come_any_more_is_an_error(self) -> None:
        client = quorvane.Client()
        # Without session ID and client type, this is never answered; the event behind it waits.
        waiting = threading.Thread(target=lambda: self.assertRaises(
            quorvane.QuorvaneError, client.send_single, quorvane.SessionInfo(), None, 1, 2, None, 1))
        waiting.start()
        waiting.join()
        future = client.send_async(1, 2)
        client.close()
        try:
            future.result(30)
        except quorvane.DisconnectedError:
            pass


class ValueTest(unittest.TestCase):
    def test_what_is_no_value_is_refused(self) -> None:
        for value, error in ((None, TypeError), (object(), TypeError), ("a\0b", ValueError), ("\ud800", ValueError),
                             (1 << 64, OverflowError), (-(1 << 63) - 1, OverflowError), ([None], TypeError)):
            with self.subTest(value=value), self.assertRaises(error):
                with _values.dictionary({"key": value}):  # type: ignore
                    pass

    def test_event_numbers_are_not_cut(self) -> None:
        with quorvane.Reporter(SESSION, close_timeout=0) as reporter:
            for numbers in ((1 << 16, 1), (1, -1), (1, 1, None, 1 << 32)):
                with self.assertRaises(OverflowError):
                    reporter.report(*numbers)  # type: ignore

    def test_the_version_is_the_librarys(self) -> None:
        self.assertRegex(quorvane.version(), r"^7\.")


if __name__ == "__main__":
    unittest.main()
