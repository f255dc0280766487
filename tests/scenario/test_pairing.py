"""The road of a pairing, from CONNECT to its end."""

import re
import time

import pytest

from harness.bluez import DEVICE, FAILED, Error, Reply, device_path, hold
from harness.varlink import (FAILURE, NOTHING_TO_WAIT_FOR, REFUSED, action, integer, listing, nothing, string)
from harness.waiting import stretched, wait_until

PATH = device_path("00:11:22:33:44:55")
UNPAIRED, PAIRING, BETWEEN, PAIRED = 1, 2, 0, 3
CANCELED = "org.bluez.Error.AuthenticationCanceled"


class Scene:
    """A service with one device, and connections to it for each part."""

    def __init__(self, bluez, service):
        self.bluez = bluez
        self.service = service
        self.clients = []

    def client(self):
        self.clients.append(self.service.device())
        return self.clients[-1]

    def begin(self, name, *options):
        """Sends an action on a connection of its own; done(name) of it is its answer."""
        client = self.client()
        client.send_execute(action(name, *options))
        return client

    def connect(self, *options):
        """CONNECT up to BlueZ's Pair; gives the client and the call."""
        seen = len(self.bluez.calls_of("Pair"))
        client = self.begin("CONNECT", *options)
        return client, self.bluez.wait_call("Pair", path=PATH, count=seen + 1)

    def connect_with_pincode(self, pincode="123456"):
        client, pair = self.connect()
        self.bluez.display_pincode(PATH, pincode)
        assert client.done("CONNECT") == [("RESULT", 1), ("PINCODE", pincode)]
        return pair

    def begin_wait(self, *options):
        """A WAIT_CONNECTED that is known to wait."""
        client = self.begin("WAIT_CONNECTED", *options)
        self.service.wait_asleep(client)
        return client

    def status(self):
        return self.observer.value("STATUS")

    @property
    def observer(self):
        if not hasattr(self, "_observer"):
            self._observer = self.client()
        return self._observer

    def wait_status(self, status):
        wait_until(lambda: self.status() == status, f"STATUS {status}")


@pytest.fixture
def scene(bluez, start):
    bluez.set_device()
    made = Scene(bluez, start())
    yield made
    for client in made.clients:
        client.close()


# Without a pincode


@pytest.mark.short
def test_a_pairing_without_a_pincode(bluez, scene):
    begin = scene.service.mark()
    client, pair = scene.connect()
    assert (pair.destination, pair.path, pair.interface, pair.args) == ("org.bluez", PATH, DEVICE, ())
    assert scene.status() == PAIRING
    pair.reply()
    assert client.result()["values"] == [listing("CONNECT", integer("RESULT", 0))]
    assert scene.status() == PAIRED
    scene.service.wait_log(f"Pairing succeeded for device {PATH}")
    assert [(line.level, line.text) for line in scene.service.logged(begin)] == [
        (1, f"Pair {PATH}"),
        (1, f"Device paired: {PATH}"),
        (1, f"Retrieving profiles for {PATH}"),
        (3, f"Did not retreive any profiles for {PATH}"),
        (1, f"Pairing succeeded for device {PATH}"),
    ]


@pytest.mark.parametrize("error, level, text", [
    (Error(CANCELED), 1, f"Pair canceled: {PATH}"),
    (Error("org.bluez.Error.AuthenticationFailed"), 4, "Pair reply error: org.bluez.Error.AuthenticationFailed"),
    (Error("org.bluez.Error.AuthenticationRejected"), 4, "Pair reply error: org.bluez.Error.AuthenticationRejected"),
    (Error("org.bluez.Error.AlreadyExists", None), 4, "Pair reply error: org.bluez.Error.AlreadyExists"),
    (Error("org.freedesktop.DBus.Error.UnknownObject"), 4,
     "Pair reply error: org.freedesktop.DBus.Error.UnknownObject"),
], ids=["cancelled", "failed", "rejected", "exists", "unknown"])
def test_a_pairing_that_fails(bluez, scene, error, level, text):
    bluez.answer("Pair", error)
    begin = scene.service.mark()
    client = scene.begin("CONNECT")
    assert client.result()["values"] == [listing("CONNECT", integer("RESULT", REFUSED))]
    scene.service.wait_log(f"Pairing failed for device {PATH}")
    assert [(line.level, line.text) for line in scene.service.logged(begin)] == [
        (1, f"Pair {PATH}"), (level, text), (4, f"Pairing failed for device {PATH}")]
    assert scene.status() == UNPAIRED


