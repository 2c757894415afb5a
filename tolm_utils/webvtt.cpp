// WebVTTTo608 and WebVTTTo708: WebVTT cues to pop-on CEA-608 (CC1) pairs
// and CEA-708 (one DTVCC service) words keyed by time on the cue clock.
//
// Times before 0: the frame grid starts at 0 and nothing is ever keyed
// before it (keys are unsigned). A cue that starts before 0, or so early that
// its load would have to begin before 0 or before the data already
// committed, is loaded from the first free frame and shown right after; if
// that leaves it no display time it is dropped. Keys never wrap.
//
// The converters write nothing to standard error: characters no caption set
// holds, rows beyond the fourth and cues left without display time are
// dropped silently, like other bad input on the caption path.
//
// The pipeline for one cue, a file per stage:
//   cue text bytes --next_text_item (caption_text)--> code points with italics
//     --map_char_608/708 (cea608, cea708)--> screen cells
//     --layout_cue_text, parse_cue_box (caption_layout)--> wrapped, placed rows
//     --build_608_load / build_708_load--> caption data
//     --schedule_608 / schedule_708 on the frame grid (frame_grid)--> keyed maps.
// Every step is a function of values; only convert_cue_608/708 touch the
// output map and the cross-cue context.
#include "tolm_utils/webvtt.h"

#include "tolm_utils/cea608.h"
#include "tolm_utils/cea708.h"

void WebVTTTo608(cc608_map& out, molvar_rational<long> unit, bool roll_up, const WebVTTFile_v1& file,
                 vtt_cue_map::const_iterator first, vtt_cue_map::const_iterator end, unsigned channel,
                 WebVTTConvContext_v1& ctx) {
  (void)roll_up;  // roll-up is not offered: every caption is pop-on
  (void)file;
  if (channel != 1) return;
  tolm_cc::frame_grid g;
  if (!tolm_cc::make_frame_grid(unit, molvar_rational<long>{30000, 1001}, g)) return;
  const tolm_cc::caption_options opt;
  for (auto it = first; it != end; ++it) tolm_cc::convert_cue_608(out, it->second, g, opt, ctx);
}

void WebVTTTo708(cc708_map& out, molvar_rational<long> unit, bool roll_up, const WebVTTFile_v1& file,
                 vtt_cue_map::const_iterator first, vtt_cue_map::const_iterator end, unsigned service,
                 WebVTTConvContext_v1& ctx, molvar_rational<long> frame_rate) {
  (void)roll_up;
  (void)file;
  if (service < 1 || service > 6) return;
  tolm_cc::frame_grid g;
  if (!tolm_cc::make_frame_grid(unit, frame_rate, g)) return;
  const tolm_cc::caption_options opt;
  const int cap = tolm_cc::dtvcc_cap_for_rate(frame_rate, opt.dtvcc_words_per_frame);
  for (auto it = first; it != end; ++it)
    tolm_cc::convert_cue_708(out, it->second, g, static_cast<int>(service), cap, opt, ctx);
}
