"""The profiles of a device: read when it pairs, listed, activated."""

import re
import time

import pytest

from harness.bluez import DEVICE, FAILED, Error, Reply, device_path, hold
from harness.varlink import REFUSED, action, integer, listing, nothing, string
from harness.waiting import stretched

PATH = device_path("00:11:22:33:44:55")
A2DP_SOURCE = "0000110a-0000-1000-8000-00805f9b34fb"
A2DP_SINK = "0000110b-0000-1000-8000-00805f9b34fb"
REFUSAL = listing("ACTIVATE_PROFILE", integer("RESULT", REFUSED))
SUCCESS = listing("ACTIVATE_PROFILE", integer("RESULT", 0))


@pytest.fixture
def paired(bluez, start):
    """Starts a service whose device has these UUIDs and pairs it; gives the service and a client of the device."""
    clients = []

    def run(*uuids, signature="as", pair=True):
        bluez.set_device(UUIDs=(signature, list(uuids)) if signature == "as" else (signature, uuids[0]))
        bluez.answer("Pair", Reply())
        service = start()
        clients.append(service.device())
        if pair:
            assert clients[-1].do("CONNECT") == [("RESULT", 0)]
        return service, clients[-1]

    yield run
    for client in clients:
        client.close()


def profiles(client, attribute="PROFILES"):
    return client.value(attribute)


def numbers(*values):
    return [("PROFILE", value) for value in values]


# The list


@pytest.mark.short
def test_profiles_are_read_when_a_pairing_succeeds(bluez, paired):
    service, client = paired(A2DP_SOURCE, A2DP_SINK)
    assert client.get("PROFILES") == [listing("PROFILES", integer("PROFILE", 0x110A), integer("PROFILE", 0x110B))]
    assert client.get("ACTIVE_PROFILES") == [listing("ACTIVE_PROFILES")]
    read = [call for call in bluez.calls_of("Get", path=PATH) if call.args[1] == "UUIDs"]
    assert [call.args for call in read] == [(DEVICE, "UUIDs")]
    service.expect_log((1, f"Device paired: {PATH}"), (1, f"Retrieving profiles for {PATH}"),
                       (1, f"Successfully retrieved 2h (2) profiles for {PATH}"),
                       (1, f"Pairing succeeded for device {PATH}"))


def test_the_count_is_written_in_hexadecimal_and_decimal(paired):
    service, client = paired(*(f"{number:08x}-0000-1000-8000-00805f9b34fb" for number in range(0x1100, 0x1100 + 27)))
    service.wait_log(f"Successfully retrieved 1bh (27) profiles for {PATH}", level=1)
    assert profiles(client) == numbers(*range(0x1100, 0x1100 + 27))


@pytest.mark.parametrize("uuid, number", [
    ("ffffffff-0000-1000-8000-00805f9b34fb", 0xFFFFFFFF), ("00000000-", 0), ("0000110A-0000", 0x110A),
    ("DEADbeef-1", 0xDEADBEEF), ("12345678-90-ab-cd", 0x12345678),
])
def test_the_number_is_the_first_eight_digits(paired, uuid, number):
    assert profiles(paired(uuid)[1]) == numbers(number)


@pytest.mark.parametrize("uuid", ["110a", "", "-", "0000110g-0000-1000", "000110a-0000-1000", "00000110a-0000-1000",
                                  "0000110a", "0000110a_0000-1000", "0x00110a-0000", "zzzzzzzz-0000", "       1-0000",
                                  "-000110a-0000", "1234-678-0000"])
def test_a_text_of_another_form_is_skipped(paired, uuid):
    service, client = paired(uuid, A2DP_SINK)
    assert profiles(client) == numbers(0x110B)
    service.wait_log(f"Successfully retrieved 1h (1) profiles for {PATH}", level=1)


@pytest.mark.parametrize("signature, value", [
    ("as", []), ("as", ["110a"]), ("s", A2DP_SINK), ("u", 7), ("ao", ["/a"]), ("au", [0x110A]), ("a{ss}", {"a": "b"}),
    ("av", [("s", A2DP_SINK)]), ("aas", [[A2DP_SINK]]),
], ids=["none", "malformed", "text", "number", "paths", "numbers", "dictionary", "variants", "lists"])
def test_a_list_without_a_usable_profile_is_empty(bluez, start, signature, value):
    bluez.set_device(UUIDs=(signature, value))
    bluez.answer("Pair", Reply())
    service = start()
    with service.device() as client:
        assert client.do("CONNECT") == [("RESULT", 0)]
        assert profiles(client) == []
    service.wait_log(f"Did not retreive any profiles for {PATH}", level=3)


@pytest.mark.parametrize("answer", [FAILED, Reply("as", [A2DP_SINK]), Reply()], ids=["error", "no variant", "nothing"])
def test_profiles_that_cannot_be_read_are_none(bluez, start, answer):
    bluez.set_device()
    bluez.answer("Pair", Reply())
    bluez.answer("Get:UUIDs", answer)
    service = start()
    with service.device() as client:
        assert client.do("CONNECT") == [("RESULT", 0)]
        assert profiles(client) == []
    service.wait_log(f"Did not retreive any profiles for {PATH}", level=3)


