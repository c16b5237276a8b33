#!/usr/bin/env bash
# Makes the tiny media files that the import tests use. Run once, from this
# folder; the files are committed, so the tests need no ffmpeg.
set -euo pipefail
# One second of 25 fps picture (64x36) with a stereo tone and a start timecode.
ffmpeg -y -loglevel error -f lavfi -i testsrc=size=64x36:rate=25:duration=1 \
  -f lavfi -i sine=frequency=440:duration=1:sample_rate=48000 -ac 2 \
  -c:v mpeg4 -q:v 31 -c:a aac -b:a 16k -timecode 10:00:00:00 \
  -map_metadata -1 clip.mov
# A fifth of a second of mono tone at 8 kHz, sound only.
ffmpeg -y -loglevel error -f lavfi -i sine=frequency=1000:duration=0.2:sample_rate=8000 \
  -c:a pcm_s16le tone.wav
# Text dressed up as a movie.
printf 'This is not a movie.\n' > notmedia.mov
