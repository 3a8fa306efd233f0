#include "sim/hostilemachine.h"

namespace kest::sim
{
const char* const hostileMachineText =
    R"(# A hostile bench: what software meets that leaves the laboratory. Every fault comes by chance, and the seed decides
# when; another seed is another bad day. See docs/simulated-machine.md for every key.
seed = 1

# ---- good chips, and wires that are not

[[bus]]
name = "flaky"
speed_khz = 100

[[chip]]
bus = "flaky"
type = "24C256"
address = 0xA0
image = "flaky-system.bin"

[[chip]]
bus = "flaky"
type = "PCA9552"
address = 0xC0

[[chip]]
bus = "flaky"
type = "PCA9555"
address = 0x40

[[chip]]
bus = "flaky"
type = "LM75"
address = 0x90

[[chip]]
bus = "flaky"
type = "HUB922"
address = 0x80

[[chip]]
bus = "flaky"
hub = 0x80
port = 3
type = "24C128"
address = 0xA2
image = "flaky-riser.bin"

[[fault]]                        # a contact that comes and goes
kind = "nack"
bus = "flaky"
probability = 0.1

[[fault]]
kind = "nack-data"
bus = "flaky"
byte = 2
probability = 0.05

[[fault]]
kind = "corrupt"
bus = "flaky"
way = "read"
byte = 5
value = 0x01
probability = 0.05

[[fault]]
kind = "short"
bus = "flaky"
byte = 3
probability = 0.05

[[fault]]                        # a second controller
kind = "arbitration"
bus = "flaky"
probability = 0.05

[[fault]]
kind = "hold-sda"
bus = "flaky"
probability = 0.02

[[fault]]
kind = "hub-status"
bus = "flaky"
value = 6
probability = 0.1

[[fault]]
kind = "hub-bad-first-byte"
bus = "flaky"
probability = 0.05

# ---- slow chips behind a small controller

[[bus]]
name = "slow"
speed_khz = 50
adapter = { message_bytes = 32 }

[[chip]]
bus = "slow"
type = "24C512"
address = 0xA0
image = "slow-system.bin"
write_cycle_ms = 10

[[chip]]                         # far beyond every data sheet
bus = "slow"
type = "24C32"
address = 0xA2
image = "slow-panel.bin"
write_cycle_ms = 60

[[chip]]
bus = "slow"
type = "LM92"
address = 0x96
celsius = 131

[[fault]]
kind = "stuck-write-cycle"
bus = "slow"
address = 0xA0
value = 25
probability = 0.2

# ---- parts that are not what their label says: the device table has the labels

[[bus]]
name = "wrong"

[[chip]]                         # labelled 24C256: offsets beyond 8 KiB come round to the start
bus = "wrong"
type = "24C64"
address = 0xA0
image = "wrong-small.bin"

[[chip]]                         # takes every write and keeps none
bus = "wrong"
type = "24C02"
address = 0xA2
image = "wrong-silent.bin"
protect = "silent"

[[chip]]                         # refuses every write
bus = "wrong"
type = "24C02"
address = 0xA4
image = "wrong-refused.bin"
protect = "nak"

[[chip]]                         # labelled PCA9555
bus = "wrong"
type = "PCA9554"
address = 0x40

[[chip]]                         # labelled LM75
bus = "wrong"
type = "LM92"
address = 0x90
celsius = -5.5

# ---- parts of other makers

[[bus]]
name = "parts"

[[chip]]                         # half the page that its type promises
bus = "parts"
type = "24C32"
address = 0xA0
image = "parts-page16.bin"
page = 16

[[chip]]                         # ferroelectric: no pages, no write cycle
bus = "parts"
type = "24C256"
address = 0xA2
image = "parts-fram.bin"
kind = "fram"

[[chip]]
bus = "parts"
type = "24C64"
address = 0xA4
image = "parts-high.bin"
half_offset = "high"

[[chip]]
bus = "parts"
type = "24C128"
address = 0xA6
image = "parts-keep.bin"
page = 256
half_offset = "keep"

[[chip]]                         # block bits: 0xA8 to 0xAE
bus = "parts"
type = "24C08"
address = 0xA8
image = "parts-blocks4.bin"

[[chip]]                         # pin 7 protects the part at port 4
bus = "parts"
type = "PCA9554"
address = 0x40

[[chip]]
bus = "parts"
type = "HUB922"
address = 0x80

[[chip]]
bus = "parts"
hub = 0x80
port = 0
type = "24C04"
address = 0xA0
image = "parts-blocks2.bin"

[[chip]]
bus = "parts"
hub = 0x80
port = 1
type = "24C16"
address = 0xA0
image = "parts-blocks8.bin"

[[chip]]
bus = "parts"
hub = 0x80
port = 2
type = "24C02"
address = 0xA4
image = "parts-half.bin"
page = 4
protect = "nak"
protect_area = "half"

[[chip]]
bus = "parts"
hub = 0x80
port = 3
type = "24C32"
address = 0xA4
image = "parts-quarter.bin"
protect = "silent"
protect_area = "quarter"

[[chip]]
bus = "parts"
hub = 0x80
port = 4
type = "24C02"
address = 0xA4
image = "parts-pin.bin"
protect = "silent"
protect_chip = 0x40
protect_pin = 7

[[bus]]
name = "deaf"

[[chip]]                         # ignores its address pins: answers at 0xA0 to 0xAE
bus = "deaf"
type = "24C02"
address = 0xA0
addresses = "all"
image = "deaf.bin"
page = 4

# ---- a bus of another node whose adapter comes and goes

[[bus]]
name = "flaky"
node = "far"

[[chip]]
bus = "flaky"
node = "far"
type = "24C02"
address = 0xA0
image = "far-system.bin"

[[chip]]
bus = "flaky"
node = "far"
type = "LM75"
address = 0x90

[[fault]]
kind = "gone"
node = "far"
probability = 0.2
)";
} // namespace kest::sim
