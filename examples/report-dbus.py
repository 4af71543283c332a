#!/usr/bin/env python3
"""Reports an event over D-Bus, peer to peer, with GLib (python3-gi) and without libquorvane."""

import os

from gi.repository import Gio, GLib

ADDRESS = "unix:path=" + os.environ.get("QUORVANE_ROOT", "") + "/run/quorvane/com.velmora.quorvaned"
INTERFACE = "com.velmora.quorvaned.ClientSessionInterface"


def variants(**values: tuple[str, object]) -> dict[str, GLib.Variant]:
    return {key: GLib.Variant(kind, value) for key, (kind, value) in values.items()}


def main() -> None:
    connection = Gio.DBusConnection.new_for_address_sync(
        ADDRESS, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT, None, None)

    def call(method: str, arguments: GLib.Variant | None = None, timeout: int = 30_000) -> GLib.Variant:
        return connection.call_sync(None, "/com/velmora/quorvaned", INTERFACE, method, arguments, None,
                                    Gio.DBusCallFlags.NONE, timeout, None)

    session = variants(SessionID=("u", 1), ClientType=("u", 5))
    call("SetSessionInfo", GLib.Variant("(a{sv}aa{sv}asb)", (session, [], [], False)))
    # An answer that may be absent is an array of one element or none. Here: no storebag, or the backends that report.
    states = call("StartConfig", timeout=90_000).unpack()[0]
    print("reporting:", ", ".join(states[0]) if states else "no storebag")

    payload = variants(**{"from": ("s", "Python over D-Bus")}, took=("d", 0.25))
    event = variants(Category=("q", 12), Type=("q", 3), Payload=("a{sv}", payload))
    call("SendMessageWithDictionary", GLib.Variant("(a{sv})", (event,)))
    call("FlushMessages")
    connection.close_sync(None)


main()
