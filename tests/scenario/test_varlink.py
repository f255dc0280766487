"""What is spoken on a node, to the letter."""

import array
import json
import os
import socket

import pytest

from harness.bluez import hold
from harness.process import AtRest
from harness.varlink import NODE, SERVICE, VarlinkError, action, integer, listing, string

DESCRIBE = b'{"method":"com.kelvo.node.Describe"}\0'


@pytest.fixture
def client(bluez, start):
    """A client of an adapter's node; the service is client.service."""
    bluez.set_adapter()
    service = start()
    with service.adapter() as made:
        made.service = service
        yield made


def assert_alive(client):
    assert client.describe()["server"] == "LinuxBTAdapters"


def error_of(client, method, parameters=None):
    with pytest.raises(VarlinkError) as raised:
        client.call(method, parameters)
    return raised.value.name, raised.value.parameters


# org.varlink.service


@pytest.mark.parametrize("node", ["service", "master", "adapters/00:1A:7D:DA:71:13/adapter",
                                  "devices/00:11:22:33:44:55/device"])
def test_every_node_tells_what_it_is(bluez, start, node):
    bluez.set_adapter()
    bluez.set_device()
    with start().open(node) as client:
        info = client.call(f"{SERVICE}.GetInfo")
        assert set(info) == {"vendor", "product", "version", "url", "interfaces"}
        assert all(isinstance(info[key], str) for key in ("vendor", "product", "version", "url"))
        assert sorted(info["interfaces"]) == [NODE, SERVICE]
        for interface in info["interfaces"]:
            text = client.call(f"{SERVICE}.GetInterfaceDescription", {"interface": interface})["description"]
            code = [line for line in text.splitlines() if line.strip() and not line.startswith("#")]
            assert code[0] == f"interface {interface}"


def test_the_description_names_every_method_and_error(client):
    text = client.call(f"{SERVICE}.GetInterfaceDescription", {"interface": NODE})["description"]
    plain = "".join(text.split())
    for part in ("methodDescribe()->(node:string,server:string,attributes:[]string,actions:[]string)",
                 "methodGet(attribute:string)->(values:[]Value)", "methodSet(values:[]Value)->(values:[]Value)",
                 "methodExecute(values:[]Value)->(values:[]Value)", "methodWatch()->(change:?int)",
                 "errorWithdrawn()", "errorBusy()",
                 "typeValue(name:?string,kind:(none,integer,string,list),integer:?int,text:?string,"
                 "children:?[]Value)"):
        assert part in plain, part
    text = "".join(client.call(f"{SERVICE}.GetInterfaceDescription", {"interface": SERVICE})["description"].split())
    for part in ("methodGetInfo()", "methodGetInterfaceDescription(interface:string)->(description:string)",
                 "errorInterfaceNotFound(interface:string)", "errorMethodNotFound(method:string)",
                 "errorInvalidParameter(parameter:string)", "errorExpectedMore()"):
        assert part in text, part


def test_an_interface_that_is_not_there_has_no_description(client):
    name, parameters = error_of(client, f"{SERVICE}.GetInterfaceDescription", {"interface": "com.example"})
    assert name in (f"{SERVICE}.InterfaceNotFound", f"{SERVICE}.InvalidParameter")
    assert parameters in ({"interface": "com.example"}, {"parameter": "interface"})


# Methods and parameters


@pytest.mark.parametrize("method, interface", [("com.example.Get", "com.example"), ("com.kelvo.Get", "com.kelvo"),
                                               ("com.kelvo.node.x.Get", "com.kelvo.node.x"),
                                               ("Com.Kelvo.Node.Get", "Com.Kelvo.Node")])
def test_an_unknown_interface(client, method, interface):
    assert error_of(client, method) == (f"{SERVICE}.InterfaceNotFound", {"interface": interface})
    assert_alive(client)


@pytest.mark.parametrize("method", ["Get", "", "describe"])
def test_a_method_without_a_dot_is_of_no_interface(client, method):
    assert error_of(client, method)[0] == f"{SERVICE}.InterfaceNotFound"
    assert_alive(client)