def test_after_a_failure_it_can_be_tried_again(bluez, scene):
    bluez.answer("Pair", FAILED, FAILED, Reply())
    client = scene.client()
    assert client.do("CONNECT") == [("RESULT", REFUSED)]
    assert client.do("CONNECT") == [("RESULT", REFUSED)]
    assert client.do("CONNECT") == [("RESULT", 0)]


def test_when_bluez_vanishes_the_pairing_fails(bluez, scene):
    client, _ = scene.connect()
    bluez.close()
    assert client.done("CONNECT") == [("RESULT", REFUSED)]
    assert scene.status() == UNPAIRED
    scene.service.wait_log("Pair reply error: org.freedesktop.DBus.Error.NoReply", level=4)


# Refused without a call


def test_of_two_at_once_one_is_refused_without_a_call(bluez, scene):
    first, pair = scene.connect()
    begin = scene.service.mark()
    assert scene.client().do("CONNECT") == [("RESULT", REFUSED)]
    assert scene.service.mark() == begin, "nothing is logged"
    pair.reply()
    assert first.done("CONNECT") == [("RESULT", 0)]
    bluez.settle()
    assert len(bluez.calls_of("Pair")) == 1


@pytest.mark.parametrize("state", ["pincode", "cancelling", "paired", "unpairing"])
def test_in_any_other_state_a_pairing_is_refused_without_a_call(bluez, scene, state):
    first, pair = scene.connect()
    if state == "pincode":
        bluez.display_pincode(PATH, "1")
        first.done("CONNECT")
    elif state == "cancelling":
        scene.begin("DISCONNECT")
        bluez.wait_call("CancelPairing")
    else:
        pair.reply()
        first.done("CONNECT")
        if state == "unpairing":
            assert scene.client().do("DISCONNECT") == FAILURE
    assert scene.client().do("CONNECT") == [("RESULT", REFUSED)]
    bluez.settle()
    assert len(bluez.calls_of("Pair")) == 1


# With a pincode


@pytest.mark.short
def test_a_pairing_with_a_pincode(bluez, scene):
    client, pair = scene.connect()
    bluez.display_pincode(PATH, "123456")
    assert client.result()["values"] == [listing("CONNECT", integer("RESULT", 1), string("PINCODE", "123456"))]
    scene.service.wait_log(f"Pairing pincode 123456 for device {PATH}", level=1)
    assert scene.status() == BETWEEN, "a shown pincode is status 0, not 2"
    waiting = scene.begin_wait()
    pair.reply()
    assert waiting.result()["values"] == [integer("WAIT_CONNECTED", 0)]
    assert scene.status() == PAIRED
    scene.service.expect_log((1, f"Pairing pincode 123456 for device {PATH}"), (1, f"Device paired: {PATH}"))
    assert f"Pairing succeeded for device {PATH}" not in scene.service.texts(), "CONNECT was answered before"


def test_every_waiter_is_told(bluez, scene):
    pair = scene.connect_with_pincode()
    waiting = [scene.begin_wait() for _ in range(8)]
    pair.reply()
    assert [client.done("WAIT_CONNECTED") for client in waiting] == [0] * 8


@pytest.mark.parametrize("name", [CANCELED, "org.bluez.Error.AuthenticationFailed"])
def test_every_waiter_is_told_of_a_failure(bluez, scene, name):
    pair = scene.connect_with_pincode()
    waiting = [scene.begin_wait() for _ in range(3)]
    pair.error(name, "wrong")
    assert [client.done("WAIT_CONNECTED") for client in waiting] == [FAILURE] * 3
    assert scene.status() == UNPAIRED
    assert f"Pairing failed for device {PATH}" not in scene.service.texts(), "CONNECT was answered before"


