// CEA-708 pop-on captions in one DTVCC service: characters, window
// commands, service blocks and packets, and their place on the frame grid.
#include <algorithm>

#include "tolm_utils/cea708.h"

namespace tolm_cc {

// ---------------------------------------------------------------------------
// Characters
// ---------------------------------------------------------------------------

namespace {

// G2 characters, sent as EXT1 (0x10) and the code.
struct g2_char {
  char32_t cp;
  uint8_t code;
};
constexpr g2_char g2_set[] = {
    {U'\u2026', 0x25}, {U'Š', 0x2A},      {U'Œ', 0x2C},      {U'\u2588', 0x30}, {U'\u2018', 0x31},
    {U'\u2019', 0x32}, {U'\u201C', 0x33}, {U'\u201D', 0x34}, {U'\u2022', 0x35}, {U'\u2122', 0x39},
    {U'š', 0x3A},      {U'œ', 0x3C},      {U'\u2120', 0x3D}, {U'Ÿ', 0x3F},      {U'\u215B', 0x76},
    {U'\u215C', 0x77}, {U'\u215D', 0x78}, {U'\u215E', 0x79}, {U'\u2502', 0x7A}, {U'\u2510', 0x7B},
    {U'\u2514', 0x7C}, {U'\u2500', 0x7D}, {U'\u2518', 0x7E}, {U'\u250C', 0x7F},
};

bool map_direct_708(char32_t cp, caption_cell& out) {
  out = caption_cell{};
  if ((cp >= 0x20 && cp <= 0x7E) || (cp >= 0xA0 && cp <= 0xFF)) {  // G0 is ASCII, G1 Latin-1
    out.kind = cell_kind::g0g1;
    out.b0 = static_cast<uint8_t>(cp);
    return true;
  }
  if (cp == U'\u266A') {  // G0 0x7F is the music note
    out.kind = cell_kind::g0g1;
    out.b0 = 0x7F;
    return true;
  }
  for (const auto& g : g2_set) {
    if (g.cp == cp) {
      out.kind = cell_kind::ext1;
      out.b0 = 0x10;
      out.b1 = g.code;
      return true;
    }
  }
  return false;
}

}  // namespace

int map_char_708(char32_t cp, const caption_options& opt, caption_cell out[3]) {
  if (map_direct_708(cp, out[0])) return 1;
  const std::u32string_view sub = typographic_substitute(cp);
  if (!sub.empty()) {
    int n = 0;
    for (char32_t c : sub)
      if (n < 3 && map_direct_708(c, out[n])) ++n;
    return n;
  }
  if (const char32_t base = base_letter(cp); base != 0 && map_direct_708(base, out[0])) return 1;
  if (opt.unmappable_as_question && map_direct_708(U'?', out[0])) return 1;
  return 0;
}

// ---------------------------------------------------------------------------
// Commands and packets
// ---------------------------------------------------------------------------

namespace {

dtvcc_atom atom(std::initializer_list<uint8_t> bytes) {
  dtvcc_atom a;
  for (uint8_t b : bytes)
    if (a.len < sizeof a.b) a.b[a.len++] = b;
  return a;
}

// Command codes and the parameter values this encoder uses.
enum : uint8_t {
  cmd_etx = 0x03,
  cmd_ext1 = 0x10,
  cmd_dsw = 0x89,
  cmd_hdw = 0x8A,
  cmd_dlw = 0x8C,
  cmd_spa = 0x90,
  cmd_spc = 0x91,
  cmd_spl = 0x92,
  cmd_swa = 0x97,
  cmd_df0 = 0x98,
};
constexpr uint8_t dfw_hidden_locked = 0x18;  // not visible, row and column lock, priority 0
constexpr uint8_t dfw_styles = 0x09;         // predefined window style 1, pen style 1
constexpr uint8_t spa_standard = 0x05;       // dialog tag, normal offset, standard size
constexpr uint8_t spa_italic = 0x80;

}  // namespace

std::vector<dtvcc_atom> build_708_load(const caption_layout& lay, const cue_box& box, int w,
                                       bool delete_all_first) {
  std::vector<dtvcc_atom> atoms;
  const int n = static_cast<int>(lay.rows.size());
  if (n == 0) return atoms;
  atoms.reserve(8 + n * 34);
  w &= 7;
  int cols = 1;
  for (const caption_row& row : lay.rows) cols = std::max(cols, static_cast<int>(row.cells.size()));
  cols = std::min(cols, screen_columns);

  const int top = box_top_row(box, n);
  const bool bottom = box_from_bottom(box);
  const h_align h = box_h_align(box);
  const int anchor_point = (bottom ? 6 : 0) + (h == h_align::left ? 0 : h == h_align::center ? 1 : 2);
  const int anchor_v =
      bottom ? std::min(99, (top + n - 1) * 100 / screen_rows - 1) : (top - 1) * 100 / screen_rows;
  const int anchor_h = box_anchor_h(box);

  if (delete_all_first) atoms.push_back(atom({cmd_dlw, 0xFF}));
  atoms.push_back(
      atom({static_cast<uint8_t>(cmd_df0 | w), dfw_hidden_locked, static_cast<uint8_t>(0x80 | anchor_v),
            static_cast<uint8_t>(anchor_h), static_cast<uint8_t>((anchor_point << 4) | (n - 1)),
            static_cast<uint8_t>(cols - 1), dfw_styles}));
  // Solid black fill, no border, no wrap, left to right, scroll bottom to
  // top, left-justified (rows are placed by SPL), snap display.
  atoms.push_back(atom({cmd_swa, 0x00, 0x00, 0x0C, 0x00}));
  atoms.push_back(atom({cmd_spa, spa_standard, 0x00}));
  atoms.push_back(atom({cmd_spc, 0x2A, 0x00, 0x00}));  // solid white on solid black
  bool pen_italic = false;                             // the pen keeps its attributes across SPL
  for (int r = 0; r < n; ++r) {
    const caption_row& row = lay.rows[r];
    const int width = std::min(static_cast<int>(row.cells.size()), cols);
    const int offset = h == h_align::left ? 0 : h == h_align::center ? (cols - width) / 2 : cols - width;
    atoms.push_back(atom({cmd_spl, static_cast<uint8_t>(r), static_cast<uint8_t>(offset)}));
    for (const caption_cell& c : row.cells) {
      if (c.italic != pen_italic) {
        pen_italic = c.italic;
        atoms.push_back(atom({cmd_spa, spa_standard, pen_italic ? spa_italic : uint8_t(0)}));
      }
      if (c.kind == cell_kind::ext1) atoms.push_back(atom({cmd_ext1, c.b1}));
      else atoms.push_back(atom({c.b0}));
    }
  }
  atoms.push_back(atom({cmd_etx}));
  return atoms;
}

namespace {

void put_u8(dtvcc_payload& p, uint8_t b) {
  if (p.len < static_cast<int>(sizeof p.data)) p.data[p.len++] = b;
}

}  // namespace

std::vector<dtvcc_payload> pack_service_blocks(const std::vector<dtvcc_atom>& atoms, int service) {
  std::vector<dtvcc_payload> packets;
  dtvcc_payload pkt;
  uint8_t block[31];
  int block_len = 0;
  const auto close_block = [&] {
    if (block_len == 0) return;
    put_u8(pkt, static_cast<uint8_t>((service << 5) | block_len));
    for (int i = 0; i < block_len; ++i) put_u8(pkt, block[i]);
    block_len = 0;
  };
  const auto close_packet = [&] {
    close_block();
    if (pkt.len > 0) packets.push_back(pkt);
    pkt = dtvcc_payload{};
  };
  for (const dtvcc_atom& a : atoms) {
    if (block_len + a.len > static_cast<int>(sizeof block)) close_block();
    if (pkt.len + 1 + block_len + a.len > static_cast<int>(sizeof pkt.data)) close_packet();
    for (int i = 0; i < a.len; ++i) block[block_len++] = a.b[i];
  }
  close_packet();
  return packets;
}

int packet_triplets(const dtvcc_payload& p) { return (p.len + 2) / 2; }

void packet_words(const dtvcc_payload& p, int seq, std::vector<q7ro_cea708_word>& out) {
  const int triplets = packet_triplets(p);  // header + payload, padded to even
  const uint8_t header = static_cast<uint8_t>(((seq & 3) << 6) | (triplets & 0x3F));
  const auto byte_at = [&](int i) -> uint8_t {  // i over header + payload + pad
    if (i == 0) return header;
    return i - 1 < p.len ? p.data[i - 1] : 0;
  };
  for (int t = 0; t < triplets; ++t) {
    const uint16_t value = static_cast<uint16_t>((byte_at(2 * t) << 8) | byte_at(2 * t + 1));
    out.push_back(q7ro_cea708_word{t == 0 ? cc_dtvcc_start : cc_dtvcc_data, value});
  }
}

// ---------------------------------------------------------------------------
// Scheduling
// ---------------------------------------------------------------------------

namespace {

// Spans of a packet of `need` triplets placed forwards: its first triplets
// take the `room` free slots at the end of frame `first`, the rest full
// frames upwards.
std::vector<frame_span> spans_up(int64_t first, int room, int need, int cap) {
  std::vector<frame_span> v;
  for (int64_t f = first; need > 0; ++f) {
    const int take = std::min(need, f == first ? room : cap);
    v.push_back({f, take});
    need -= take;
  }
  return v;
}

// The same placed backwards: its last triplets take the `room` free slots at
// the start of frame `last`, the rest full frames downwards. Ascending.
std::vector<frame_span> spans_down(int64_t last, int room, int need, int cap) {
  std::vector<frame_span> v;
  for (int64_t f = last; need > 0; --f) {
    const int take = std::min(need, f == last ? room : cap);
    v.push_back({f, take});
    need -= take;
  }
  std::reverse(v.begin(), v.end());
  return v;
}

}  // namespace

// Load packets fill the frames before show backwards, at most cap triplets a
// frame, never in frame c (the pending end packet) nor across it, never
// before nf. The show packet goes in frame s (s+1 when s is c), the end
// packet in e (e+1 when e is c). A load that cannot fit after nf goes
// forwards from nf and the caption shows in the frame after it; a caption
// left without display time is dropped.
schedule_708_result schedule_708(const std::vector<int>& load_triplets, int64_t s, int64_t e, bool pending,
                                 int64_t c, int64_t nf, int cap) {
  schedule_708_result r;
  cap = std::clamp(cap, 1, 15);
  const size_t n = load_triplets.size();
  int64_t show = s;
  if (pending && show == c) show = c + 1;
  schedule_note note = schedule_note::on_time;

  r.load.assign(n, {});
  int64_t f = show - 1;  // frame being filled, `room` slots free at its start
  int room = cap;
  for (size_t i = n; i-- > 0;) {
    const int need = std::clamp(load_triplets[i], 1, 64);
    for (;;) {
      if (pending && f == c) {
        --f;
        room = cap;
      }
      r.load[i] = spans_down(f, room, need, cap);
      if (pending && r.load[i].front().frame <= c && c < f) {  // would straddle the end packet
        f = c - 1;
        room = cap;
        continue;
      }
      break;
    }
    const frame_span& low = r.load[i].front();
    const int used = low.frame == f ? cap - room + low.count : low.count;
    f = used >= cap ? low.frame - 1 : low.frame;
    room = used >= cap ? cap : cap - used;
  }

  if (n > 0 && r.load[0].front().frame < nf) {
    f = nf;  // now `room` slots free at the end of f
    room = cap;
    for (size_t i = 0; i < n; ++i) {
      const int need = std::clamp(load_triplets[i], 1, 64);
      for (;;) {
        if (pending && f == c) {
          ++f;
          room = cap;
        }
        r.load[i] = spans_up(f, room, need, cap);
        if (pending && f < c && c <= r.load[i].back().frame) {
          f = c + 1;
          room = cap;
          continue;
        }
        break;
      }
      const frame_span& top = r.load[i].back();
      const int used = top.frame == f ? cap - room + top.count : top.count;
      f = used >= cap ? top.frame + 1 : top.frame;
      room = used >= cap ? cap : cap - used;
    }
    int64_t next = r.load[n - 1].back().frame + 1;
    if (pending && next == c) ++next;
    if (next > show) {
      show = next;
      note = schedule_note::late;
    }
  }
  if (e <= show) {
    r.load.clear();
    r.note = schedule_note::dropped;
    return r;
  }
  r.note = note;
  r.show = show;
  r.end = (pending && e == c) ? c + 1 : e;
  return r;
}

int dtvcc_cap_for_rate(molvar_rational<long> rate, int configured) {
  int cap = std::clamp(configured, 1, 15);
  if (rate.num > 0 && rate.den > 0) {
    const __int128 scaled = __int128(300) * rate.den / rate.num;
    if (scaled < cap) cap = static_cast<int>(scaled);
  }
  return std::clamp(cap, 1, 15);
}

// Sequence numbers must rise by one per packet in transmission order, but
// the previous caption's end packet (frame c) was numbered in the previous
// call. So this call's packets before c form a group whose length is a
// multiple of 4 (padded with one-triplet null packets in its last frame),
// numbered from the pending packet's own number; the packets after c go on
// from the pending number + 1.
bool convert_cue_708(cc708_map& out, const WebVTTFileEvent_v1& cue, const frame_grid& g, int service, int cap,
                     const caption_options& opt, WebVTTConvContext_v1& ctx) {
  if (service < 1 || service > 6) return false;
  int64_t s, e;
  if (!cue_frames(cue, g, s, e)) return false;
  const cue_box box = parse_cue_box(cue.settings);
  const caption_layout lay = layout_cue_text(cue.text, box_wrap_width(box), cc_target::cea708, opt);
  if (lay.rows.empty()) return false;
  // Worked on a copy: a dropped cue leaves the caller's context as it was.
  WebVTTConvContext_v1 cur = ctx;
  if (clock_jumped(g, s, cur)) cur = webvtt_conv_context_start();

  const int old_target = cur.pending_target;
  const bool pending = old_target == 0 || old_target == 1;
  const int w = old_target == 0 ? 1 : 0;  // never the window on screen
  const std::vector<dtvcc_payload> load =
      pack_service_blocks(build_708_load(lay, box, w, cur.tag == 0xFFFF), service);
  std::vector<int> load_triplets;
  for (const dtvcc_payload& p : load) load_triplets.push_back(packet_triplets(p));

  const int64_t c = pending ? grid_frame(g, context_time(cur.clear_at_ms)) : 0;
  const int64_t nf = grid_frame_at_or_after(g, context_time(cur.next_free_ms));
  schedule_708_result r = schedule_708(load_triplets, s, e, pending, c, nf, cap);
  if (r.note == schedule_note::dropped) return false;

  // Show: hide the old caption first when its end is still to come.
  std::vector<dtvcc_atom> show_atoms;
  if (pending && r.show < c) show_atoms.push_back(atom({cmd_hdw, static_cast<uint8_t>(1 << old_target)}));
  show_atoms.push_back(atom({cmd_dsw, static_cast<uint8_t>(1 << w)}));
  const dtvcc_payload show = pack_service_blocks(show_atoms, service).front();
  const dtvcc_payload end = pack_service_blocks({atom({cmd_dlw, static_cast<uint8_t>(1 << w)})}, service).front();

  struct item {
    const dtvcc_payload* payload;  // null: a null packet
    std::vector<frame_span> spans;
  };
  std::vector<item> items;
  items.reserve(load.size() + 5);
  for (size_t i = 0; i < load.size(); ++i) items.push_back({&load[i], std::move(r.load[i])});
  items.push_back({&show, {{r.show, packet_triplets(show)}}});
  items.push_back({&end, {{r.end, packet_triplets(end)}}});

  size_t before_c = 0;
  if (pending)
    while (before_c < items.size() && items[before_c].spans.front().frame < c) ++before_c;
  const size_t nulls = (4 - before_c % 4) % 4;
  if (nulls > 0) {
    const int64_t frame = items[before_c - 1].spans.back().frame;
    items.insert(items.begin() + static_cast<std::ptrdiff_t>(before_c), nulls, item{nullptr, {{frame, 1}}});
  }

  const int pending_seq = static_cast<int>((cur.counter - 1) & 3);
  int seq = pending ? pending_seq : static_cast<int>(cur.counter & 3);
  std::vector<q7ro_cea708_word> words;
  for (size_t i = 0; i < items.size(); ++i) {
    if (pending && i == before_c + nulls) seq = (pending_seq + 1) & 3;
    words.clear();
    if (items[i].payload) {
      packet_words(*items[i].payload, seq, words);
    } else {
      words.push_back(q7ro_cea708_word{cc_dtvcc_start, static_cast<uint16_t>(((seq << 6) | 1) << 8)});
    }
    size_t k = 0;
    for (const frame_span& sp : items[i].spans) {
      std::vector<q7ro_cea708_word>& slot = out[static_cast<uint64_t>(grid_key(g, sp.frame))];
      for (int j = 0; j < sp.count && k < words.size(); ++j) slot.push_back(words[k++]);
    }
    seq = (seq + 1) & 3;
  }

  cur.counter += static_cast<uint32_t>(items.size());
  if (!pending || r.end > c) {
    cur.pending_target = w;
    cur.clear_at_ms = static_cast<uint64_t>(grid_key(g, r.end));
    cur.next_free_ms = static_cast<uint64_t>(grid_key(g, pending ? std::max(r.show + 1, c + 1) : r.show + 1));
    cur.tag = static_cast<uint16_t>(1 << w);
  } else {
    // Nested inside the previous caption: its end packet stays pending.
    cur.next_free_ms = static_cast<uint64_t>(grid_key(g, r.end + 1));
    cur.tag = static_cast<uint16_t>(1 << old_target);
  }
  ctx = cur;
  return true;
}

}  // namespace tolm_cc