@pytest.mark.parametrize("method", [f"{NODE}.get", f"{NODE}.Nothing", f"{NODE}.", f"{SERVICE}.getInfo",
                                    f"{SERVICE}.Get"])
def test_an_unknown_method(client, method):
    assert error_of(client, method) == (f"{SERVICE}.MethodNotFound", {"method": method})
    assert_alive(client)


@pytest.mark.parametrize("parameters", ["", ',"parameters":null', ',"parameters":{}'])
def test_absent_null_and_empty_parameters_are_equal(client, parameters):
    client.send_raw(f'{{"method":"{NODE}.Describe"{parameters}}}\0'.encode())
    assert client.result()["server"] == "LinuxBTAdapters"
    client.send_raw(f'{{"method":"{NODE}.Get"{parameters}}}\0'.encode())
    with pytest.raises(VarlinkError) as raised:
        client.result()
    assert (raised.value.name, raised.value.parameters) == (f"{SERVICE}.InvalidParameter", {"parameter": "attribute"})


def nested(depth, leaf=None):
    value = leaf or {"name": "leaf", "kind": "none"}
    for _ in range(depth - 1):
        value = listing("level", value)
    return value


@pytest.mark.parametrize("method, parameters, name", [
    ("Describe", {"x": 1}, "x"),
    ("Describe", {"node": None}, "node"),
    ("Watch", {"attribute": "NAME"}, "attribute"),
    ("Get", {}, "attribute"),
    ("Get", {"attribute": None}, "attribute"),
    ("Get", {"attribute": 5}, "attribute"),
    ("Get", {"attribute": ["NAME"]}, "attribute"),
    ("Get", {"attribute": "NAME", "extra": 1}, "extra"),
    ("Get", {"Attribute": "NAME", "attribute": "NAME"}, "Attribute"),
    ("Set", {}, "values"),
    ("Set", {"values": "x"}, "values"),
    ("Execute", {}, "values"),
    ("Execute", {"values": None}, "values"),
    ("Execute", {"values": {}}, "values"),
    ("Execute", {"values": [5]}, "values"),
    ("Execute", {"values": [None]}, "values"),
    ("Execute", {"values": [[]]}, "values"),
    ("Execute", {"values": [{}]}, "kind"),
    ("Execute", {"values": [{"name": "x"}]}, "kind"),
    ("Execute", {"values": [{"name": "x", "kind": None}]}, "kind"),
    ("Execute", {"values": [{"name": "x", "kind": "nothing"}]}, "kind"),
    ("Execute", {"values": [{"name": "x", "kind": "Integer"}]}, "kind"),
    ("Execute", {"values": [{"name": "x", "kind": 1}]}, "kind"),
    ("Execute", {"values": [{"name": 5, "kind": "none"}]}, "name"),
    ("Execute", {"values": [{"kind": "none", "extra": 1}]}, "extra"),
    ("Execute", {"values": [{"name": "x", "kind": "integer"}]}, "integer"),
    ("Execute", {"values": [{"name": "x", "kind": "integer", "integer": None}]}, "integer"),
    ("Execute", {"values": [{"name": "x", "kind": "integer", "integer": "5"}]}, "integer"),
    ("Execute", {"values": [{"name": "x", "kind": "integer", "integer": 1.5}]}, "integer"),
    ("Execute", {"values": [{"name": "x", "kind": "integer", "integer": True}]}, "integer"),
    ("Execute", {"values": [{"name": "x", "kind": "integer", "integer": 1 << 64}]}, "integer"),
    ("Execute", {"values": [{"name": "x", "kind": "integer", "integer": -(1 << 63) - 1}]}, "integer"),
    ("Execute", {"values": [{"name": "x", "kind": "string"}]}, "text"),
    ("Execute", {"values": [{"name": "x", "kind": "string", "text": 5}]}, "text"),
    ("Execute", {"values": [{"name": "x", "kind": "list"}]}, "children"),
    ("Execute", {"values": [{"name": "x", "kind": "list", "children": {}}]}, "children"),
    ("Execute", {"values": [{"name": "x", "kind": "list", "children": [5]}]}, "children"),
    ("Execute", {"values": [listing("x", {"name": "y", "kind": "integer", "integer": "z"})]}, "integer"),
    ("Execute", {"values": [listing("x", listing("y", {"kind": "string", "name": []}))]}, "name"),
    ("Execute", {"values": [string("INQUIRY_START", "x"), {"kind": "what"}]}, "kind"),
])
def test_a_wrong_parameter_is_named_by_its_innermost_field(client, bluez, method, parameters, name):
    assert error_of(client, f"{NODE}.{method}", parameters) == (f"{SERVICE}.InvalidParameter", {"parameter": name}) \
        or method == "Watch" and error_of(client, f"{NODE}.{method}", parameters)[0] == f"{SERVICE}.ExpectedMore"
    assert_alive(client)
    bluez.settle()
    assert not bluez.calls_of("StartDiscovery"), "nothing of the call was carried out"