def test_the_next_attempt_has_its_own_pincode(bluez, scene):
    scene.connect_with_pincode("1111").error("org.bluez.Error.AuthenticationFailed")
    scene.wait_status(UNPAIRED)
    scene.connect_with_pincode("2222").reply()
    scene.wait_status(PAIRED)
    assert not bluez.calls_of("CancelPairing")


def test_a_pincode_after_the_end_reaches_nobody(bluez, scene):
    scene.connect_with_pincode("1111").error("org.bluez.Error.AuthenticationFailed")
    scene.wait_status(UNPAIRED)
    begin = scene.service.mark()
    bluez.display_pincode(PATH, "2222")
    bluez.settle()
    assert scene.service.mark() == begin and scene.status() == UNPAIRED


@pytest.mark.short
def test_a_second_pincode_cancels_the_pairing(bluez, scene):
    pair = scene.connect_with_pincode("1111")
    waiting = scene.begin_wait()
    bluez.display_pincode(PATH, "2222")
    cancel = bluez.wait_call("CancelPairing")
    assert (cancel.destination, cancel.path, cancel.interface, cancel.args) == ("org.bluez", PATH, DEVICE, ())
    scene.service.wait_log(f"Request cancel pairing for {PATH}", level=1)
    assert scene.status() == BETWEEN
    pair.error(CANCELED, "Authentication Canceled")
    assert waiting.done("WAIT_CONNECTED") == FAILURE
    scene.service.wait_log(f"Pair canceled: {PATH}", level=1)
    assert scene.status() == UNPAIRED


def test_a_third_pincode_cannot_cancel_again(bluez, scene):
    pair = scene.connect_with_pincode("1111")
    bluez.display_pincode(PATH, "2222")
    bluez.display_pincode(PATH, "3333")
    scene.service.wait_log(f"Got pincode retry, but could not cancel; Pair attempt will fail for{PATH}", level=3)
    pair.error(CANCELED)
    scene.wait_status(UNPAIRED)
    assert len(bluez.calls_of("CancelPairing")) == 1


# Waiting


def test_there_is_nothing_to_wait_for_at_an_unpaired_device(scene):
    assert scene.client().do("WAIT_CONNECTED") == NOTHING_TO_WAIT_FOR


def test_at_a_paired_device_the_wait_is_over_at_once(bluez, scene):
    bluez.answer("Pair", Reply())
    client = scene.client()
    client.do("CONNECT")
    assert client.do("WAIT_CONNECTED") == 0


def test_one_can_wait_while_connect_waits(bluez, scene):
    connecting, pair = scene.connect()
    waiting = scene.begin_wait()
    pair.reply()
    assert connecting.done("CONNECT") == [("RESULT", 0)]
    assert waiting.done("WAIT_CONNECTED") == 0


@pytest.mark.parametrize("option", [integer("TIMEOUT", 400), integer("anything", 400), integer("x", (7 << 32) + 400),
                                    {"kind": "integer", "integer": 400}],
                         ids=["named", "any name", "low 32 bits", "no name"])
def test_the_time_to_wait_is_the_first_option_in_milliseconds(scene, option):
    scene.connect_with_pincode()
    began = time.monotonic()
    assert scene.client().do("WAIT_CONNECTED", option, string("x", "y")) == FAILURE
    assert 0.39 <= time.monotonic() - began <= stretched(0.9)
    assert scene.status() == BETWEEN, "the pairing goes on"


def test_a_wait_of_no_time_at_all(scene):
    scene.connect_with_pincode()
    assert scene.client().do("WAIT_CONNECTED", integer("TIMEOUT", 0), limit=1) == FAILURE


