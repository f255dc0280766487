"""What the service and BlueZ asked of each other, in a form that can be written down and compared."""

from jeepney.low_level import MessageType

BUS = "org.freedesktop.DBus"


def calls_between(messages, services):
    """One list for each call: who asked, object, member, arguments, and how it was answered.

    The answer is "ok", the name of the error, or "" where there was none: the call wants none, or it never came.
    """
    answers = {(message.destination, message.reply_serial): message for message in messages
               if message.kind in (MessageType.method_return, MessageType.error)}
    calls = []
    for message in messages:
        if message.kind is not MessageType.method_call:
            continue
        if message.sender in services:
            who = f"service{services.index(message.sender) or ''}"
        elif message.destination in services:
            who = "bluez"
        else:
            continue
        answer = answers.get((message.sender, message.serial)) if message.wants_reply else None
        ended = "" if answer is None else answer.error_name or "ok"
        calls.append([who, message.path or "", message.member, *map(_text, message.args), ended])
    return calls


def _text(argument):
    """Bus names are numbered as connections come, which says nothing."""
    return str(argument)