@pytest.mark.parametrize("parameters, name", [({"x": 1}, "x"), ({}, "interface"), ({"interface": 5}, "interface"),
                                              ({"interface": SERVICE, "x": 1}, "x")])
def test_wrong_parameters_of_the_service_interface(client, parameters, name):
    method = "GetInfo" if name == "x" and "interface" not in parameters else "GetInterfaceDescription"
    assert error_of(client, f"{SERVICE}.{method}", parameters) == (f"{SERVICE}.InvalidParameter", {"parameter": name})


@pytest.mark.parametrize("value", [
    {"name": "x", "kind": "none", "integer": 5, "text": "ignored", "children": []},
    {"name": "x", "kind": "integer", "integer": (1 << 63) - 1, "text": None},
    {"name": "x", "kind": "integer", "integer": -(1 << 63)},
    {"name": "x", "kind": "integer", "integer": 0, "text": "of another kind"},
    {"name": "x", "kind": "string", "text": ""},
    {"name": "x", "kind": "list", "children": []},
    {"name": "x", "kind": "list", "children": [{"kind": "none"}, {"name": None, "kind": "string", "text": "x"}]},
])
def test_values_that_are_fine(client, value):
    assert client.execute(value) == [string("x", "Invalid Action")]


def test_a_name_that_is_absent_stays_absent(client):
    client.send_execute({"kind": "none"}, {"kind": "none", "name": None}, {"kind": "none", "name": ""})
    first, second, third = client.receive()["parameters"]["values"]
    assert first.get("name") is None and second.get("name") is None and third["name"] == ""


@pytest.mark.parametrize("name", ["ä蓝牙\N{GRINNING FACE}", "quote\" \\ /", "tab\tnew\nline", "\x00nul", "\x7f\x1b",
                                  "\N{REPLACEMENT CHARACTER}", "x" * 10000])
def test_names_come_back_as_they_were_sent(client, name):
    assert client.execute({"name": name, "kind": "none"}) == [string(name, "Invalid Action")]


def test_escapes_are_read(client):
    client.send_raw(rb'{"method":"com.kelvo.node.\u0047et","parameters":{"attribute":"\u004e\u0041ME\ud83d\ude00"}}'
                    b"\0")
    assert client.result() == {"values": []}


def test_white_space_is_fine(client):
    client.send_raw(b' \t\r\n{ "method" : "com.kelvo.node.Describe" , "parameters" : { } }\r\n \0')
    assert client.result()["server"] == "LinuxBTAdapters"


# Flags


@pytest.mark.parametrize("flags", [{"more": True}, {"more": False}, {"oneway": False}, {"upgrade": False},
                                   {"more": None, "oneway": None, "upgrade": None},
                                   {"more": True, "oneway": False, "upgrade": None}])
def test_a_reply_goes_on_only_where_more_was_asked_and_more_comes(client, flags):
    client.send(f"{NODE}.Get", {"attribute": "NAME"}, **flags)
    reply = client.receive()
    assert not reply.get("continues")
    assert_alive(client)


@pytest.mark.parametrize("flags", [{}, {"more": False}, {"more": None}])
def test_watching_needs_more(client, flags):
    client.send(f"{NODE}.Watch", **flags)
    reply = client.receive()
    assert reply["error"] == f"{SERVICE}.ExpectedMore" and not reply.get("parameters")
    assert_alive(client)


