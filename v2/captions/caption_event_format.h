// The caption event format on PID 0x1FFE: constants and the encoder's steps.
//
// First packet of an event (L = payload length, little-endian):
//   47 5F FE 1c "MOLVAR:VTT" 00 LL LL <payload bytes 0..170>
// Each further packet:
//   47 1F FE 1c <next 184 payload bytes>
// c is the low 4 bits of vtt_ts_continuity; the last packet is padded with 00.
//
// Payload: start i64, end i64, identifier 00, "name:value name:value" 00,
// text 00, CEA-608 lead u16, {step u16, pair 2 bytes}..., 00 00 00 00,
// CEA-708 lead u16, {step u16, type u8, value u16}..., 00 00 00 00 00.
// Each entry's time is the cue start minus the lead plus the steps so far.
#pragma once

#include <cstddef>
#include <cstdint>

#include "v2/captions/byte_io.h"
#include "v2/captions/captions.h"

constexpr uint16_t caption_pid = 0x1FFE;
constexpr char caption_magic[] = "MOLVAR:VTT";  // 10 bytes on the wire, then a 00
constexpr size_t caption_magic_size = 10;
constexpr size_t caption_first_packet_room = 171;  // after header, magic, 00 and L
constexpr size_t caption_next_packet_room = 184;

constexpr size_t caption_payload_area_size = 32768;
constexpr size_t caption_packet_area_size = 16384;
// Settings, text and the CEA-608/708 entries stop once the payload reaches
// this offset, leaving room for the fixed bytes that follow.
constexpr size_t caption_soft_limit = caption_payload_area_size - 32;
constexpr size_t caption_identifier_max = 32750;
// 87 packets fit the packet area: 171 + 86 * 184 payload bytes.
constexpr size_t caption_packets_max = caption_packet_area_size / ts_packet_size;
constexpr size_t caption_payload_max =
    caption_first_packet_room + (caption_packets_max - 1) * caption_next_packet_room;
static_assert(caption_payload_max == 15995);
// Times, the three zero terminators, two leads and two end marks.
constexpr size_t caption_payload_fixed = 32;

// How much of each variable part of an event goes into the payload. The
// default keeps everything (the soft limit still applies).
struct caption_payload_keep {
  size_t identifier = SIZE_MAX;  // bytes
  size_t settings = SIZE_MAX;    // bytes of names, ':', values and separating spaces
  size_t text = SIZE_MAX;        // bytes
  size_t cc608 = SIZE_MAX;       // entries
  size_t cc708 = SIZE_MAX;       // words
};

// The variable parts' full sizes, in the units of caption_payload_keep.
caption_payload_keep measure_caption_payload(const VPVTTEvent& ev);

// Payload length for the given parts.
size_t caption_payload_length(const caption_payload_keep& parts);

// What to keep of an event whose parts measure `full` so that its payload
// fits `limit` bytes: first all CEA-708 words go, then if still too long all
// CEA-608 entries, then the text, the settings and the identifier are cut.
// `cut` says whether anything was dropped.
caption_payload_keep plan_caption_payload(const caption_payload_keep& full, size_t limit, bool& cut);

// Writes the payload of `ev` from offset 0 of `out`, keeping what `keep`
// allows. Returns the payload length. Aborts if a section passes the end of
// `out`, which the soft limit and the plan prevent.
size_t write_caption_payload(byte_writer& out, const VPVTTEvent& ev, const caption_payload_keep& keep);

// Cuts a payload of `length` bytes into packets at the start of `area`,
// numbering them from `continuity`, which grows by one per packet. Returns
// the packets' total size. Aborts if they would pass the end of the area.
size_t write_caption_packets(unsigned char* area, size_t area_size, const unsigned char* payload, size_t length,
                             uint32_t& continuity);

// Packets needed for a payload of `length` bytes.
constexpr size_t caption_packet_count(size_t length) {
  return length <= caption_first_packet_room
             ? 1
             : 1 + (length - caption_first_packet_room + caption_next_packet_room - 1) / caption_next_packet_room;
}
