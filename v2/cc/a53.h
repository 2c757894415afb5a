// A/53 cc_data for pelvane-cc --a53: caption events become cc_data triplets,
// queued by due time; the video pictures are held back in a bounded hold and
// given their cc_data in presentation order, written into H.264 SEI or
// MPEG-2 user data.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <vector>

#include "v2/cc/caption_event_reader.h"

struct AVPacket;

// One cc_data triplet as it goes into the picture: the header byte
// (marker bits 11111, cc_valid, cc_type: FC = CEA-608 field 1, FD = field 2,
// FF = DTVCC packet start, FE = DTVCC packet data, FA = padding) and the two
// data bytes.
struct cc_triplet {
  uint8_t header = 0;
  uint8_t data1 = 0;
  uint8_t data2 = 0;
};

// Triplets waiting for a picture, each kind ordered by due time (90 kHz ticks
// on the output video clock); equal times keep arrival order. Bounded: see
// a53_queue_limit.
struct a53_queue {
  std::multimap<int64_t, cc_triplet> field1;  // CEA-608 pairs of CC1
  std::multimap<int64_t, cc_triplet> dtvcc;   // CEA-708 DTVCC packet bytes
  size_t dropped = 0;  // triplets dropped: the queue was full, or a picture could not take them
};
constexpr size_t a53_queue_limit = 65536;   // triplets (a few MB at most)
constexpr size_t a53_cc_count_max = 31;     // cc_count is a 5-bit field
constexpr int64_t a53_no_time = INT64_MIN;  // AV_NOPTS_VALUE: a picture without a time

// Adds the triplets of one caption event: each CEA-608 pair becomes an FC
// triplet due at its time, each CEA-708 word keeps its header byte. `offset`
// turns a caption-clock time in ms into the 90 kHz due time:
// due = time_ms * 90 + offset_90k. Past a53_queue_limit the oldest go.
void a53_queue_event(a53_queue& q, const caption_event_record& ev, int64_t offset_90k);

// cc_count for a video of num/den pictures a second. A/53 carries cc_data at
// 600 triplets a second (9600 bit/s of caption data) and fixes cc_count at
// 25 for 23.976 and 24, 20 for 29.97 and 30, 10 for 59.94 and 60 pictures a
// second; 25 and 50 get 24 and 12, the same rate. Any other rate gets 600 /
// rate rounded, within 3 to 31; an unknown rate (num or den not positive) is
// taken as 29.97.
size_t a53_cc_count(int num, int den);

// The cc_data of the picture shown at `pts`, cc_count triplets (3 to 31) as
// a broadcast encoder lays them out: the CEA-608 pairs due by pts (field 1;
// the null pair FC 80 80 when none is due), the field-2 null pair FD 80 80,
// the DTVCC bytes due by pts, then padding FA 00 00. Each kind is taken
// oldest first; what does not fit stays for the next picture.
std::vector<cc_triplet> a53_take_for_picture(a53_queue& q, int64_t pts, size_t cc_count);

// A video picture held back before it is written, and its cc_data once given.
struct a53_picture {
  AVPacket* packet = nullptr;
  int64_t time = a53_no_time;  // decode time (dts, else pts), 90 kHz
  int64_t pts = a53_no_time;
  size_t bytes = 0;  // payload
  std::vector<cc_triplet> cc;
};

// The hold: an event reaches the input at its cue's start, while its CEA-608
// entries begin up to a few seconds earlier (the time to load the caption),
// so pictures wait up to a53_hold_90k behind the newest one read. Bounded by
// count and by the memory the pictures really take (payload plus
// a53_picture_overhead each).
struct a53_hold {
  std::deque<a53_picture> pictures;           // decode order
  uint64_t first = 0;                         // sequence number of pictures.front()
  std::multimap<int64_t, uint64_t> unserved;  // pts -> sequence number, pictures without cc_data yet
  size_t bytes = 0;                           // memory held
  bool stalled = false;                       // the newest picture's time did not advance
};
constexpr int64_t a53_hold_90k = 3 * 90000;
constexpr size_t a53_hold_pictures_max = 600;  // 3 s at 200 pictures a second
constexpr size_t a53_hold_bytes_max = 16 << 20;
// An AVPacket, its buffer reference and padding, the hold's own entries and
// the cc_data vector, with the allocator's headers: an upper estimate.
constexpr size_t a53_picture_overhead = 640;

void a53_hold_add(a53_hold& h, a53_picture p);

// Must the oldest picture be written now? Yes when the hold is over a bound,
// when the oldest or newest has no time, when they lie more than
// a53_hold_90k apart, or when the newest picture's time did not advance past
// the one before it (a time that stands still cannot measure the hold).
bool a53_hold_full(const a53_hold& h);

// Takes the oldest picture out with its cc_data. Pictures are served in
// presentation order, so first every picture still held that is shown no
// later than it takes its share of `q`, earliest first: what one picture
// cannot take goes to the next one shown. A picture without a time carries
// padding only.
a53_picture a53_hold_take_oldest(a53_hold& h, a53_queue& q, size_t cc_count);

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

// Does the picture already carry A/53 cc_data ("GA94", type 03): an H.264
// SEI message of payload type 4 with country B5 and provider 0031, or MPEG-2
// user data?
bool a53_has_captions(const uint8_t* pic, size_t n, bool h264);
