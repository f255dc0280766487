"""What the service and BlueZ asked of each other, in a form that can be written down and compared."""

from jeepney.low_level import MessageType


def calls_between(messages, services):
    """One list for each call: who asked, object, member, arguments, and how it was answered.

    The answer is "ok", the name of the error, or "" where there was none: the call wants none, it never came, or it came
    when the service had begun to leave the bus, where it is a matter of chance whether it still comes.
    """
    answers = {}
    leaving = set()
    for message in messages:
        if message.kind in (MessageType.method_return, MessageType.error):
            answers[message.destination, message.reply_serial] = (message, message.destination in leaving)
        elif message.kind is MessageType.method_call and message.member == "UnregisterAgent":
            leaving.add(message.sender)
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
        answer, is_late = answers.get((message.sender, message.serial), (None, False))
        counts = answer is not None and message.wants_reply and (not is_late or message.member == "UnregisterAgent")
        ended = (answer.error_name or "ok") if counts else ""
        calls.append([who, message.path or "", message.member, *map(str, message.args), ended])
    return calls
