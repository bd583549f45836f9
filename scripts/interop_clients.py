"""The clients of scripts/interop: how each is started, what it records, and what is known not to work, and why.

To add a player or publisher, add an entry to PLAYERS or PUBLISHERS; to add something that the server must refuse, one
to REFUSALS. The tables of docs/clients.md come from here.
"""

import json
import os
import subprocess
from dataclasses import dataclass
from typing import Callable, Optional

PUBLISH_URL = "rtmp://127.0.0.1/ombrex-live/"
PLAY_URL = "rtmp://127.0.0.1/ombrex-output/"
FFMPEG = ["ffmpeg", "-nostdin", "-hide_banner", "-nostats", "-loglevel", "warning", "-y"]


@dataclass(frozen=True)
class CannotWork:
    """A pair that cannot work because of the server's design. Without this evidence its failure is a defect."""

    reason: str
    server_says: Optional[str] = None  # a line of the server's log
    client_says: Optional[str] = None  # part of a line of the client's log


@dataclass(frozen=True, eq=False)
class Player:
    name: str
    package: str
    shown_as: str  # for docs/clients.md
    command: Callable  # (url, recording) -> arguments; the recording is an FLV file
    environment: Optional[dict] = None
    user: Optional[str] = None
    # It puts parameter sets into the key frames it records. Only the picture data is compared.
    alters_key_frames: bool = False
    keeps_timestamps: bool = True  # Otherwise the recording does not show the timestamps received.
    withholds_end: bool = False  # It exits before recording its last packets, even for a film on disk.
    cannot: Optional[CannotWork] = None


@dataclass(frozen=True, eq=False)
class Publisher:
    name: str
    packages: tuple
    shown_as: str
    command: Callable  # (url, film, published) -> arguments
    environment: Optional[dict] = None
    # What was sent: the film itself, or the publisher's recording of it in the file published.
    records: bool = False
    records_before_stream: bool = False  # The recording begins a little earlier than the stream.
    alters_key_frames: bool = False  # The stream's first frame has more about the encoder than the recording's.
    ends_by_itself: bool = True
    server_options: tuple = ()
    leaves_out: tuple = ()  # kinds of media in the film that it does not send
    end_may_be_lost: bool = True  # Then the last RUN_OUT_S of the stream are not counted.
    clock_ms: int = 0  # This is added to the film's timestamps.
    prepare: Optional[Callable] = None  # (directory, url, film, published, start) -> environment


@dataclass(frozen=True)
class Refusal:
    """Something a user may well try, which makes the server drop the connection and print the reason."""

    name: str
    package: str
    shown_as: str
    instead: str
    server_says: str
    command: Callable  # (film) -> arguments


# --- players -----------------------------------------------------------------------------------------------------


def play_ffmpeg(*options):
    """Records every packet as received, with its timestamp, including those before the first key frame."""
    return lambda url, recording: [
        *FFMPEG, *options, "-i", url, "-map", "0", "-c", "copy", "-copyinkf", "-copypriorss", "1", "-copyts",
        "-avoid_negative_ts", "disabled", "-flush_packets", "1", "-f", "flv", recording]


def play_gstreamer(element):
    return lambda url, recording: ["gst-launch-1.0", "-q", element, f"location={url}", "!",
                                   "filesink", "buffer-mode=unbuffered", f"location={recording}"]


def play_rtmpdump(*options):
    return lambda url, recording: ["rtmpdump", *options, "-r", url, "-o", recording]


def play_mpv(url, recording):
    return ["mpv", "--no-config", "--no-input-terminal", "--msg-level=all=warn", "--vo=null", "--ao=null",
            f"--stream-record={recording}", url]


def play_vlc(url, recording):
    return ["cvlc", "-I", "dummy", "--no-color", "--play-and-exit", url,
            "--sout", f"#std{{access=file,mux=avformat{{mux=flv}},dst={recording}}}"]


NO_FCSUBSCRIBE = CannotWork(
    "the option makes it send FCSubscribe, a command that the server does not know: the server drops the connection",
    server_says="Unknown command 'FCSubscribe'")

