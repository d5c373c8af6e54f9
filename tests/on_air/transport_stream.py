"""A recorded transport stream, as far as a receiver's front end looks at it."""

import collections
import struct

PACKET = 188
CLOCK = 27_000_000
NULL_PID = 0x1FFF


def _timestamp(field):
    """33 bits in five bytes, with marker bits between (ISO/IEC 13818-1, 2.4.3.7)."""
    return (field[0] >> 1 & 7) << 30 | field[1] << 22 | (field[2] >> 1) << 15 | field[3] << 7 | field[4] >> 1


class TransportStream:
    """Attributes:
    packets          number of packets
    broken_sync      packets that do not begin with the sync byte
    continuity       list of (packet, pid): the counter is not the one that follows
    announced        list of (packet, pid) of discontinuity indicators
    clocks           list of (packet, time in 27 MHz) of the programme's clock
    times            by PID, list of (PTS, DTS) in 90 kHz in the order of the stream
    random_access    by PID, list of whether each PES packet is marked as an access point
    """

    def __init__(self, data):
        self.packets = len(data) // PACKET
        self.broken_sync, self.continuity, self.announced, self.clocks = [], [], [], []
        self.times = collections.defaultdict(list)
        self.random_access = collections.defaultdict(list)
        self._counters = {}
        for number in range(self.packets):
            self._read(number, data[number * PACKET:(number + 1) * PACKET])

    def _read(self, number, packet):
        if packet[0] != 0x47:
            self.broken_sync.append(number)
            return
        pid = (packet[1] & 0x1F) << 8 | packet[2]
        if pid == NULL_PID:
            return
        has_payload, flags, at = packet[3] & 0x10, 0, 4
        if packet[3] & 0x20:
            at += 1 + packet[4]
            flags = packet[5] if packet[4] else 0
            if flags & 0x10:
                high, low = struct.unpack(">IH", packet[6:12])
                self.clocks.append((number, ((high << 1 | low >> 15) * 300) + (low & 0x1FF)))
        if flags & 0x80:
            self.announced.append((number, pid))
        self._count(number, pid, packet[3] & 0xF, has_payload, flags & 0x80)
        if packet[1] & 0x40 and has_payload and packet[at:at + 3] == b"\0\0\1":
            self._read_pes(pid, packet[at:], bool(flags & 0x40))

    def _count(self, number, pid, counter, has_payload, announced):
        before = self._counters.get(pid)
        expected = None if before is None or announced else (before + 1) % 16 if has_payload else before
        if expected is not None and counter != expected:
            self.continuity.append((number, pid))
        self._counters[pid] = counter

    def _read_pes(self, pid, pes, random_access):
        if pes[7] & 0x80:
            pts = _timestamp(pes[9:14])
            self.times[pid].append((pts, _timestamp(pes[14:19]) if pes[7] & 0x40 else pts))
            self.random_access[pid].append(random_access)

    def mux_rates(self):
        """Bits/s between each two clocks."""
        return [(later - sooner) * PACKET * 8 * CLOCK / (end - begin)
                for (sooner, begin), (later, end) in zip(self.clocks, self.clocks[1:])]
