"""The streams of an interface as Linux's audio driver lists them and as `kelvane inspect` does, and
how the two differ."""

import collections
import json
import re

# One alternate setting that carries audio. `subslot` in bytes, None for what Linux calls SPECIAL;
# `sync`: the endpoint that paces an output, or None; `implicit`: that is the endpoint of an input.
Setting = collections.namedtuple(
    "Setting", "direction interface setting subslot bits channels endpoint rates sync implicit"
)

SUBSLOTS = {"S16_LE": 2, "S24_3LE": 3, "S32_LE": 4}


def of_linux(path):
    """The settings in a copy of /proc/asound/cardN/stream*."""
    found, direction, interface, fields = [], None, None, None
    with open(path, encoding="utf-8", errors="replace") as file:
        lines = [line.strip() for line in file]
    for line in [*lines, "Playback:"]:
        name, _, value = line.partition(": ")
        altset = re.fullmatch(r"Altset (\d+)", line)
        if line in ("Playback:", "Capture:") or altset or line.startswith("Interface "):
            if fields and "Endpoint" in fields:
                found.append(setting_of(direction, interface, fields))
            fields = {"Altset": altset[1]} if altset else None
            if line.startswith("Interface "):
                interface = int(line.split()[1])
            elif not altset:
                direction = "output" if line == "Playback:" else "input"
        elif fields is not None:
            fields[name] = value
    return found


def setting_of(direction, interface, fields):
    endpoint = int(fields["Endpoint"].split()[0], 16)
    sync = fields.get("Sync Endpoint")
    return Setting(
        direction,
        interface,
        int(fields["Altset"]),
        SUBSLOTS.get(fields["Format"]),
        int(fields.get("Bits", 0)),
        int(fields["Channels"]),
        endpoint,
        frozenset(int(rate) for rate in re.findall(r"\d+", fields.get("Rates", ""))),
        int(sync.split()[0], 16) if sync else None,
        fields.get("Implicit Feedback Mode") == "Yes",
    )


def of_inspection(path):
    """The settings in the output of `kelvane inspect --json`: those that the driver selects."""
    with open(path, encoding="utf-8") as file:
        inspection = json.load(file)
    streams = inspection["streams"]
    inputs = [stream["endpoint"] for stream in streams if stream["direction"] == "input"]
    found = []
    for stream in streams:
        implicit = stream["pacedBy"] == "input"
        for number in sorted({rate["setting"] for rate in stream["rates"]} or {stream["setting"]}):
            rates = frozenset(r["rate"] for r in stream["rates"] if r["setting"] == number)
            found.append(
                Setting(
                    stream["direction"],
                    stream["interface"],
                    number,
                    stream["subslotBytes"],
                    stream["bits"],
                    stream["channels"],
                    stream["endpoint"],
                    rates,
                    inputs[0] if implicit and inputs else stream["feedbackEndpoint"],
                    implicit,
                )
            )
    return found


def sync_text(setting):
    if setting.sync is None:
        return "nothing"
    return f"{'input' if setting.implicit else 'feedback'} {setting.sync:#04x}"


def describe(setting):
    layout = f"{setting.bits} bit in {setting.subslot}" if setting.subslot else "not PCM"
    paced = "" if setting.sync is None else f", paced by {sync_text(setting)}"
    return (
        f"{setting.direction} {setting.interface}.{setting.setting}: {setting.channels} ch, {layout},"
        f" {setting.endpoint:#04x}{paced}, {' '.join(map(str, sorted(setting.rates))) or 'no rates'}"
    )


def compare(ours, linux):
    """The differences, each as (kind, text)."""
    differences = []

    def differ(kind, text):
        differences.append((kind, text))

    places = {(s.direction, s.interface, s.setting): s for s in linux}
    for mine in ours:
        place = f"{mine.direction} {mine.interface}.{mine.setting}"
        theirs = places.pop((mine.direction, mine.interface, mine.setting), None)
        if theirs is None:
            differ("missing", f"{place}: Linux does not list it")
            continue
        for field in ("subslot", "bits", "channels", "endpoint"):
            got, wanted = getattr(theirs, field), getattr(mine, field)
            if got != wanted:
                differ(field, f"{place}: {field} {wanted}, Linux has {got}")
        for rate in sorted(mine.rates - theirs.rates):
            differ("rate-ours", f"{place}: {rate} Hz, not for Linux")
        for rate in sorted(theirs.rates - mine.rates):
            differ("rate-linux", f"{place}: Linux takes {rate} Hz as well")
        pacing = (mine.sync, mine.implicit) != (theirs.sync, theirs.implicit)
        if mine.direction == "output" and pacing:
            paced = f"paced by {sync_text(mine)}, for Linux by {sync_text(theirs)}"
            differ(pacing_kind(mine, theirs), f"{place}: {paced}")
    for theirs in places.values():
        mine = [s for s in ours if (s.direction, s.interface) == (theirs.direction, theirs.interface)]
        if not mine:
            differ("interface", f"only Linux has {describe(theirs)}")
        elif theirs.setting > max(s.setting for s in mine):
            differ("later-setting", f"only Linux has {describe(theirs)}")
        else:
            differ("earlier-setting", f"only Linux has {describe(theirs)}")
    return differences


def pacing_kind(mine, theirs):
    """Whether it is the driver's input that takes the place of a feedback endpoint, or of nothing."""
    return "paced-by-input" if mine.implicit and not theirs.implicit else "pacing"