PLAYERS = (
    Player("ffmpeg", "ffmpeg", "ffmpeg, ffplay", play_ffmpeg()),
    Player("ffmpeg-live", "ffmpeg", "ffmpeg -rtmp_live live", play_ffmpeg("-rtmp_live", "live"), cannot=NO_FCSUBSCRIBE),
    Player("rtmpsrc", "gstreamer1.0-plugins-bad", "GStreamer rtmpsrc", play_gstreamer("rtmpsrc")),
    Player("rtmp2src", "gstreamer1.0-plugins-bad", "GStreamer rtmp2src", play_gstreamer("rtmp2src"),
           environment={"GST_DEBUG": "rtmp2src:5", "GST_DEBUG_NO_COLOR": "1"},
           cannot=CannotWork(
               "it accepts only messages with its own message stream id; the server relays audio and video with the "
               "publisher's",
               client_says="Ignoring video message with stream|Ignoring audio message with stream")),
    Player("rtmpdump", "rtmpdump", "rtmpdump", play_rtmpdump()),
    Player("rtmpdump-live", "rtmpdump", "rtmpdump --live", play_rtmpdump("--live"), cannot=NO_FCSUBSCRIBE),
    Player("mpv", "mpv", "mpv", play_mpv),
    Player("vlc", "vlc-bin", "VLC", play_vlc, user="nobody", alters_key_frames=True,
           keeps_timestamps=False, withholds_end=True),
)


# A message of several chunks carries an extended timestamp once, but every known player expects it in each chunk. Players
# that joined at the beginning stop; those that join later begin near 0 again.
FIRST_LONG_TIMESTAMP_MS = 0xFFFFFF


# --- publishers --------------------------------------------------------------------------------------------------


def publish_ffmpeg(*options, real_time=True):
    return lambda url, film, published: [
        *FFMPEG, *(["-re"] if real_time else []), "-i", film, "-c", "copy", *options, "-f", "flv", url]


def publish_gstreamer(element):
    """Writes the data for the sink to a file as well."""
    return lambda url, film, published: [
        "gst-launch-1.0", "-q", "filesrc", f"location={film}", "!", "flvdemux", "name=film",
        "flvmux", "name=mux", "streamable=true", "!", "tee", "name=copies",
        "film.video", "!", "queue", "!", "h264parse", "!", "mux.",
        "film.audio", "!", "queue", "!", "aacparse", "!", "mux.",
        "copies.", "!", "queue", "!", element, f"location={url}", "sync=true",
        "copies.", "!", "queue", "!", "filesink", f"location={published}"]


HOURS_MS = 16_772_000  # 5 s later timestamps need more than 24 bits.

OBS_GLOBAL = """[General]
FirstRun=true
EnableAutoUpdates=false
Pre19Defaults=false
Pre21Defaults=false
Pre23Defaults=false
Pre24.1Defaults=false
[Basic]
Profile=interop
ProfileDir=interop
SceneCollection=interop
SceneCollectionFile=interop
[BasicWindow]
PreviewEnabled=false
"""

# The recording uses the stream's encoders, so it contains what was published.
OBS_PROFILE = """[General]
Name=interop
[Output]
Mode=Simple
Reconnect=false
[SimpleOutput]
StreamEncoder=x264
VBitrate=500
ABitrate=96
Preset=ultrafast
UseAdvanced=true
x264Settings=keyint=25 bframes=2
RecQuality=Stream
RecFormat=flv
FilePath={directory}
OverwriteIfExists=true
[Video]
BaseCX=320
BaseCY=240
OutputCX=320
OutputCY=240
FPSType=1
FPSInt=25
[Audio]
SampleRate=44100
ChannelSetup=Mono
"""


def obs_service(url):
    server, key = url.rsplit("/", 1)
    return {"type": "rtmp_custom", "settings": {"server": server, "key": key, "use_auth": False, "bwtest": False}}


def obs_scene(film):
    source = {"id": "ffmpeg_source", "versioned_id": "ffmpeg_source", "name": "Film", "mixers": 255, "volume": 1.0,
              "enabled": True, "settings": {"local_file": film, "is_local_file": True, "looping": True}}
    item = {"name": "Film", "id": 1, "visible": True, "align": 5, "bounds_type": 0, "rot": 0.0,
            "pos": {"x": 0.0, "y": 0.0}, "scale": {"x": 1.0, "y": 1.0}}
    scene = {"id": "scene", "versioned_id": "scene", "name": "Scene", "enabled": True,
             "settings": {"id_counter": 1, "custom_size": False, "items": [item]}}
    return {"name": "interop", "current_scene": "Scene", "current_program_scene": "Scene",
            "scene_order": [{"name": "Scene"}], "sources": [source, scene]}


