#include "v2/cc/a53.h"

#include <algorithm>

namespace {

// 00 00 01 start code at p[i]? (needs three bytes)
bool start_code_at(const uint8_t* p, size_t n, size_t i) {
  return i + 3 <= n && p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 1;
}

// Offset of the next 00 00 01 at or after `from`, or n.
size_t next_start_code(const uint8_t* p, size_t n, size_t from) {
  for (size_t i = from; i + 3 <= n; ++i) {
    if (p[i + 2] > 1) {
      i += 2;  // none of the next three positions can start a code
      continue;
    }
    if (start_code_at(p, n, i)) return i;
  }
  return n;
}

// The input with `block` inserted at offset `at`.
std::vector<uint8_t> spliced(const uint8_t* p, size_t n, size_t at, const std::vector<uint8_t>& block) {
  std::vector<uint8_t> out;
  out.reserve(n + block.size());
  out.insert(out.end(), p, p + at);
  out.insert(out.end(), block.begin(), block.end());
  out.insert(out.end(), p + at, p + n);
  return out;
}

// time_ms * 90 + offset_90k; a time too far out for 64 bits (only damaged
// events carry one) saturates, so such a triplet is due at once or never.
int64_t due_90k(int64_t time_ms, int64_t offset_90k) {
  int64_t due = 0;
  if (__builtin_mul_overflow(time_ms, 90, &due) || __builtin_add_overflow(due, offset_90k, &due))
    return time_ms < 0 ? INT64_MIN : INT64_MAX;
  return due;
}

bool is_608(const cc_triplet& t) { return (t.header & 0x02) == 0; }  // cc_type 0 or 1

}  // namespace

void a53_queue_event(a53_queue& q, const caption_event_record& ev, int64_t offset_90k) {
  for (const caption_pair_at& p : ev.cc608)
    q.waiting.emplace(due_90k(p.time_ms, offset_90k), cc_triplet{0xFC, p.b0, p.b1});
  for (const caption_word_at& w : ev.cc708)
    q.waiting.emplace(due_90k(w.time_ms, offset_90k),
                      cc_triplet{w.type, static_cast<uint8_t>(w.value >> 8), static_cast<uint8_t>(w.value)});
  while (q.waiting.size() > a53_queue_limit) {
    q.waiting.erase(q.waiting.begin());
    ++q.dropped;
  }
}

// Pictures with nothing due carry nothing: the caption readers we feed
// (FFmpeg's 608 decoder behind its A/53 side data, mux.js, the players'
// own) take each triplet as it comes and need no steady cc_count, and a
// picture without captions then leaves the output byte for byte as it came.
std::vector<cc_triplet> a53_take_for_picture(a53_queue& q, int64_t pts, const std::vector<int64_t>& pending) {
  // Triplets due at or before the latest pending picture shown before this
  // one belong to that picture (or an earlier one), which is written later.
  bool have_below = false;
  int64_t below = 0;
  for (int64_t p : pending) {
    if (p < pts && (!have_below || p > below)) {
      have_below = true;
      below = p;
    }
  }
  std::vector<cc_triplet> taken;
  auto it = have_below ? q.waiting.upper_bound(below) : q.waiting.begin();
  while (it != q.waiting.end() && it->first <= pts && taken.size() < a53_cc_count_max) {
    taken.push_back(it->second);
    it = q.waiting.erase(it);
  }
  // CEA-608 triplets lead within one cc_data, DTVCC after them, each kind in
  // due order.
  std::stable_partition(taken.begin(), taken.end(), is_608);
  return taken;
}

// cc_data(), at most a53_cc_count_max triplets:
//   47 41 39 34        "GA94"
//   03                 user_data_type_code: cc_data
//   C0|cc_count        reserved 1, process_cc_data_flag 1, additional_data_flag 0
//   FF                 em_data (reserved)
//   hh d1 d2 ...       the triplets as given
//   FF                 marker_bits
std::vector<uint8_t> a53_user_data(const std::vector<cc_triplet>& t) {
  const size_t count = std::min(t.size(), a53_cc_count_max);
  std::vector<uint8_t> u = {'G', 'A', '9', '4', 0x03, static_cast<uint8_t>(0xC0 | count), 0xFF};
  for (size_t i = 0; i < count; ++i) {
    u.push_back(t[i].header);
    u.push_back(t[i].data1);
    u.push_back(t[i].data2);
  }
  u.push_back(0xFF);
  return u;
}