def test_an_error_never_continues(client):
    client.send(f"{NODE}.Nothing", more=True)
    reply = client.receive()
    assert reply["error"] == f"{SERVICE}.MethodNotFound" and not reply.get("continues")


@pytest.mark.parametrize("method, parameters", [
    (f"{NODE}.Describe", None), (f"{NODE}.Get", {"attribute": "NAME"}), (f"{NODE}.Get", {}), (f"{NODE}.Nothing", None),
    ("com.example.Get", None), ("Get", None), (f"{NODE}.Watch", None), (f"{SERVICE}.GetInfo", None),
    (f"{NODE}.Execute", {"values": [{"kind": "what"}]}),
])
def test_oneway_gets_no_reply_at_all(client, method, parameters):
    client.send(method, parameters, oneway=True)
    assert_alive(client)  # The first reply there is belongs to this call.


def test_oneway_is_carried_out(client, bluez):
    client.send_execute(action("INQUIRY_START"), oneway=True)
    assert client.do("INQUIRY_STOP") == 0
    assert [call.member for call in bluez.calls_of("StartDiscovery", "StopDiscovery")] == ["StartDiscovery",
                                                                                          "StopDiscovery"]


@pytest.mark.parametrize("method", [f"{NODE}.Describe", f"{NODE}.Watch", f"{SERVICE}.GetInfo", f"{NODE}.Nothing"])
def test_an_upgrade_is_answered_with_an_error_and_the_connection_goes_on(client, method):
    client.send(method, upgrade=True)
    assert client.receive()["error"]
    assert_alive(client)


# Malformed input

MALFORMED = {
    "nothing": b"", "white space": b"  ", "no JSON": b"hello", "half an object": b'{"method":"com.kelvo.node.Describe"',
    "two objects": DESCRIBE[:-1] * 2, "something behind": DESCRIBE[:-1] + b"x", "array": b'["com.kelvo.node.Describe"]',
    "string": b'"com.kelvo.node.Describe"', "number": b"5", "null": b"null", "true": b"true",
    "single quotes": b"{'method':'com.kelvo.node.Describe'}", "comma at the end": b'{"method":"com.kelvo.node.Get",}',
    "comment": b'{"method":"com.kelvo.node.Describe"/*x*/}', "bare key": b'{method:"com.kelvo.node.Describe"}',
    "control character": b'{"method":"com.kelvo.node.Describe\n"}', "NaN": b'{"method":"a.B","parameters":{"x":NaN}}',
    "leading zero": b'{"method":"a.B","parameters":{"x":01}}', "plus": b'{"method":"a.B","parameters":{"x":+1}}',
    "invalid UTF-8": b'{"method":"com.kelvo.node.Describe\xff"}',
    "overlong UTF-8": b'{"method":"com.kelvo.node.Get","parameters":{"attribute":"\xc0\xaf"}}',
    "UTF-8 of a surrogate": b'{"method":"com.kelvo.node.Get","parameters":{"attribute":"\xed\xa0\x80"}}',
    "UTF-8 past the end of Unicode": b'{"method":"com.kelvo.node.Get","parameters":{"attribute":"\xf4\x90\x80\x80"}}',
    "byte-order mark": b"\xef\xbb\xbf" + DESCRIBE[:-1],
    "key twice": b'{"method":"com.kelvo.node.Describe","method":"com.kelvo.node.Describe"}',
    "key twice, escaped": rb'{"method":"com.kelvo.node.Describe","meth\u006fd":"com.kelvo.node.Describe"}',
    "parameter twice": b'{"method":"com.kelvo.node.Get","parameters":{"attribute":"NAME","attribute":"NAME"}}',
    "field of a value twice":
        b'{"method":"com.kelvo.node.Execute","parameters":{"values":[{"kind":"none","kind":"none"}]}}',
    "unknown key": b'{"method":"com.kelvo.node.Describe","id":5}',
    "key of another protocol": b'{"method":"com.kelvo.node.Describe","params":{}}',
    "no method": b"{}", "parameters only": b'{"parameters":{}}', "method null": b'{"method":null}',
    "method number": b'{"method":5}', "method list": b'{"method":["com.kelvo.node.Describe"]}',
    "more number": b'{"method":"com.kelvo.node.Describe","more":1}',
    "oneway text": b'{"method":"com.kelvo.node.Describe","oneway":"true"}',
    "upgrade object": b'{"method":"com.kelvo.node.Describe","upgrade":{}}',
    "more and oneway": b'{"method":"com.kelvo.node.Describe","more":true,"oneway":true}',
    "more and upgrade": b'{"method":"com.kelvo.node.Describe","more":true,"upgrade":true}',
    "oneway and upgrade": b'{"method":"com.kelvo.node.Describe","oneway":true,"upgrade":true}',
    "all flags": b'{"method":"com.kelvo.node.Describe","oneway":true,"upgrade":true,"more":true}',
    "parameters list": b'{"method":"com.kelvo.node.Describe","parameters":[]}',
    "parameters text": b'{"method":"com.kelvo.node.Describe","parameters":"{}"}',
    "parameters false": b'{"method":"com.kelvo.node.Describe","parameters":false}',
    "deep": b"[" * 20000, "deep parameters": b'{"method":"a.B","parameters":{"x":' + b"[" * 100000,
    "an error reply": b'{"error":"com.kelvo.node.Busy"}',
}


