"""Pairing and profiles."""

import os
import select
import time

from scenarios.words import (HUMAN, Waiting, connect, fail_as_a_person, find, pair, pair_again, profiles,
                             scenario)
from worlds.facts import (DEVICE, DEVICE_ID, FIRST, FIRST_PATH, HEADSET, KEYBOARD, NOT_LISTED, REMOTE_CONTROL, SECOND,
                          SECOND_PATH, SERIAL_PORT, number)

from harness.varlink import FAILURE, REFUSED, SUCCESS, integer

NOTHING_TO_WAIT_FOR = 33923


@scenario()
def the_pincode_is_shown_and_the_right_one_pairs(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service) as device:
        assert device.do("WAIT_CONNECTED") == NOTHING_TO_WAIT_FOR
        pincode = connect(device)
        assert device.value("STATUS") == 0
        # One pairing at a time: no second bus call.
        assert device.do("CONNECT") == [("RESULT", REFUSED)]
        with service.device(SECOND) as first, service.device(SECOND) as second:
            waiting = [Waiting(client, "WAIT_CONNECTED") for client in (first, second)]
            world.other_side.type(pincode)
            assert [wait.result() for wait in waiting] == [SUCCESS, SUCCESS]
        assert device.value("STATUS") == 3
        listed = world.property(SECOND_PATH, DEVICE, "UUIDs")
        assert listed and profiles(device) == [number(uuid) for uuid in listed]
        # Paired is paired.
        assert device.do("CONNECT") == [("RESULT", REFUSED)]
        assert device.do("WAIT_CONNECTED") == SUCCESS
    assert world.property(SECOND_PATH, DEVICE, "Paired") is True
    assert world.calls_of_service("Pair") == 1


@scenario()
def a_wrong_pincode_ends_the_wait_and_a_second_try_pairs(world, start):
    """BlueZ tries again with another pincode; the service, whose client knows only the first one, cancels."""
    world.prepare(KEYBOARD)
    service = start()
    with find(service) as device:
        pincode = connect(device)
        with service.device(SECOND) as client:
            waiting = Waiting(client, "WAIT_CONNECTED")
            fail_as_a_person(world, "111111" if pincode != "111111" else "222222")
            assert waiting.result() == FAILURE
    assert world.calls_of_service("CancelPairing") == 1
    pair_again(service, world)


@scenario()
def a_rejection_ends_the_wait_and_a_second_try_pairs(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service) as device:
        connect(device)
        with service.device(SECOND) as client:
            waiting = Waiting(client, "WAIT_CONNECTED")
            fail_as_a_person(world, None)
            assert waiting.result() == FAILURE
    pair_again(service, world)


@scenario()
def a_pincode_that_is_wrong_at_once_makes_bluez_ask_and_disconnect_ends_that(world, start):
    """BlueZ takes it for a keyboard with a fixed code, tries one, then asks the agent, which has none to give."""
    world.prepare(KEYBOARD)
    service = start()
    with find(service) as device:
        pincode = connect(device)
        with service.device(SECOND) as client:
            waiting = Waiting(client, "WAIT_CONNECTED")
            world.other_side.type("111111" if pincode != "111111" else "222222")
            service.wait_log("Unsupported authentication method RequestPinCode", level=3, limit=20)
            assert device.do("DISCONNECT", limit=20) == SUCCESS
            assert waiting.result() == FAILURE
    service.wait_gone(service.device_node(SECOND), limit=20)


@scenario()
def disconnect_cancels_and_leaves_the_device_usable(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service) as device:
        connect(device)
        with service.device(SECOND) as client:
            waiting = Waiting(client, "WAIT_CONNECTED")
            service.wait_waiting(client)
            world.other_side.wait_asked()
            assert device.do("DISCONNECT", limit=20) == SUCCESS
            assert waiting.result() == FAILURE
        service.wait_log(f"Pair canceled: {SECOND_PATH}", level=1)
    assert world.calls_of_service("CancelPairing") == 1
    pair_again(service, world)


@scenario()
def an_inquiry_waits_for_the_end_of_a_pairing(world, start):
    """bluetoothd suspends discoveries while it pairs, and answers who asks for one when the pairing has ended."""
    world.prepare(KEYBOARD)
    service = start()
    with find(service) as device, service.adapter(FIRST) as adapter:
        pincode = connect(device)
        world.other_side.wait_asked()
        inquiry = Waiting(adapter, "INQUIRY_START")
        world.wait_calls_of_service("StartDiscovery", 2)
        with service.device(SECOND) as client:
            waiting = Waiting(client, "WAIT_CONNECTED")
            time.sleep(HUMAN)
            assert len(world.answers("StartDiscovery")) == 1, "StartDiscovery was answered in the middle of the pairing"
            world.other_side.type(pincode)
            assert waiting.result() == SUCCESS
        assert inquiry.result() == SUCCESS


@scenario()
def a_paired_device_is_known_to_the_next_start(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service) as device:
        pair(service, world, device)
        assert device.do("DISCONNECT") == FAILURE
        assert device.value("STATUS") == 0
    assert service.stop() == 0
    again = start()
    with again.device(SECOND) as device:
        assert device.value("STATUS") == 3
        # Profiles are learnt when a pairing succeeds.
        assert profiles(device) == []
        assert device.do("CONNECT") == [("RESULT", REFUSED)]


@scenario()
def a_headset_pairs_without_a_pincode(world, start):
    world.prepare(HEADSET)
    service = start()
    with find(service) as device:
        assert connect(device) is None
        assert device.value("STATUS") == 3
        assert number(REMOTE_CONTROL) in profiles(device)


@scenario()
def a_profile_that_is_offered_connects_and_others_do_not(world, start):
    world.prepare(HEADSET)
    world.other_side.offer_serial_port()
    service = start()
    with find(service) as device:
        assert connect(device) is None
        assert {number(SERIAL_PORT), number(DEVICE_ID)} < set(profiles(device))

        def activate(uuid):
            [(name, result)] = device.do("ACTIVATE_PROFILE", integer("PROFILE", number(uuid)), limit=20)
            assert name == "RESULT"
            return result

        # Not offered; then nothing that BlueZ could connect, and not let in by the other side.
        assert activate(NOT_LISTED) == REFUSED
        assert world.calls_of_service("ConnectProfile") == 0
        assert activate(DEVICE_ID) == REFUSED
        world.other_side.let_in(False)
        assert activate(SERIAL_PORT) == REFUSED
        assert profiles(device, "ACTIVE_PROFILES") == []
        world.other_side.let_in(True)
        assert activate(SERIAL_PORT) == SUCCESS
        assert profiles(device, "ACTIVE_PROFILES") == [number(SERIAL_PORT)]
        if world.name == "bluetoothd":
            check_connection(world)
        assert world.calls_of_service("ConnectProfile") == 3
        # Active already: refused without a bus call.
        assert activate(SERIAL_PORT) == REFUSED
        assert world.calls_of_service("ConnectProfile") == 3
        assert activate(REMOTE_CONTROL) == SUCCESS
        assert sorted(profiles(device, "ACTIVE_PROFILES")) == [number(SERIAL_PORT), number(REMOTE_CONTROL)]


def check_connection(world):
    """What ACTIVATE_PROFILE brought about carries data from one controller to the other."""
    near, far = world.other_side.connection(SECOND_PATH), world.other_side.connection(FIRST_PATH)
    try:
        os.write(near, b"over the air")
        assert select.select([far], [], [], 10)[0], "nothing came through the serial port"
        assert os.read(far, 100) == b"over the air"
    finally:
        os.close(near)
        os.close(far)
