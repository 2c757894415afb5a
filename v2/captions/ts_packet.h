// Transport stream packets as the output sink and the caption path see them.
#pragma once

#include <cstddef>

constexpr size_t ts_packet_size = 188;
constexpr unsigned char ts_sync_byte = 0x47;