@pytest.mark.parametrize("message", MALFORMED.values(), ids=MALFORMED.keys())
def test_malformed_input_closes_the_connection_without_a_reply(client, message):
    """Calls ahead of it are answered, none behind it; and nobody else is touched."""
    with client.service.adapter() as other:
        other.send_raw(DESCRIBE + DESCRIBE + message + b"\0" + DESCRIBE)
        assert other.result()["server"] == other.result()["server"] == "LinuxBTAdapters"
        other.expect_closed()
    assert_alive(client)


@pytest.mark.parametrize("key", ["com.example.extension", ".", "x.", ".x"])
def test_an_unknown_key_with_a_dot_is_passed_over(client, key):
    client.send_raw(json.dumps({"method": f"{NODE}.Describe", key: {"any": ["thing", 1]}}).encode() + b"\0")
    assert client.result()["server"] == "LinuxBTAdapters"


# The stream


def test_a_message_may_come_byte_by_byte(client):
    for byte in DESCRIBE * 2:
        client.send_raw(bytes([byte]))
    assert client.result()["server"] == client.result()["server"] == "LinuxBTAdapters"


def test_calls_may_be_pipelined_and_are_answered_in_order(client):
    names = [f"action {number}" for number in range(1000)]
    messages = b"".join(json.dumps({"method": f"{NODE}.Execute", "parameters": {
        "values": [{"name": name, "kind": "none"}]}}).encode() + b"\0" for name in names)
    remaining = memoryview(messages)
    client.socket.setblocking(False)
    replies = []
    while len(replies) < len(names):
        if remaining:
            try:
                remaining = remaining[client.socket.send(remaining):]
            except BlockingIOError:
                pass
        client.socket.setblocking(True)
        replies.append(client.result()["values"][0]["name"])
        client.socket.setblocking(False)
    assert replies == names


def test_a_half_closed_connection_gets_its_replies_and_its_end(client):
    with client.service.adapter() as other:
        other.send_raw(DESCRIBE * 5)
        other.half_close()
        for _ in range(5):
            assert other.result()["server"] == "LinuxBTAdapters"
        other.expect_closed()


def test_a_half_closed_connection_waits_for_a_reply_that_takes_its_time(client, bluez):
    bluez.answer("StartDiscovery", hold)
    client.send_execute(action("INQUIRY_START"))
    client.send_raw(DESCRIBE)
    client.half_close()
    bluez.wait_call("StartDiscovery").reply()
    assert client.done("INQUIRY_START") == 0
    assert client.result()["server"] == "LinuxBTAdapters"
    client.expect_closed()


