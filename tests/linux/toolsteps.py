"""What each step of board/tools must end with and say."""

import dataclasses

# A missing acknowledge is a time-out there. The emulated part, read behind one offset byte after another read, begins
# elsewhere each time.
SABRELITE = "sabrelite"
# The emulated part returns FF behind one offset byte there.
AST2600 = "ast2600-evb"


@dataclasses.dataclass(frozen=True)
class Step:
    name: str
    what: str
    code: int
    says: tuple = ()  # regular expressions
    elsewhere: tuple = ()  # board, exit code, regular expressions, where a board differs

    def expected(self, board):
        """@return exit code and regular expressions"""
        return self.elsewhere[1:] if self.elsewhere and self.elsewhere[0] == board else (self.code, self.says)


UNIFORM = (AST2600, 1, ('"verdict": "uniform"', "its first 256 bytes are all FF"))
UNDECIDED = (SABRELITE, 3, ("the offset width is not decidable",))
TRIED = ("the offset width is not decidable: a byte written at offset 0x0 behind one offset byte changed nothing",)
BUSY = "another program is at work on it: kestctl seeprom write on work"
UNDONE = "work: wrote 5000 bytes in 40 pages; .*read back and compared"
TABLE = "the device table has a 24C512, work, at A6 = 0x53"

STEPS = [
    Step("buses", "lists the adapters", 0, (r'"buses": \[',)),
    Step("detect", "finds parts, also one that a driver has", 0, (r'(?s)(?:"present": true.*){4}',)),
    Step("detect-field", "takes the field's form", 0, ("24C512 at A6 = 0x53: present",)),
    Step("detect-absent", "says that nothing answers", 4, ("nothing answers at AE = 0x57",),
         (SABRELITE, 1, ("no answer in time",))),
    Step("init", "writes a configuration", 0, (r"/proposed\.toml: 2 rows are ready",)),
    Step("init-json", "proposes rows", 0, ('"configuration": ',)),
    Step("init-devices", "its configuration can be used", 0, (r'"devices": \[',)),

    Step("probe-two", "shows two offset bytes", 0,
         ('"verdict": "two_bytes"', '"location": "/dev/i2c-1,L,2C0512,A4"'), UNIFORM),
    Step("probe-two-as-one", "shows two offset bytes, whatever the type claims", 0,
         ('"verdict": "two_bytes"', '"location": "/dev/i2c-1,L,2C0032,A4"'), UNIFORM),
    Step("probe-one", "shows one offset byte", 0,
         ('"verdict": "one_byte"', "one offset byte|behind two offset bytes it goes on as behind one",
          '"location": "/dev/i2c-1,L,1C0002,A2"')),
    Step("probe-one-as-two", "shows one offset byte, whatever the type claims", 0,
         ('"verdict": "one_byte"', '"location": "/dev/i2c-1,L,1C0002,A2"')),
    Step("write-two-as-one", "the wrong width is refused", 3, TRIED, UNDECIDED),
    Step("write-two-as-one-forced", "the wrong width is refused, forced or not", 3, TRIED, UNDECIDED),
    Step("write-one-as-two", "the wrong width is refused", 3,
         ("the part is no 24C256: one offset byte, 256 bytes", r"types that would fit: 24C02 \(1C0002\)$")),
    Step("rehearse", "says the width and writes nothing", 0,
         ("would write 4 bytes in 1 page", "offset width: two offset bytes"),
         (AST2600, 0, ("would write 4 bytes in 1 page", "not decidable: its first 256 bytes are all FF"))),
    Step("write-damage", "contents with wrong checksums are refused", 3,
         (r"the part would hold contents of the format edid \(EDID\) that are damaged: checksum",)),
    Step("write-protected", "says that a part takes no data", 5,
         ("the chip is write-protected: it holds the old bytes",)),
    Step("blank-as-one", "a blank part of the wrong type is refused", 3, TRIED),
    Step("blank", "a blank part is written after a trial", 0,
         ('"verdict": "two_bytes"', "a byte written at offset 0x1234 as a trial reads back", '"verified": true')),

    Step("table-read", "another type than the table's is refused", 3, (TABLE,)),
    Step("table-write", "another type than the table's is refused", 3, (TABLE,)),
    Step("driver-write", "a kernel driver's part is refused", 3, ("a kernel driver has A8 = 0x54",)),
    Step("driver-probe", "a kernel driver's part is refused", 3, ("a kernel driver has A8 = 0x54",)),

    Step("write", "proves, saves, writes and reads back", 0,
         ('"verdict": "two_bytes"', '"verified": true', '"bytes_written": 5000', '"pages_written": 40',
          '"undo_file": "/state/undo/work-')),
    Step("undo-list", "names the undo file", 0, ('"offset": 1000', '"length": 5000')),
    Step("undo", "puts the old bytes back", 0, (UNDONE,)),
    Step("redo", "takes the undo back", 0, (UNDONE,)),
    Step("undo-again", "puts the old bytes back", 0, (UNDONE,)),

    Step("interrupt-held", "a write is under way", 0),
    Step("interrupt", "^C ends it", 130, ("work: write: interrupted; ",)),
    Step("interrupt-undo", "puts the old bytes back", 0, ("read back and compared",)),
    Step("terminate-held", "a write is under way", 0),
    Step("terminate", "SIGTERM ends it", 143, ("work: write: ended by SIGTERM; ",)),
    Step("terminate-undo", "puts the old bytes back", 0, ("read back and compared",)),
    Step("hangup-held", "a write is under way", 0),
    Step("hangup", "SIGHUP ends it", 129, ("work: write: ended by SIGHUP: the terminal was closed; ",)),
    Step("hangup-undo", "puts the old bytes back", 0, ("read back and compared",)),

    Step("writer-held", "a write is under way", 0),
    Step("second-write", "another write is told who has the device", 6, (BUSY, '"doing": "seeprom write"')),
    Step("second-read", "a read is told who has the device", 6, (BUSY,)),
    Step("other-chip", "another chip is free", 0),
    Step("writer", "the first write ends well", 0,
         ("work: wrote 16384 bytes in 128 pages; .*read back and compared",)),
    Step("waiter", "a write that waits has its turn", 0,
         ("kestctl: work: waits for kestctl seeprom write on work",
          "work: wrote 4 bytes in 1 page; .*read back and compared")),
    Step("killed-held", "a write is under way", 0),
    Step("killed", "it is killed", 137),
    Step("after-kill", "a killed program holds nothing", 0, ("^00000000  1d 53 c8 ee ",)),

    Step("mux-scan", "shows the part behind the mux", 0, ('"address7": 86,\n *"state": "present"',)),
    Step("mux-detect", "finds the part behind the mux", 0, ("AC = 0x56: present",)),
    Step("mux-probe", "shows two offset bytes", 0, ('"verdict": "two_bytes"',), UNIFORM),
    Step("mux-refused", "the wrong width is refused", 3, TRIED, UNDECIDED),
    Step("mux-write", "proves, writes and reads back", 0,
         ('"verdict": "two_bytes"', '"verified": true', '"bytes_written": 300')),
    Step("mux-undo", "puts the old bytes back", 0, ("read back and compared",)),
]
