#!/usr/bin/python3
"""Plays vqasicapture and prints its statistics every second and every alarm
transition it posts on the bus, using only GStreamer (PyGObject, python3-gst-1.0).

    ./monitor.py --device /dev/video0 --source-name cam1 --seconds 10
"""

import argparse
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GLib", "2.0")
from gi.repository import GLib, Gst  # noqa: E402


def print_stats(capture):
    stats = capture.get_property("stats")
    fields = ", ".join(
        f"{stats.nth_field_name(i)}={stats.get_value(stats.nth_field_name(i))}" for i in range(stats.n_fields())
    )
    print(f"STATS {fields}", flush=True)
    return True


def on_message(bus, message, loop):
    if message.type == Gst.MessageType.ELEMENT and message.has_name("vqasi-alarm"):
        s = message.get_structure()
        state = "ALARM" if s.get_value("active") else "CLEAR"
        print(
            f"{state} code={s.get_value('code')}, level={s.get_value('level')}, "
            f"reg_time={s.get_value('reg-time')}, source={s.get_value('source')}, pid={s.get_value('pid')}, "
            f"description={s.get_value('description')}, count={s.get_value('count')}",
            flush=True,
        )
    elif message.type == Gst.MessageType.ERROR:
        error, debug = message.parse_error()
        print(f"ERROR {error.message} ({debug})", file=sys.stderr, flush=True)
        loop.quit()
    elif message.type == Gst.MessageType.EOS:
        loop.quit()
    return True


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--device", default="/dev/video0")
    parser.add_argument("--source-name", default="", help="alarm-source-name: enables the input alarms")
    parser.add_argument("--seconds", type=int, default=0, help="stop after this many seconds (0: at Ctrl-C)")
    args = parser.parse_args()

    Gst.init(None)
    pipeline = Gst.parse_launch("vqasicapture name=cap ! fakesink sync=false")
    capture = pipeline.get_by_name("cap")
    capture.set_property("v4l2", args.device)
    capture.set_property("alarm-source-name", args.source_name)

    loop = GLib.MainLoop()
    bus = pipeline.get_bus()
    bus.add_signal_watch()
    bus.connect("message", on_message, loop)
    GLib.timeout_add_seconds(1, print_stats, capture)
    if args.seconds:
        GLib.timeout_add_seconds(args.seconds, loop.quit)

    if pipeline.set_state(Gst.State.PLAYING) == Gst.StateChangeReturn.FAILURE:
        # The element's error message is on the bus.
        message = bus.pop_filtered(Gst.MessageType.ERROR)
        if message:
            on_message(bus, message, loop)
        pipeline.set_state(Gst.State.NULL)
        return 1
    try:
        loop.run()
    except KeyboardInterrupt:
        pass
    print_stats(capture)
    pipeline.set_state(Gst.State.NULL)
    return 0


if __name__ == "__main__":
    sys.exit(main())
