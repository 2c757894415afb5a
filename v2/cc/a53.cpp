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

// Moves the triplets of `from` due by `pts` to `out`, oldest first, at most
// `room` of them.
void take_due(std::multimap<int64_t, cc_triplet>& from, int64_t pts, size_t room, std::vector<cc_triplet>& out) {
  for (auto it = from.begin(); it != from.end() && it->first <= pts && room > 0; --room) {
    out.push_back(it->second);
    it = from.erase(it);
  }
}

}  // namespace

void a53_queue_event(a53_queue& q, const caption_event_record& ev, int64_t offset_90k) {
  for (const caption_pair_at& p : ev.cc608)
    q.field1.emplace(due_90k(p.time_ms, offset_90k), cc_triplet{0xFC, p.b0, p.b1});
  for (const caption_word_at& w : ev.cc708)
    q.dtvcc.emplace(due_90k(w.time_ms, offset_90k),
                    cc_triplet{w.type, static_cast<uint8_t>(w.value >> 8), static_cast<uint8_t>(w.value)});
  while (q.field1.size() + q.dtvcc.size() > a53_queue_limit) {
    const bool field1_older =
        !q.field1.empty() && (q.dtvcc.empty() || q.field1.begin()->first <= q.dtvcc.begin()->first);
    auto& from = field1_older ? q.field1 : q.dtvcc;
    from.erase(from.begin());
    ++q.dropped;
  }
}

size_t a53_cc_count(int num, int den) {
  if (num <= 0 || den <= 0) return 20;
  const int64_t rounded = (int64_t{1200} * den + num) / (int64_t{2} * num);  // 600 * den / num
  return static_cast<size_t>(std::clamp<int64_t>(rounded, 3, a53_cc_count_max));
}

std::vector<cc_triplet> a53_take_for_picture(a53_queue& q, int64_t pts, size_t cc_count) {
  cc_count = std::clamp<size_t>(cc_count, 3, a53_cc_count_max);
  std::vector<cc_triplet> t;
  take_due(q.field1, pts, cc_count - 1, t);
  if (t.empty()) t.push_back({0xFC, 0x80, 0x80});
  t.push_back({0xFD, 0x80, 0x80});
  take_due(q.dtvcc, pts, cc_count - t.size(), t);
  t.resize(cc_count, {0xFA, 0x00, 0x00});
  return t;
}

void a53_hold_add(a53_hold& h, a53_picture p) {
  h.stalled = !h.pictures.empty() && p.time != a53_no_time && h.pictures.back().time != a53_no_time &&
              p.time <= h.pictures.back().time;
  if (p.pts != a53_no_time) h.unserved.emplace(p.pts, h.first + h.pictures.size());
  h.bytes += p.bytes + a53_picture_overhead;
  h.pictures.push_back(std::move(p));
}

bool a53_hold_full(const a53_hold& h) {
  if (h.pictures.empty()) return false;
  if (h.pictures.size() > a53_hold_pictures_max || h.bytes > a53_hold_bytes_max) return true;
  if (h.pictures.size() > 1 && h.stalled) return true;
  const int64_t oldest = h.pictures.front().time;
  const int64_t newest = h.pictures.back().time;
  int64_t span = 0;
  return oldest == a53_no_time || newest == a53_no_time || __builtin_sub_overflow(newest, oldest, &span) ||
         span > a53_hold_90k;
}

a53_picture a53_hold_take_oldest(a53_hold& h, a53_queue& q, size_t cc_count) {
  const int64_t pts = h.pictures.front().pts;
  auto it = h.unserved.begin();
  for (; pts != a53_no_time && it != h.unserved.end() && it->first <= pts; ++it)
    h.pictures[it->second - h.first].cc = a53_take_for_picture(q, it->first, cc_count);
  h.unserved.erase(h.unserved.begin(), it);
  a53_picture p = std::move(h.pictures.front());
  h.pictures.pop_front();
  ++h.first;
  h.bytes -= p.bytes + a53_picture_overhead;
  if (p.cc.empty()) {
    a53_queue none;
    p.cc = a53_take_for_picture(none, 0, cc_count);
  }
  return p;
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

namespace {

bool starts_with(const uint8_t* p, size_t n, const uint8_t* head, size_t k) {
  return n >= k && std::equal(head, head + k, p);
}

// The SEI NAL unit's messages (after its header byte, up to `n`), emulation
// prevention undone: does one carry A/53 cc_data?
bool sei_has_captions(const uint8_t* p, size_t n) {
  std::vector<uint8_t> rbsp;
  rbsp.reserve(n);
  int zeros = 0;
  for (size_t i = 0; i < n; ++i) {
    if (zeros >= 2 && p[i] == 3) {
      zeros = 0;
      continue;
    }
    rbsp.push_back(p[i]);
    zeros = p[i] == 0 ? zeros + 1 : 0;
  }
  constexpr uint8_t t35[] = {0xB5, 0x00, 0x31, 'G', 'A', '9', '4', 0x03};
  size_t i = 0;
  while (rbsp.size() - i >= 2) {  // a message's type and size, before the stop bit
    size_t type = 0, size = 0;
    for (; i < rbsp.size() && rbsp[i] == 0xFF; ++i) type += 255;
    if (i < rbsp.size()) type += rbsp[i++];
    for (; i < rbsp.size() && rbsp[i] == 0xFF; ++i) size += 255;
    if (i < rbsp.size()) size += rbsp[i++];
    if (size > rbsp.size() - i) return false;
    if (type == 4 && starts_with(rbsp.data() + i, size, t35, sizeof t35)) return true;
    i += size;
  }
  return false;
}

}  // namespace

bool a53_has_captions(const uint8_t* pic, size_t n, bool h264) {
  constexpr uint8_t cc_data_head[] = {'G', 'A', '9', '4', 0x03};
  for (size_t sc = next_start_code(pic, n, 0), next = 0; sc + 3 < n; sc = next) {
    next = next_start_code(pic, n, sc + 3);
    const uint8_t* unit = pic + sc + 3;  // from its header byte or start code value
    const size_t len = next - sc - 3;
    if (len == 0) continue;
    if (h264 && (unit[0] & 0x1F) == 6 && sei_has_captions(unit + 1, len - 1)) return true;
    if (!h264 && unit[0] == 0xB2 && starts_with(unit + 1, len - 1, cc_data_head, sizeof cc_data_head)) return true;
  }
  return false;
}
