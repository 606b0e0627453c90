#!/usr/bin/env python3
"""Writes examples/chord.wav: 0.6 s of an A major chord, 24 bit, 48000 Hz, stereo.

Four notes start one after another; each travels from the left to the right side, the high ones
faster, and dies away. The samples use the whole 24 bits, so that a run through the driver shows
every one of them. Deterministic: the same bytes each time.

    python3 examples/make_chord.py [OUT.wav]
"""

import math
import pathlib
import sys
import wave

RATE = 48000  # Hz
FRAMES = 28800  # 0.6 s
NOTES = (220.0, 277.1826, 329.6276, 440.0)  # Hz: A3, C#4, E4, A4
ONSET = 0.04  # s between two notes
ATTACK = 0.005  # s
DECAY = 0.18  # s to 1/e
RELEASE = 0.02  # s of fading to silence at the end
LEVEL = 0.22  # of full scale, per note


def frame(index):
    """One stereo sample frame, each side from -1.0 to 1.0."""
    time = index / RATE
    left = right = 0.0
    for number, frequency in enumerate(NOTES):
        age = time - number * ONSET
        if age < 0:
            continue
        envelope = min(1.0, age / ATTACK) * math.exp(-age / DECAY)
        tone = LEVEL * envelope * math.sin(2 * math.pi * frequency * age)
        side = 0.5 - 0.5 * math.cos(math.pi * min(1.0, age * (1.5 + number)))  # 0 left, 1 right
        left += tone * math.cos(side * math.pi / 2)
        right += tone * math.sin(side * math.pi / 2)
    fade = min(1.0, (FRAMES - index) / (RELEASE * RATE))
    return left * fade, right * fade


def main():
    default = pathlib.Path(__file__).resolve().parent / "chord.wav"
    target = sys.argv[1] if len(sys.argv) > 1 else str(default)
    samples = bytearray()
    for index in range(FRAMES):
        for side in frame(index):
            samples += round(side * 8388607).to_bytes(3, "little", signed=True)
    with wave.open(target, "wb") as out:
        out.setnchannels(2)
        out.setsampwidth(3)
        out.setframerate(RATE)
        out.writeframes(bytes(samples))


if __name__ == "__main__":
    main()