def test_a_profile_listed_twice_is_listed_twice(paired):
    assert profiles(paired(A2DP_SINK, A2DP_SINK)[1]) == numbers(0x110B, 0x110B)


def test_ten_thousand_profiles(paired):
    count = 10000
    _, client = paired(*(f"{number:08x}-0000-1000-8000-00805f9b34fb" for number in range(count)))
    assert profiles(client) == numbers(*range(count))


def test_waiters_find_the_profiles_there(bluez, start):
    """They are read before anybody is told that the pairing succeeded."""
    bluez.set_device(UUIDs=("as", [A2DP_SINK]))
    service = start()
    with service.device() as connecting, service.device() as client:
        connecting.send_execute(action("CONNECT"))
        pair = bluez.wait_call("Pair")
        client.send_execute(action("WAIT_CONNECTED"))
        service.wait_asleep(client)
        client.send("com.kelvo.node.Get", {"attribute": "PROFILES"})
        pair.reply()
        assert client.done("WAIT_CONNECTED") == 0
        assert client.result()["values"] == [listing("PROFILES", integer("PROFILE", 0x110B))]


# Activating one


@pytest.mark.short
def test_a_profile_is_activated(bluez, paired):
    service, client = paired(A2DP_SOURCE, A2DP_SINK)
    begin = service.mark()
    assert client.execute(action("ACTIVATE_PROFILE", integer("PROFILE", 0x110B))) == [SUCCESS]
    call = bluez.wait_call("ConnectProfile")
    assert (call.destination, call.path, call.interface, call.signature, call.args) == (
        "org.bluez", PATH, DEVICE, "s", (A2DP_SINK,))
    assert [(line.level, line.text) for line in service.logged(begin)] == [
        (1, f"Activate profile 110bh (4363) for device {PATH}"),
        (1, f"Activated profile 110bh (4363) for device {PATH}")]
    assert profiles(client, "ACTIVE_PROFILES") == numbers(0x110B)
    assert profiles(client) == numbers(0x110A, 0x110B)


@pytest.mark.parametrize("value", [
    listing("ACTIVATE_PROFILE", integer("PROFILE", (5 << 32) + 0x110B)),
    listing("ACTIVATE_PROFILE", integer("PROFILE", 0x110B), string("more", "options")),
    string("ACTIVATE_PROFILE", "4363"), string("ACTIVATE_PROFILE", "0x110b"), string("ACTIVATE_PROFILE", "0x110B"),
], ids=["low 32 bits", "first option", "decimal", "hexadecimal", "hexadecimal, upper case"])
def test_forms_of_the_number(bluez, paired, value):
    _, client = paired(A2DP_SINK)
    assert client.execute(value) == [SUCCESS]
    assert bluez.wait_call("ConnectProfile").args == (A2DP_SINK,)


@pytest.mark.parametrize("value, text", [
    (action("ACTIVATE_PROFILE", string("PROFILE", "4363")), "profile UUID must be a number"),
    (action("ACTIVATE_PROFILE", listing("PROFILE", integer("PROFILE", 4363))), "profile UUID must be a number"),
    (action("ACTIVATE_PROFILE", nothing("PROFILE")), "profile UUID must be a number"),
    (action("ACTIVATE_PROFILE", integer("profile", 4363)), "profile UUID must be a number"),
    (action("ACTIVATE_PROFILE", {"kind": "integer", "integer": 4363}), "profile UUID must be a number"),
    (action("ACTIVATE_PROFILE", string("x", "y"), integer("PROFILE", 4363)), "profile UUID must be a number"),
    (action("ACTIVATE_PROFILE"), "missing UUID parameter"),
    (listing("ACTIVATE_PROFILE"), "missing UUID parameter"),
    (integer("ACTIVATE_PROFILE", 4363), "missing UUID parameter"),
    (string("ACTIVATE_PROFILE", "110b"), "cannot parse UUID 110b"),
    (string("ACTIVATE_PROFILE", ""), "cannot parse UUID "),
    (string("ACTIVATE_PROFILE", "4294967296"), "cannot parse UUID 4294967296"),
    (string("ACTIVATE_PROFILE", "0x100000000"), "cannot parse UUID 0x100000000"),
    (string("ACTIVATE_PROFILE", "-1"), "cannot parse UUID -1"),
    (string("ACTIVATE_PROFILE", "0x"), "cannot parse UUID 0x"),
    (string("ACTIVATE_PROFILE", A2DP_SINK), f"cannot parse UUID {A2DP_SINK}"),
    (string("ACTIVATE_PROFILE", "4363\nforged"), r"cannot parse UUID 4363\nforged"),
])
def test_a_number_of_another_form_is_refused_with_one_line(bluez, paired, value, text):
    service, client = paired(A2DP_SINK)
    begin = service.mark()
    assert client.execute(value) == [REFUSAL]
    service.wait_log(f"ACTIVATE_PROFILE: {text}", level=4, start=begin)
    bluez.settle()
    assert service.mark() == begin + 1
    assert not bluez.calls_of("ConnectProfile")
    assert profiles(client, "ACTIVE_PROFILES") == []