def prepare_obs(directory, url, film, published, start):
    """Prepares a profile and a scene on disk, and a virtual screen."""
    config = os.path.join(directory, "config", "obs-studio")
    recordings = os.path.dirname(published)
    files = {
        "global.ini": OBS_GLOBAL,
        "basic/profiles/interop/basic.ini": OBS_PROFILE.format(directory=recordings),
        "basic/profiles/interop/service.json": json.dumps(obs_service(url)),
        "basic/scenes/interop.json": json.dumps(obs_scene(film)),
    }
    for name, text in files.items():
        path = os.path.join(config, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
    runtime = os.path.join(directory, "runtime")
    os.makedirs(runtime, mode=0o700, exist_ok=True)
    screen = start("screen", ["Xvfb", "-displayfd", "1", "-screen", "0", "1024x768x24", "-nolisten", "tcp"],
                   stdout=subprocess.PIPE)
    display = screen.stdout.readline().decode().strip()
    return {"DISPLAY": f":{display}", "XDG_CONFIG_HOME": os.path.join(directory, "config"),
            "XDG_RUNTIME_DIR": runtime, "HOME": directory, "LIBGL_ALWAYS_SOFTWARE": "1"}


def publish_obs(url, film, published):
    return ["obs", "--multi", "--profile", "interop", "--collection", "interop", "--startrecording", "--startstreaming"]


PUBLISHERS = (
    Publisher("ffmpeg", ("ffmpeg",), "ffmpeg -re", publish_ffmpeg()),
    Publisher("ffmpeg-audio", ("ffmpeg",), "ffmpeg -re, audio only", publish_ffmpeg("-vn"),
              leaves_out=("video",)),
    Publisher("ffmpeg-video", ("ffmpeg",), "ffmpeg -re, video only", publish_ffmpeg("-an"),
              leaves_out=("audio",)),
    Publisher("ffmpeg-burst", ("ffmpeg",), "ffmpeg without -re, server with --no-def-ack",
              publish_ffmpeg(real_time=False), server_options=("--no-def-ack",), end_may_be_lost=False),
    Publisher("ffmpeg-hours", ("ffmpeg",), "ffmpeg -re, 4 h 39 min after its start",
              publish_ffmpeg("-output_ts_offset", str(HOURS_MS // 1000)), clock_ms=HOURS_MS),
    Publisher("rtmp2sink", ("gstreamer1.0-plugins-bad", "gstreamer1.0-plugins-good"), "GStreamer flvmux ! rtmp2sink",
              publish_gstreamer("rtmp2sink"), records=True),
    Publisher("rtmpsink", ("gstreamer1.0-plugins-bad", "gstreamer1.0-plugins-good"), "GStreamer flvmux ! rtmpsink",
              publish_gstreamer("rtmpsink"), records=True),
    Publisher("obs", ("obs-studio",), "OBS Studio", publish_obs, records=True, records_before_stream=True,
              alters_key_frames=True, ends_by_itself=False, prepare=prepare_obs),
)


# --- refusals ----------------------------------------------------------------------------------------------------


def publish_to(path, *options):
    return lambda film: [*FFMPEG, "-re", "-i", film, "-c", "copy", *options, "-f", "flv", f"rtmp://127.0.0.1/{path}"]


NAMES_ONLY = "letters, digits and `_`"

REFUSALS = (
    Refusal("hyphen", "ffmpeg", "publish `cam-1`", NAMES_ONLY, "play rejected, invalid stream name",
            publish_to("ombrex-live/cam-1")),
    Refusal("token", "ffmpeg", "publish `cam1?token=abc`", NAMES_ONLY + ": the name is the whole key",
            "play rejected, invalid stream name", publish_to("ombrex-live/cam1?token=abc")),
    Refusal("file-name", "ffmpeg", "publish `cam1.mp4`", NAMES_ONLY, "play rejected, invalid stream name",
            publish_to("ombrex-live/cam1.mp4")),
    Refusal("path", "ffmpeg", "publish to `ombrex-live/site/cam1`", "one name below `ombrex-live`",
            "rejected app ombrex-live/site", publish_to("ombrex-live/site/cam1")),
    Refusal("application", "ffmpeg", "publish to `live/cam1`", "`ombrex-live` or `ombrex-output`", "rejected app live",
            publish_to("live/cam1")),
    Refusal("late-clock", "ffmpeg", "publish with a first timestamp of 4 h 40 min or more (`-output_ts_offset 17000`)",
            "begin near 0: restart the encoder, and use neither `-copyts` nor an offset",
            "fmt=1 and not first packet!", publish_to("ombrex-live/cam1", "-output_ts_offset", "17000")),
    Refusal("play-hyphen", "rtmpdump", "play `cam-1`", NAMES_ONLY, "play rejected, invalid stream name",
            lambda film: ["rtmpdump", "-r", PLAY_URL + "cam-1", "-o", "/dev/null"]),
    Refusal("live-url", "gstreamer1.0-plugins-bad", "play with `live=1` in the URL (`rtmpsrc location=\"... live=1\"`)",
            "the URL without it", "Unknown command 'FCSubscribe'",
            lambda film: ["gst-launch-1.0", "-q", "rtmpsrc", f"location={PLAY_URL}camera live=1", "!", "fakesink"]),
)