@pytest.mark.parametrize("options", [[string("TIMEOUT", "1")], [listing("TIMEOUT", integer("x", 1))],
                                     [nothing("TIMEOUT"), integer("TIMEOUT", 1)], []])
def test_without_a_number_first_the_wait_has_no_limit(scene, options):
    pair = scene.connect_with_pincode()
    waiting = scene.begin("WAIT_CONNECTED", *options)
    with pytest.raises(AssertionError):
        waiting.receive(limit=0.3 / stretched(1))
    pair.reply()
    assert waiting.done("WAIT_CONNECTED") == 0


def test_a_payload_that_is_no_list_has_no_options(scene):
    pair = scene.connect_with_pincode()
    waiting = scene.client()
    waiting.send_execute(integer("WAIT_CONNECTED", 1))
    with pytest.raises(AssertionError):
        waiting.receive(limit=0.3 / stretched(1))
    pair.reply()
    assert waiting.done("WAIT_CONNECTED") == 0


# The time-out of CONNECT


@pytest.mark.parametrize("option", [integer("TIMEOUT", 700), integer("", 700), integer("x", (1 << 40) + 700)],
                         ids=["named", "empty name", "low 32 bits"])
def test_connect_fails_on_time_on_a_quiet_bus(scene, option):
    client, _ = scene.connect(option)
    began = time.monotonic()
    assert client.done("CONNECT") == [("RESULT", REFUSED)]
    assert 0.6 <= time.monotonic() - began <= stretched(1.2)
    scene.service.wait_log(f"Pairing failed for device {PATH}", level=4)
    scene.service.wait_log(re.compile(f"Did not receive pair reply for {PATH}|"
                                      r"Pair reply error: org\.freedesktop\.DBus\.Error\.NoReply"))
    assert scene.status() == UNPAIRED


def test_an_answer_after_the_time_out_is_nobodys(bluez, scene):
    client, pair = scene.connect(integer("TIMEOUT", 100))
    assert client.done("CONNECT") == [("RESULT", REFUSED)]
    pair.reply()
    bluez.settle()
    assert scene.status() == UNPAIRED
    second, pair = scene.connect()
    pair.reply()
    assert second.done("CONNECT") == [("RESULT", 0)]


def test_the_time_out_also_ends_a_pairing_with_a_pincode(bluez, scene):
    client, _ = scene.connect(integer("TIMEOUT", 600))
    bluez.display_pincode(PATH, "1111")
    assert client.done("CONNECT") == [("RESULT", 1), ("PINCODE", "1111")]
    began = time.monotonic()
    assert scene.client().do("WAIT_CONNECTED") == FAILURE
    assert time.monotonic() - began <= stretched(1.2)
    assert scene.status() == UNPAIRED


@pytest.mark.parametrize("options", [[string("TIMEOUT", "100")], [string("x", "y"), integer("TIMEOUT", 100)]])
def test_without_a_number_first_connect_has_no_limit(scene, options):
    client, pair = scene.connect(*options)
    with pytest.raises(AssertionError):
        client.receive(limit=0.4 / stretched(1))
    pair.reply()
    assert client.done("CONNECT") == [("RESULT", 0)]


def test_connect_outlasts_the_time_out_of_the_bus_library(bluez, scene):
    """Twenty-five seconds are the library's own; without a limit of the client's there is none."""
    client, pair = scene.connect()
    with pytest.raises(AssertionError):
        client.receive(limit=27 / stretched(1))
    pair.reply()
    assert client.done("CONNECT") == [("RESULT", 0)]


# Ending it


def test_there_is_nothing_to_end_at_an_unpaired_device(bluez, scene):
    assert scene.client().do("DISCONNECT") == FAILURE
    bluez.settle()
    assert not bluez.calls_of("CancelPairing", "RemoveDevice")