def test_lines_of_refusals_are_not_torn_apart(bluez, paired):
    """Each line is written by two statements; many refusals at once still make whole lines."""
    service, _ = paired(A2DP_SINK)
    clients = [service.device() for _ in range(8)]
    for _ in range(25):
        for number, client in enumerate(clients):
            client.send_execute(string("ACTIVATE_PROFILE", f"bad{number}"))
    for client in clients:
        for _ in range(25):
            assert client.result()["values"] == [REFUSAL]
        client.close()
    for number in range(8):
        service.wait_log(f"ACTIVATE_PROFILE: cannot parse UUID bad{number}", level=4, count=25)


@pytest.mark.parametrize("number", [0x110A, 0, 0xFFFFFFFF])
def test_a_profile_that_is_not_there_is_refused_silently(bluez, paired, number):
    service, client = paired(A2DP_SINK)
    begin = service.mark()
    assert client.do("ACTIVATE_PROFILE", integer("PROFILE", number)) == [("RESULT", REFUSED)]
    bluez.settle()
    assert service.mark() == begin
    assert not bluez.calls_of("ConnectProfile")


def test_an_active_profile_is_not_activated_again(bluez, paired):
    service, client = paired(A2DP_SINK)
    assert client.do("ACTIVATE_PROFILE", integer("PROFILE", 0x110B)) == [("RESULT", 0)]
    begin = service.mark()
    assert client.do("ACTIVATE_PROFILE", integer("PROFILE", 0x110B)) == [("RESULT", REFUSED)]
    bluez.settle()
    assert service.mark() == begin and len(bluez.calls_of("ConnectProfile")) == 1


def test_of_a_profile_listed_twice_the_first_is_meant(bluez, paired):
    _, client = paired("0000110b-aaaa", "0000110b-bbbb")
    assert client.do("ACTIVATE_PROFILE", integer("PROFILE", 0x110B)) == [("RESULT", 0)]
    assert client.do("ACTIVATE_PROFILE", integer("PROFILE", 0x110B)) == [("RESULT", REFUSED)]
    assert [call.args for call in bluez.calls_of("ConnectProfile")] == [("0000110b-aaaa",)]
    assert profiles(client, "ACTIVE_PROFILES") == numbers(0x110B)


def test_what_fails_stays_inactive_and_can_be_tried_again(bluez, paired):
    service, client = paired(A2DP_SINK)
    bluez.answer("ConnectProfile", Error("org.bluez.Error.NotAvailable", "no such luck"), Reply())
    assert client.do("ACTIVATE_PROFILE", integer("PROFILE", 0x110B)) == [("RESULT", REFUSED)]
    service.expect_log((1, f"Activate profile 110bh (4363) for device {PATH}"),
                       (4, f"Could not activate profile 110bh (4363) for device {PATH}: no such luck"))
    assert profiles(client, "ACTIVE_PROFILES") == []
    assert client.do("ACTIVATE_PROFILE", integer("PROFILE", 0x110B)) == [("RESULT", 0)]


def test_activating_waits_one_second(bluez, paired):
    service, client = paired(A2DP_SINK)
    bluez.answer("ConnectProfile", hold)
    began = time.monotonic()
    assert client.do("ACTIVATE_PROFILE", integer("PROFILE", 0x110B)) == [("RESULT", REFUSED)]
    assert 0.99 <= time.monotonic() - began <= stretched(1.6)
    service.wait_log(re.compile(f"Could not activate profile 110bh .4363. for device {PATH}: "
                                r"Did not receive a reply\..*"), level=4)


def test_the_list_waits_while_a_profile_is_being_activated(bluez, paired):
    service, client = paired(A2DP_SINK)
    bluez.answer("ConnectProfile", hold)
    with service.device() as reader:
        client.send_execute(action("ACTIVATE_PROFILE", integer("PROFILE", 0x110B)))
        call = bluez.wait_call("ConnectProfile")
        assert reader.value("NAME") == "device 55", "other attributes do not wait"
        reader.send("com.kelvo.node.Get", {"attribute": "ACTIVE_PROFILES"})
        call.reply()
        assert client.done("ACTIVATE_PROFILE") == [("RESULT", 0)]
        assert reader.result()["values"] == [listing("ACTIVE_PROFILES", integer("PROFILE", 0x110B))]


def test_an_unpaired_device_has_nothing_to_activate(bluez, paired):
    _, client = paired(A2DP_SINK, pair=False)
    assert client.do("ACTIVATE_PROFILE", integer("PROFILE", 0x110B)) == [("RESULT", REFUSED)]
    bluez.settle()
    assert not bluez.calls_of("ConnectProfile")


def test_actions_are_read_in_order_with_their_names_exact(paired):
    _, client = paired(A2DP_SINK)
    assert client.execute(string("activate_profile", "4363"), string("ACTIVATE_PROFILE", "4363"),
                          string("ACTIVATE_PROFILE", "4363")) == [
        integer("activate_profile", 33862), SUCCESS, REFUSAL]
