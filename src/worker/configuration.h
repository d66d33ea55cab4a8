// configuration.h - the daemon's copy of master.ini.
#pragma once

#include <cstdint>

// Settings that an option gave outlive every reload of the file.
enum PinnedSetting : std::uint16_t {
    PIN_TARGET = 0x01,
    PIN_TIME_DELAY = 0x02,
    PIN_THROTTLE = 0x04,
    PIN_VERIFY = 0x08,
    PIN_MAX_CONCURRENT = 0x10,
    PIN_RECORD_RETENTION = 0x20,
    PIN_MAX_BLOCKS = 0x40,
    PIN_META_SIZE = 0x80,
    PIN_CLUSTER = 0x100,
    PIN_QUEUE_SCHEME = 0x200,
};

// Forgets the pins and the time at which the file was last read. For the start of the process.
void resetConfiguration();

// Keeps the value that g_settings has now for a setting.
void pinSetting(PinnedSetting setting);

// Reads master.ini if its modification time has risen, and the socket keys in any case. Writes g_settings and
// log_level.
void readConfiguration();
