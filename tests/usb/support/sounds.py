"""Sounds and messages that scenarios send, and what must be found of them at the other end."""

import array
import random
import struct

PADDING_SECONDS = 0.1

# Files that every guest has in /rig/inputs: frames, channels, bits, rate; bytes.
NOISES = {
    "noise": (2 * 48000, 2, 24, 48000),
    "noise-96000": (2 * 96000, 2, 24, 96000),
    "noise-192000": (2 * 192000, 2, 24, 192000),
    "minute": (60 * 48000, 2, 24, 48000),
}
SYSEXES = {"short": 20, "long": 64 * 1024}


def noise(frames, channels, bits, seed=1):
    """Samples of 32 bits, left-justified, interleaved: random, never 0, the lower bits clear."""
    data = bytearray(random.Random(seed).randbytes(frames * channels * 4))
    lowest = (32 - bits) // 8  # the byte that holds the lowest bit
    for byte in range(lowest):
        data[byte::4] = bytes(frames * channels)
    data[lowest::4] = data[lowest::4].translate(bytes(value | 1 for value in range(256)))
    return array.array("i", bytes(data))


def write_wav(path, samples, channels, rate, padding=PADDING_SECONDS):
    """A WAV file of 32-bit samples, with silence behind them: Linux's driver drops the end of what
    is left in its buffer when a stream is drained."""
    silence = array.array("i", bytes(4 * channels * int(rate * padding)))
    data = (samples + silence).tobytes()
    head = struct.pack("<HHIIHH", 1, channels, rate, rate * channels * 4, channels * 4, 32)
    with open(path, "wb") as file:
        file.write(b"RIFF" + struct.pack("<I", 36 + len(data)) + b"WAVE")
        file.write(b"fmt " + struct.pack("<I", len(head)) + head)
        file.write(b"data" + struct.pack("<I", len(data)) + data)


def read_wav(path):
    """(channels, rate, bits, samples left-justified in 32 bits) of a PCM WAV file of 16, 24 or 32
    bits. Takes a data chunk of unknown length, as a recorder that is ended leaves it. Raises
    ValueError for anything else."""
    with open(path, "rb") as file:
        content = file.read()
    if content[:4] not in (b"RIFF", b"RF64") or content[8:12] != b"WAVE":
        raise ValueError(f"{path} is no WAV file")
    at, layout = 12, None
    while at + 8 <= len(content):
        name, length = content[at : at + 4], struct.unpack_from("<I", content, at + 4)[0]
        body = content[at + 8 : at + 8 + length]
        if name == b"fmt ":
            layout = struct.unpack_from("<HHIIHH", body)
        elif name == b"data":
            if layout is None:
                raise ValueError(f"{path}: no fmt chunk before the data")
            return layout[1], layout[2], layout[5], samples_of(body, layout[5], path)
        at += 8 + length + length % 2
    raise ValueError(f"{path}: no data chunk")


def samples_of(body, bits, path):
    samples = array.array("i")
    if bits == 32:
        samples.frombytes(body[: len(body) // 4 * 4])
    elif bits == 16:
        narrow = array.array("h", body[: len(body) // 2 * 2])
        samples.extend(value << 16 for value in narrow)
    elif bits == 24:
        wide = bytearray(len(body) // 3 * 4)
        for byte in range(3):
            wide[byte + 1 :: 4] = body[byte : len(body) // 3 * 3 : 3]
        samples.frombytes(bytes(wide))
    else:
        raise ValueError(f"{path}: samples of {bits} bits")
    return samples


def find_sent(sent, heard, channels):
    """Why `sent` is not in `heard`, whole and unchanged, with silence only around it; None if it
    is."""
    first = next((at for at, sample in enumerate(heard) if sample), None)
    if first is None:
        return f"{len(heard) // channels} frames of silence"
    if first % channels:
        return f"begins in channel {first % channels} of frame {first // channels}"
    if heard[first : first + len(sent)] == sent:
        return "something follows what was sent" if any(heard[first + len(sent) :]) else None
    for at, sample in enumerate(sent):
        if first + at >= len(heard) or heard[first + at] != sample:
            got = hex(heard[first + at]) if first + at < len(heard) else "the end"
            return (
                f"frame {at // channels} of {len(sent) // channels}, channel {at % channels}:"
                f" sent {hex(sample)}, heard {got}"
            )
    raise AssertionError("unequal without a difference")


def find_counter_break(samples, channels, bits, channel_bits=6):
    """(number of frames in which the counter pattern runs on without a break, why not further or
    None). The lower `channel_bits` of a sample are its channel, the upper ones its frame."""
    period = 1 << (bits - channel_bits)
    start = None
    for frame in range(len(samples) // channels):
        for channel in range(channels):
            value = (samples[frame * channels + channel] & 0xFFFFFFFF) >> (32 - bits)
            got_frame, got_channel = value >> channel_bits, value & ((1 << channel_bits) - 1)
            if start is None:
                start = got_frame
            wanted = (start + frame) % period
            if (got_frame, got_channel) != (wanted, channel):
                return frame, (
                    f"frame {frame}: expected number {wanted} of channel {channel},"
                    f" got number {got_frame} of channel {got_channel}"
                )
    return len(samples) // channels, None


def sysex(length, seed=1):
    """A system exclusive of `length` bytes."""
    source = random.Random(seed)
    return bytes([0xF0, *(source.randrange(128) for _ in range(length - 2)), 0xF7])
