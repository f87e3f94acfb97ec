"""Finds the messages in what an RTMP client has sent (Adobe RTMP 1.0, 5.2 and 5.3)."""

import dataclasses

HANDSHAKE = 1 + 1536 + 1536
SET_CHUNK_SIZE = 1
AUDIO, VIDEO, DATA = 8, 9, 18


@dataclasses.dataclass
class Message:
    type: int
    timestamp: int  # Milliseconds.
    body: bytes
    end: int  # Bytes of the stream up to and with the message's last one.


@dataclasses.dataclass
class _Chunks:
    """What a chunk stream remembers from one chunk to the next."""

    timestamp: int = 0
    delta: int = 0
    length: int = 0
    type: int = 0
    extended: bool = False
    body: bytearray = dataclasses.field(default_factory=bytearray)


class WireError(Exception):
    pass


def messages(stream):
    """Yields every complete message of `stream`, the client's bytes from the first one on."""
    chunk_size = 128
    chunk_streams = {}
    at = HANDSHAKE
    while at < len(stream):
        try:
            kind, number, at = _basic_header(stream, at)
            chunks = chunk_streams.setdefault(number, _Chunks())
            at = _message_header(stream, at, kind, chunks)
        except IndexError:
            return  # The stream was cut in the middle of a header.
        piece = min(chunk_size, chunks.length - len(chunks.body))
        if at + piece > len(stream):
            return
        chunks.body += stream[at : at + piece]
        at += piece
        if len(chunks.body) < chunks.length:
            continue
        body, chunks.body = bytes(chunks.body), bytearray()
        if chunks.type == SET_CHUNK_SIZE:
            chunk_size = int.from_bytes(body[:4], "big") & 0x7FFFFFFF
        yield Message(chunks.type, chunks.timestamp, body, at)


def _basic_header(stream, at):
    kind, number = stream[at] >> 6, stream[at] & 0x3F
    if number == 0:
        return kind, 64 + stream[at + 1], at + 2
    if number == 1:
        return kind, 64 + stream[at + 1] + 256 * stream[at + 2], at + 3
    return kind, number, at + 1


def _message_header(stream, at, kind, chunks):
    if stream[at : at + 1] == b"" and kind < 3:
        raise IndexError
    stamp = None
    if kind <= 2:
        stamp = int.from_bytes(stream[at : at + 3], "big")
        chunks.extended = stamp == 0xFFFFFF
        at += 3
    if kind <= 1:
        chunks.length = int.from_bytes(stream[at : at + 3], "big")
        chunks.type = stream[at + 3]
        at += 4
    if kind == 0:
        at += 4
    if chunks.extended:
        extended = int.from_bytes(stream[at : at + 4], "big")
        at += 4
        stamp = extended if stamp is not None else None
    if kind == 0:
        chunks.timestamp, chunks.delta = stamp, stamp
    elif kind <= 2:
        chunks.delta = stamp
        chunks.timestamp += stamp
    elif not chunks.body:
        chunks.timestamp += chunks.delta
    if not 0 <= chunks.length < 1 << 24 or chunks.type == 0:
        raise WireError(f"no RTMP chunk at byte {at}")
    return at


def is_picture(message):
    """True for a message with coded picture data rather than a sequence header."""
    return message.type == VIDEO and len(message.body) > 9 and message.body[1] == 1


def is_media(message):
    return message.type in (AUDIO, VIDEO, DATA)