def test_a_paired_device_is_not_unpaired(bluez, scene):
    bluez.answer("Pair", Reply())
    client = scene.client()
    client.do("CONNECT")
    begin, lines = len(bluez.calls), scene.service.mark()
    assert client.execute(action("DISCONNECT")) == [integer("DISCONNECT", FAILURE)]
    assert scene.status() == BETWEEN, "it is unpairing from now on"
    assert client.do("DISCONNECT") == FAILURE
    assert client.do("WAIT_CONNECTED", integer("TIMEOUT", 50)) == FAILURE
    bluez.settle()
    assert len(bluez.calls) == begin and scene.service.mark() == lines


@pytest.mark.short
def test_disconnect_cancels_a_pairing(bluez, scene):
    connecting, pair = scene.connect()
    ending = scene.begin("DISCONNECT")
    cancel = bluez.wait_call("CancelPairing", path=PATH)
    assert (cancel.interface, cancel.args) == (DEVICE, ())
    assert scene.status() == BETWEEN
    pair.error(CANCELED, "Authentication Canceled")
    assert connecting.done("CONNECT") == [("RESULT", REFUSED)]
    assert ending.result()["values"] == [integer("DISCONNECT", 0)]
    assert scene.status() == UNPAIRED
    scene.service.expect_log((1, f"Request cancel pairing for {PATH}"), (1, f"Pair canceled: {PATH}"))


def test_disconnect_cancels_a_pairing_whose_pincode_is_shown(bluez, scene):
    pair = scene.connect_with_pincode()
    waiting = scene.begin_wait()
    ending = scene.begin("DISCONNECT")
    bluez.wait_call("CancelPairing", path=PATH)
    pair.error(CANCELED)
    assert ending.done("DISCONNECT") == 0
    assert waiting.done("WAIT_CONNECTED") == FAILURE


def test_the_answer_to_cancelling_is_not_waited_for(bluez, scene):
    bluez.answer("CancelPairing", hold)
    _, pair = scene.connect()
    ending = scene.begin("DISCONNECT")
    bluez.wait_call("CancelPairing")
    pair.error(CANCELED)
    assert ending.done("DISCONNECT") == 0


def test_a_second_disconnect_has_nothing_to_cancel(bluez, scene):
    _, pair = scene.connect()
    ending = scene.begin("DISCONNECT")
    bluez.wait_call("CancelPairing")
    assert scene.client().do("DISCONNECT") == FAILURE
    pair.error(CANCELED)
    assert ending.done("DISCONNECT") == 0
    assert len(bluez.calls_of("CancelPairing")) == 1


def test_bluez_pairs_although_it_was_cancelled(bluez, scene):
    """The state stays cancelling, and nobody is left waiting."""
    connecting, pair = scene.connect()
    waiting = scene.begin_wait()
    ending = scene.begin("DISCONNECT")
    bluez.wait_call("CancelPairing")
    pair.reply()
    assert connecting.done("CONNECT") == [("RESULT", 0)]
    assert waiting.done("WAIT_CONNECTED") == FAILURE
    assert ending.done("DISCONNECT") == 0
    assert scene.status() == BETWEEN


def test_a_pincode_while_cancelling_changes_nothing(bluez, scene):
    """It is stored and CONNECT shows it, as no pincode was there yet; the state stays cancelling."""
    connecting, pair = scene.connect()
    ending = scene.begin("DISCONNECT")
    bluez.wait_call("CancelPairing")
    bluez.display_pincode(PATH, "1111")
    assert connecting.done("CONNECT") == [("RESULT", 1), ("PINCODE", "1111")]
    assert scene.status() == BETWEEN
    pair.error(CANCELED)
    assert ending.done("DISCONNECT") == 0
    assert scene.status() == UNPAIRED


# What comes in between


def test_a_client_that_hangs_up_leaves_the_pairing_running(bluez, scene):
    client, pair = scene.connect()
    client.close()
    scene.clients.remove(client)
    bluez.display_pincode(PATH, "1111")
    scene.wait_status(BETWEEN)
    waiting = scene.begin_wait()
    pair.reply()
    assert waiting.done("WAIT_CONNECTED") == 0
    assert scene.status() == PAIRED


