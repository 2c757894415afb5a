// A/53 cc_data for pelvane-cc --a53: caption events become cc_data triplets,
// queued by due time, taken picture by picture and written into H.264 SEI or
// MPEG-2 user data.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "v2/cc/caption_event_reader.h"

// One cc_data triplet as it goes into the picture: the header byte
// (marker bits 11111, cc_valid, cc_type: FC = CEA-608 field 1, FF = DTVCC
// packet start, FE = DTVCC packet data) and the two data bytes.
struct cc_triplet {
  uint8_t header = 0;
  uint8_t data1 = 0;
  uint8_t data2 = 0;
};

// Triplets waiting for a picture, ordered by due time (90 kHz ticks on the
// output video clock); equal times keep arrival order. Bounded: see
// a53_queue_limit.
struct a53_queue {
  std::multimap<int64_t, cc_triplet> waiting;
  size_t dropped = 0;  // triplets dropped because the queue was full
};
constexpr size_t a53_queue_limit = 65536;  // triplets (a few MB at most)
constexpr size_t a53_cc_count_max = 31;    // cc_count is a 5-bit field

// Adds the triplets of one caption event: each CEA-608 pair becomes an FC
// triplet due at its time, each CEA-708 word keeps its header byte. `offset`
// turns a caption-clock time in ms into the 90 kHz due time:
// due = time_ms * 90 + offset_90k.
void a53_queue_event(a53_queue& q, const caption_event_record& ev, int64_t offset_90k);

// The triplets for the picture about to be written, whose presentation time
// is `pts`; `pending` holds the presentation times of the pictures that are
// still held back behind it (later in decode order, not yet written). A
// triplet goes to the first picture (in presentation order) whose pts is at or
// after its due time, never to an earlier one: so this picture takes the
// triplets due in (M, pts], where M is the largest pending pts below pts (or
// everything due up to pts when there is none), at most a53_cc_count_max,
// oldest first; the rest stay for later pictures.
std::vector<cc_triplet> a53_take_for_picture(a53_queue& q, int64_t pts, const std::vector<int64_t>& pending);

// cc_data() as carried in ATSC A/53 user data, starting with "GA94" and
// user_data_type_code 0x03: 47 41 39 34 03 <flags|cc_count> FF <triplets> FF.
std::vector<uint8_t> a53_user_data(const std::vector<cc_triplet>& t);

// H.264 in Annex B form: the access unit with one SEI NAL unit (payload type
// 4, user_data_registered_itu_t_t35: country B5, provider 0031, then
// a53_user_data) inserted before its first slice NAL unit (types 1 and 5),
// with emulation prevention. Returns the input unchanged when `t` is empty or
// the unit has no slice.
std::vector<uint8_t> h264_with_captions(const uint8_t* au, size_t n, const std::vector<cc_triplet>& t);

// MPEG-2 video: the picture with one user_data (00 00 01 B2, then
// a53_user_data) placed after its picture header and picture coding
// extension, before the first slice. Unchanged when `t` is empty, no
// picture header is found or no slice follows it. Header bytes are written
// with their marker bits 11111 set, so the user data never holds 00 00 01.
std::vector<uint8_t> mpeg2_with_captions(const uint8_t* pic, size_t n, const std::vector<cc_triplet>& t);