namespace {

// Emulation prevention: after two zero bytes, a byte of 0 to 3 gets an 03
// in front, so that no start code appears inside the NAL unit.
std::vector<uint8_t> h264_escape(const std::vector<uint8_t>& rbsp) {
  std::vector<uint8_t> out;
  out.reserve(rbsp.size() + rbsp.size() / 2);
  int zeros = 0;
  for (uint8_t b : rbsp) {
    if (zeros >= 2 && b <= 3) {
      out.push_back(0x03);
      zeros = 0;
    }
    out.push_back(b);
    zeros = b == 0 ? zeros + 1 : 0;
  }
  return out;
}

// 00 00 00 01 06 | 04 size B5 00 31 <cc_data> 80, the part after the NAL
// header escaped. The four-byte start code lets the SEI open the access unit.
std::vector<uint8_t> h264_caption_sei(const std::vector<cc_triplet>& t) {
  const std::vector<uint8_t> ud = a53_user_data(t);
  std::vector<uint8_t> rbsp = {0x04};  // payloadType: user_data_registered_itu_t_t35
  size_t size = 3 + ud.size();
  for (; size >= 255; size -= 255) rbsp.push_back(0xFF);
  rbsp.push_back(static_cast<uint8_t>(size));
  rbsp.insert(rbsp.end(), {0xB5, 0x00, 0x31});  // itu_t_t35 country, provider
  rbsp.insert(rbsp.end(), ud.begin(), ud.end());
  rbsp.push_back(0x80);  // rbsp_stop_one_bit and alignment
  std::vector<uint8_t> nal = {0x00, 0x00, 0x00, 0x01, 0x06};
  const std::vector<uint8_t> escaped = h264_escape(rbsp);
  nal.insert(nal.end(), escaped.begin(), escaped.end());
  return nal;
}

}  // namespace

std::vector<uint8_t> h264_with_captions(const uint8_t* au, size_t n, const std::vector<cc_triplet>& t) {
  if (t.empty()) return std::vector<uint8_t>(au, au + n);
  for (size_t sc = next_start_code(au, n, 0); sc < n; sc = next_start_code(au, n, sc + 3)) {
    if (sc + 3 >= n) break;
    const int type = au[sc + 3] & 0x1F;
    if (type != 1 && type != 5) continue;
    // The zero_byte of a four-byte start code stays with its slice.
    const size_t at = sc > 0 && au[sc - 1] == 0 ? sc - 1 : sc;
    return spliced(au, n, at, h264_caption_sei(t));
  }
  return std::vector<uint8_t>(au, au + n);
}

// MPEG-2 user data must not hold 00 00 01. Only a zero data pair makes two
// zero bytes in a row, and the byte after it is the next header or the
// closing FF: so each header is written with its marker bits 11111 set,
// which it already has in every triplet a caption event gives.
std::vector<uint8_t> mpeg2_with_captions(const uint8_t* pic, size_t n, const std::vector<cc_triplet>& t) {
  if (t.empty()) return std::vector<uint8_t>(pic, pic + n);
  size_t sc = next_start_code(pic, n, 0);
  while (sc + 3 < n && pic[sc + 3] != 0x00) sc = next_start_code(pic, n, sc + 3);
  if (sc + 3 >= n) return std::vector<uint8_t>(pic, pic + n);  // no picture header
  // After the picture header, its coding extension and any other extension
  // or user data: the first slice, 00 00 01 01 to 00 00 01 AF.
  for (sc = next_start_code(pic, n, sc + 4); sc + 3 < n; sc = next_start_code(pic, n, sc + 3)) {
    const uint8_t code = pic[sc + 3];
    if (code < 0x01 || code > 0xAF) continue;
    std::vector<cc_triplet> marked = t;
    for (cc_triplet& m : marked) m.header |= 0xF8;
    std::vector<uint8_t> block = {0x00, 0x00, 0x01, 0xB2};
    const std::vector<uint8_t> ud = a53_user_data(marked);
    block.insert(block.end(), ud.begin(), ud.end());
    return spliced(pic, n, sc, block);
  }
  return std::vector<uint8_t>(pic, pic + n);
}
