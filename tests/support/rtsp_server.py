#!/usr/bin/python3
"""A camera for the tests: an RTSP server that serves rtsp://127.0.0.1:PORT/cam; prints "ready" when it does. Without
--file it draws the time of day into each picture: 48 fields of 16 x 16 pixels, milliseconds since the epoch in
binary, black 0, white 1, the highest bit first, 12 fields a row from the top left."""
import argparse
import threading
import time

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer  # noqa: E402

BITS, ROW, FIELD = 48, 12, 16
WIDTH, HEIGHT, FPS = ROW * FIELD, 128, 25


def clock_picture(millis):
    fields = [(b"\xeb" if millis >> (BITS - 1 - i) & 1 else b"\x10") * FIELD for i in range(BITS)]
    drawn = b"".join(b"".join(fields[first:first + ROW]) * FIELD for first in range(0, BITS, ROW))
    return drawn + b"\x80" * (WIDTH * HEIGHT * 3 // 2 - len(drawn))


class Factory(GstRtspServer.RTSPMediaFactory):
    options = None

    def do_create_element(self, _url):
        o = self.options
        pay = f"rtp{o.codec}pay name=pay0 pt=96 config-interval=-1"
        parse = f"{o.codec}parse"
        if o.file:
            return Gst.parse_launch(f"( filesrc location={o.file} ! qtdemux ! {parse} ! {pay} )")
        zero = "" if o.bframes else "tune=zerolatency "
        coder = {
            "h264": f"x264enc speed-preset=superfast {zero}rc-lookahead=0 sync-lookahead=0 threads=1 b-adapt=false "
            f"key-int-max=25 bframes={o.bframes} bitrate=500 ! video/x-h264,profile=main",
            "h265": f"x265enc speed-preset=ultrafast {zero}key-int-max=25 option-string="
            f"bframes={o.bframes}:b-adapt=0:rc-lookahead={o.bframes + 1}:frame-threads=1",
        }[o.codec]
        caps = f"video/x-raw,format=I420,width={WIDTH},height={HEIGHT},framerate={FPS}/1"
        pipeline = Gst.parse_launch(
            f"( appsrc name=source is-live=true do-timestamp=false format=time caps={caps} ! {coder} ! {parse} ! {pay} )"
        )
        source = pipeline.get_by_name("source")
        threading.Thread(target=self.draw, args=(pipeline, source), daemon=True).start()
        return pipeline

    def draw(self, pipeline, source):
        """Pushes pictures, each stamped with the moment it was drawn; those of a standstill are left out."""
        interval = Gst.SECOND // FPS
        while pipeline.get_clock() is None or pipeline.current_state != Gst.State.PLAYING:
            time.sleep(0.005)
        due = 0
        while True:
            clock = pipeline.get_clock()
            if clock is None:
                return
            now = clock.get_time() - pipeline.get_base_time()
            if now < due:
                time.sleep((due - now) / Gst.SECOND)
                continue
            due = (now // interval + 1) * interval
            picture = Gst.Buffer.new_wrapped(clock_picture(int(time.time() * 1000)))
            picture.pts = now
            picture.duration = interval
            if source.emit("push-buffer", picture) != Gst.FlowReturn.OK:
                return


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--port", required=True)
    parser.add_argument("--codec", choices=["h264", "h265"], default="h264")
    parser.add_argument("--bframes", type=int, default=0)
    parser.add_argument("--file", help="an MP4 file to play instead of the clock")
    parser.add_argument("--user")
    parser.add_argument("--password")
    options = parser.parse_args()

    Gst.init(None)
    server = GstRtspServer.RTSPServer.new()
    server.set_address("127.0.0.1")
    server.set_service(options.port)
    factory = Factory()
    factory.options = options
    if options.user:
        auth = GstRtspServer.RTSPAuth.new()
        auth.set_supported_methods(2)  # digest
        token = GstRtspServer.RTSPToken.new()
        token.set_string("media.factory.role", "viewer")
        auth.add_digest(options.user, options.password, token)
        server.set_auth(auth)
        factory.add_role_from_structure(Gst.Structure.from_string(
            "viewer,media.factory.access=true,media.factory.construct=true")[0])
    server.get_mount_points().add_factory("/cam", factory)
    if server.attach(None) == 0:
        raise SystemExit("cannot listen")
    print("ready", flush=True)
    GLib.MainLoop().run()


if __name__ == "__main__":
    main()