def test_a_waiter_that_hangs_up_leaves_the_others(bluez, scene):
    pair = scene.connect_with_pincode()
    leaving, staying = scene.begin_wait(), scene.begin_wait()
    leaving.close()
    scene.clients.remove(leaving)
    pair.reply()
    assert staying.done("WAIT_CONNECTED") == 0


def test_the_device_vanishes_in_the_middle_of_its_pairing(bluez, scene):
    """Its node goes at once; the requests that wait get their answers when BlueZ answers."""
    connecting, pair = scene.connect()
    waiting = [scene.begin_wait() for _ in range(3)]
    bluez.remove(PATH)
    scene.service.wait_log(f"Device removed: {PATH}")
    scene.service.wait_gone(scene.service.device_node())
    pair.error("org.freedesktop.DBus.Error.UnknownObject", "gone")
    assert connecting.done("CONNECT") == [("RESULT", REFUSED)]
    for client in waiting:
        assert client.done("WAIT_CONNECTED") == FAILURE
    for client in (connecting, *waiting):
        client.expect_closed()


def test_the_device_comes_again_while_its_old_pairing_runs(bluez, scene):
    connecting, old = scene.connect()
    bluez.remove(PATH)
    scene.service.wait_log(f"Device removed: {PATH}")
    bluez.set_device(announce=True)
    scene.service.wait_log(f"Device added: {PATH}", count=2)
    with scene.service.device() as client:
        assert client.value("STATUS") == UNPAIRED
        old.error("org.bluez.Error.Failed")
        assert connecting.done("CONNECT") == [("RESULT", REFUSED)]
        client.send_execute(action("CONNECT"))
        bluez.wait_call("Pair", count=2).reply()
        assert client.done("CONNECT") == [("RESULT", 0)]


def test_a_pairing_holds_up_nobody_else(bluez, scene):
    bluez.set_device("00:11:22:33:44:66", announce=True)
    scene.service.wait_node(scene.service.device_node("00:11:22:33:44:66"))
    _, pair = scene.connect()
    scene.begin_wait()
    with scene.service.device("00:11:22:33:44:66") as other, scene.service.device() as same:
        bluez.answer("Pair", Reply(), path=device_path("00:11:22:33:44:66"))
        assert other.do("CONNECT", limit=1) == [("RESULT", 0)]
        assert same.value("NAME", limit=1) == "device 55"
    pair.reply()


def test_later_calls_of_a_connection_wait_for_the_earlier(bluez, scene):
    client, pair = scene.connect()
    client.send("com.kelvo.node.Get", {"attribute": "STATUS"})
    client.send_execute(action("WAIT_CONNECTED"))
    pair.reply()
    assert client.done("CONNECT") == [("RESULT", 0)]
    assert client.result()["values"] == [integer("STATUS", PAIRED)]
    assert client.done("WAIT_CONNECTED") == 0


def test_actions_of_one_call_are_carried_out_in_order(bluez, scene):
    bluez.answer("Pair", Reply())
    assert scene.client().execute(action("WAIT_CONNECTED"), action("CONNECT"), action("WAIT_CONNECTED"),
                                  action("DISCONNECT")) == [
        integer("WAIT_CONNECTED", NOTHING_TO_WAIT_FOR), listing("CONNECT", integer("RESULT", 0)),
        integer("WAIT_CONNECTED", 0), integer("DISCONNECT", FAILURE)]


def test_a_pincode_before_the_answer_in_one_burst(bluez, scene):
    """The pincode and the answer to Pair come in one go, many times: the client gets one of the two outcomes, whole."""
    for number in range(100):
        client, pair = scene.connect()
        bluez.begin_agent_call("DisplayPinCode", "os", PATH, f"{number}")
        pair.error("org.bluez.Error.Failed")
        result = client.done("CONNECT")
        assert result in ([("RESULT", 1), ("PINCODE", f"{number}")], [("RESULT", REFUSED)]), result
        scene.wait_status(UNPAIRED)
        client.close()
        scene.clients.remove(client)