def test_half_a_message_at_the_end_is_no_call(client):
    with client.service.adapter() as other:
        other.send_raw(DESCRIBE + DESCRIBE[:-1])
        other.half_close()
        assert other.result()["server"] == "LinuxBTAdapters"
        other.expect_closed()


def test_a_half_closed_watch_goes_on(bluez, start):
    path = bluez.set_device()
    with start().device() as watch:
        watch.watch()
        watch.half_close()
        bluez.properties_changed(path, {"Alias": ("s", "new")})
        assert watch.change() == 0
        bluez.remove(path)
        assert watch.receive()["error"] == f"{NODE}.Withdrawn"
        watch.expect_closed()


def test_a_watch_holds_up_later_calls_of_its_connection(bluez, start):
    path = bluez.set_device()
    with start().device() as watch:
        watch.watch()
        watch.send(f"{NODE}.Describe")
        bluez.properties_changed(path, {"Alias": ("s", "new")})
        assert watch.change() == 0
        bluez.remove(path)
        assert watch.receive()["error"] == f"{NODE}.Withdrawn"


def test_of_calls_not_begun_a_hang_up_drops_all_but_the_oneway_ones(client, bluez):
    """The first call hangs in the bus; behind it stand one that is answered and one that is not."""
    bluez.answer("StartDiscovery", hold)
    with client.service.adapter() as leaving:
        leaving.send_execute(action("INQUIRY_START"))
        bluez.wait_call("StartDiscovery")
        leaving.send_execute(action("INQUIRY_START", string("class", "tells this call apart")))
        leaving.send_execute(action("INQUIRY_START"), oneway=True)
    bluez.wait_call("StartDiscovery", count=2)
    bluez.settle()
    assert len(bluez.calls_of("StartDiscovery")) == 2
    assert "Option BT class filter not yet implemented" not in client.service.texts()


def test_a_oneway_call_is_carried_out_for_a_client_that_is_gone(bluez, start):
    bluez.set_adapter()
    service = start()
    for number in range(1, 21):
        with service.adapter() as client:
            client.send_execute(action("INQUIRY_START" if number % 2 else "INQUIRY_STOP"), oneway=True)
        done = "started" if number % 2 else "stopped"
        service.wait_log(f"Scan {done} for adapter /org/bluez/hci0", count=(number + 1) // 2)


def test_passed_descriptors_are_closed(client):
    rest = AtRest(client.service)
    kept, passed = os.pipe()
    sent = array.array("i", [passed] * 10)
    client.socket.sendmsg([DESCRIBE], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, sent)])
    os.close(passed)
    assert client.result()["server"] == "LinuxBTAdapters"
    with open(kept, "rb") as pipe:
        assert pipe.read() == b"", "the service holds no end of the pipe"
    rest.check()


def test_descriptors_passed_with_half_a_message_are_closed(client):
    rest = AtRest(client.service)
    with client.service.adapter() as other:
        kept, passed = os.pipe()
        for byte in DESCRIBE[:50]:
            other.socket.sendmsg([bytes([byte])], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [passed]))])
        os.close(passed)
        with open(kept, "rb") as pipe:
            assert pipe.read() == b""
    rest.check()


def test_a_watch_of_every_node_begins_at_once(bluez, start):
    bluez.set_adapter()
    bluez.set_device()
    service = start()
    for name in service.nodes():
        with service.open(name) as client:
            client.watch()


def test_two_watches_of_one_node_are_both_told(bluez, start):
    path = bluez.set_device()
    service = start()
    with service.device() as one, service.device() as two:
        one.watch()
        two.watch()
        bluez.properties_changed(path, {"Alias": ("s", "new")})
        assert one.change() == two.change() == 0


def test_the_nodes_attributes_and_actions_do_not_mix(client):
    assert client.get("INQUIRY_START") == []
    assert client.execute({"name": "NAME", "kind": "none"}) == [string("NAME", "Invalid Action")]
    assert client.call(f"{NODE}.Set", {"values": []}) == {"values": []}
    assert client.call(f"{NODE}.Execute", {"values": []}) == {"values": []}
    assert client.execute(integer("ADDRESS", 1)) == [string("ADDRESS", "Invalid Action")]
